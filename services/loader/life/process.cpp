// Between fork and exec what the new process inherits is arranged step by step; a step that fails is one line and
// status 127.

#include "life/process.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <vector>

#include "config/environment.h"
#include "kl/conventions.h"
#include "life/call_filter.h"
#include "life/capabilities.h"
#include "life/oom_score.h"
#include "services/common/new_process.h"
#include "transport/descriptors.h"

namespace loader {
namespace {

[[noreturn]] void giveUp(const ServiceConfiguration& service, const char* what) {
  std::fprintf(stderr, "kl-loader: %s: %s: %s\n", service.name.c_str(), what, std::strerror(errno));
  ::_exit(127);
}

// Root has what the loader has, and everybody else has none; none here means that the former stays as it is.
std::optional<Capabilities> capabilitiesOf(const ServiceConfiguration& service) {
  if (service.limits.capabilities || service.userId() == 0) return service.limits.capabilities;
  return Capabilities{0};
}

// Without new privileges nobody has again what was given up; elsewhere the bound alone keeps what was configured.
bool arrangeBound(const ServiceConfiguration& service, Capabilities set) {
  return boundCapabilities(set) || !service.limits.capabilities || !service.limits.mayGainPrivileges;
}

// The user and his groups are those of the time when the configuration was read: the system is not asked for names.
void becomeUser(const ServiceConfiguration& service) {
  const auto capabilities = capabilitiesOf(service);
  if (capabilities && !arrangeBound(service, *capabilities)) giveUp(service, "cannot bound its capabilities");
  if (!common::becomeUser(service.userId(), service.groups)) giveUp(service, "cannot become its user");
  if (capabilities && !takeCapabilities(*capabilities)) giveUp(service, "cannot have its capabilities");
}

// A process that outlives its loader would run beside the one that the next loader starts, so the kernel kills it when
// the loader ends.  A change of the user drops that setting, so this comes after it.  If the loader ended before this
// call, the parent is another process already.
void endWith(pid_t loader) {
  (void)::prctl(PR_SET_PDEATHSIG, SIGKILL);
  if (::getppid() != loader) ::_exit(127);
}

void arrangeStreams(const ServiceConfiguration& service, const Streams& streams) {
  if (streams.output.isOpen() && ::dup2(streams.output.get(), STDOUT_FILENO) < 0)
    giveUp(service, "no output");
  if (streams.errors.isOpen() && ::dup2(streams.errors.get(), STDERR_FILENO) < 0)
    giveUp(service, "no output");
}

void arrangeDescriptors(const ServiceConfiguration& service, int connection) {
  const int nothing = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
  if (nothing < 0 || ::dup2(nothing, STDIN_FILENO) < 0) giveUp(service, "no standard input");
  const bool isInPlace = connection == kl::CONNECTION_DESCRIPTOR;
  if ((isInPlace ? ::fcntl(connection, F_SETFD, 0) : ::dup2(connection, kl::CONNECTION_DESCRIPTOR)) < 0)
    giveUp(service, "no connection");
  common::closeFrom(kl::CONNECTION_DESCRIPTOR + 1);  // whatever the loader itself has inherited
}

// The resources are numbers in one C library, and a type of their own in another.
bool setLimit(auto resource, rlim_t most) {
  const rlimit limit{most, most};
  return ::setrlimit(resource, &limit) == 0;
}

// The loader's own bound holds as well.
bool bound(auto resource, std::uint64_t most) {
  rlimit own{};
  return ::getrlimit(resource, &own) == 0 &&
         setLimit(resource, static_cast<rlim_t>(std::min<std::uint64_t>(most, own.rlim_max)));
}

// Some of it only root may give.
void arrangeLimits(const ServiceConfiguration& service) {
  const ProcessLimits& limits = service.limits;
  if (limits.files && !setLimit(RLIMIT_NOFILE, *limits.files))
    giveUp(service, "cannot have its number of files");
  if (limits.nice && ::setpriority(PRIO_PROCESS, 0, *limits.nice) != 0)
    giveUp(service, "cannot have its nice value");
  if (limits.oomScore && !setOomScore(*limits.oomScore)) giveUp(service, "cannot have its oom_score");
  if (limits.umask) ::umask(*limits.umask);
}

// These bind the process at once, so they come when it is its user's, and last.
void bindItself(const ServiceConfiguration& service) {
  const ProcessLimits& limits = service.limits;
  if (!limits.mayGainPrivileges && ::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0)
    giveUp(service, "cannot give up new privileges");
  if (limits.tasks && !bound(RLIMIT_NPROC, *limits.tasks)) giveUp(service, "cannot have its number of tasks");
  if (limits.memory && !bound(RLIMIT_DATA, *limits.memory))
    giveUp(service, "cannot have its amount of memory");
}

void arrangeEnvironment(const ServiceConfiguration& service) {
  const Environment environment = environmentOf(service);
  (void)::clearenv();
  for (const auto& [name, value] : environment) ::setenv(name.c_str(), value.c_str(), 1);
}

void warn(const ServiceConfiguration& service, const char* what) {
  std::fprintf(stderr, "kl-loader: %s: runs without its profile: %s\n", service.name.c_str(), what);
}

// Last of all, since a step before may need what is refused.  A service is not kept from its work by a machine that lacks
// filters.
void refuseCalls(const ServiceConfiguration& service) {
  if (service.limits.profile == Profile::kNone) return;
  const CallFilter& filter = filterOf(service.limits.profile);
  if (filter.isEmpty()) return warn(service, "this loader can make none");
  switch (filter.enforce()) {
    case CallFilter::Result::kEnforced: return;
    case CallFilter::Result::kUnknownToKernel: return warn(service, "the kernel filters no calls");
    case CallFilter::Result::kFailed: giveUp(service, "cannot have its profile");
  }
}

[[noreturn]] void becomeProgram(const ServiceConfiguration& service) {
  std::vector<char*> arguments;
  for (const std::string& argument : service.command)
    arguments.push_back(const_cast<char*>(argument.c_str()));
  arguments.push_back(nullptr);
  arrangeEnvironment(service);
  bindItself(service);
  refuseCalls(service);
  ::execvp(arguments[0], arguments.data());
  giveUp(service, arguments[0]);
}

[[noreturn]] void runChild(const ServiceConfiguration& service, int connection, const Streams& streams,
                           pid_t loader) {
  (void)::setsid();
  restoreDescriptorLimit();
  restoreOomScore();
  arrangeStreams(service, streams);
  arrangeDescriptors(service, connection);
  arrangeLimits(service);
  becomeUser(service);
  endWith(loader);
  if (!service.folder.empty() && ::chdir(service.folder.c_str()) != 0)
    giveUp(service, "cannot enter its folder");
  common::resetSignals();
  becomeProgram(service);
}

}  // namespace

pid_t startProcess(const ServiceConfiguration& service, int connection, const Streams& streams) {
  (void)filterOf(service.limits.profile);  // made here, so that the child finds it
  const common::BlockedSignals blocked;
  const pid_t loader = ::getpid();
  const pid_t pid = ::fork();
  if (pid == 0) runChild(service, connection, streams, loader);
  return pid;
}

}  // namespace loader

// Between fork and exec what the new process inherits is arranged step by step; a step that fails is one line and
// status 127.

#include "life/process.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "kl/conventions.h"
#include "life/oom_score.h"
#include "life/supervisor.h"
#include "services/common/new_process.h"
#include "transport/descriptors.h"

namespace loader {
namespace {

[[noreturn]] void giveUp(const ServiceConfiguration& service, const char* what) {
  std::fprintf(stderr, "kl-loader: %s: %s: %s\n", service.name.c_str(), what, std::strerror(errno));
  ::_exit(127);
}

// The user and his groups are those of the time when the configuration was read: the system is not asked for names.
void becomeUser(const ServiceConfiguration& service) {
  if (!common::becomeUser(service.userId(), service.groups)) giveUp(service, "cannot become its user");
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

// A service lives where its loader does.  A variable that the loader may not believe would take it elsewhere.
void passRootOn() {
  if (::secure_getenv("KL_ROOT") == nullptr) ::unsetenv("KL_ROOT");
}

[[noreturn]] void becomeProgram(const ServiceConfiguration& service) {
  std::vector<char*> arguments;
  for (const std::string& argument : service.command)
    arguments.push_back(const_cast<char*>(argument.c_str()));
  arguments.push_back(nullptr);
  hideSupervisor();
  for (const auto& [name, value] : service.environment) ::setenv(name.c_str(), value.c_str(), 1);
  passRootOn();
  ::execvp(arguments[0], arguments.data());
  giveUp(service, arguments[0]);
}

[[noreturn]] void runChild(const ServiceConfiguration& service, int connection, const Streams& streams,
                           pid_t loader) {
  ::setpgid(0, 0);
  restoreDescriptorLimit();
  restoreOomScore();
  arrangeStreams(service, streams);
  arrangeDescriptors(service, connection);
  becomeUser(service);
  endWith(loader);
  if (!service.folder.empty() && ::chdir(service.folder.c_str()) != 0)
    giveUp(service, "cannot enter its folder");
  common::resetSignals();
  becomeProgram(service);
}

}  // namespace

pid_t startProcess(const ServiceConfiguration& service, int connection, const Streams& streams) {
  const common::BlockedSignals blocked;
  const pid_t loader = ::getpid();
  const pid_t pid = ::fork();
  if (pid == 0) runChild(service, connection, streams, loader);
  const int error = errno;
  if (pid > 0) ::setpgid(pid, pid);  // both sides do it, so it holds for either from here on
  errno = error;
  return pid;
}

}  // namespace loader

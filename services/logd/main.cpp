// kl-logd: takes the log lines of all processes, keeps them and shows them.

#include <fcntl.h>
#include <signal.h>

#include <iostream>

#include "asking/log_service.h"
#include "config/configuration.h"
#include "kl/description.h"
#include "kl/utilities.h"
#include "log.kl.h"

namespace {

constexpr int kLoaderConnection = 3;  // where the loader passes its connection on
constexpr char kSyslogSocket[] = "/dev/log";

// The loader's process: who made the connection that was passed on, or who listens at its socket.  Its number is 0 where
// there is none.
common::Peer findLoader() {
  if (const common::Peer loader = common::peerOf(kLoaderConnection); loader.pid != 0) return loader;
  const common::Descriptor probe = common::newStreamSocket();
  return common::connectTo(probe.get(), kl::loaderSocketPath()) ? common::peerOf(probe.get())
                                                                : common::Peer();
}

// The socket is there before the loader knows of the service: who waits for the service finds it.
int run(logd::Configuration configuration) {
  (void)::signal(SIGPIPE, SIG_IGN);
  logd::Listener listener;
  if (const std::string problem = listener.open(); !problem.empty()) {
    std::cerr << "kl-logd: " << problem << '\n';
    return common::kCannotRun;
  }
  const common::Peer loader = findLoader();
  if (loader.pid != 0) configuration.book.system = logd::SystemUsers(loader.uid);
  logd::LogBook book(configuration.book);
  logd::LogService service(configuration.limits, book, listener, configuration.users, loader.pid);
  service.reportTooBig(true);
  kl::setDescription(log_service::kDescription);
  service.run();
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  common::occupyDescriptors(kLoaderConnection, O_RDWR);
  const common::Program program{"kl-logd", "Takes the log lines of all processes, keeps them and shows them.",
                                kl::underRoot(KL_CONFIGURATION_FILE), "the log service"};
  int status = 0;
  bool exports = false;
  const common::Flag syslog{"--syslog", "Send every line to the machine's own log, too", &exports};
  const auto line = common::readCommandLine(program, argc, argv, status, {syslog});
  if (!line) return status;
  common::Mistakes mistakes;
  logd::Configuration configuration = logd::readConfiguration(*line, mistakes);
  if (exports) configuration.book.syslog = kSyslogSocket;
  common::report(mistakes, program.name);
  if (!mistakes.empty()) return common::kMistake;
  return line->checksOnly ? 0 : run(std::move(configuration));
}

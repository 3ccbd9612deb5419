// kl-logd: takes the log lines of all processes, keeps them and shows them.

#include <fcntl.h>
#include <signal.h>

#include <filesystem>
#include <iostream>

#include "asking/log_service.h"
#include "config/command_line.h"

namespace {

constexpr int kCannotRun = 1;
constexpr int kMistake = 2;

constexpr int kLoaderConnection = 3;  // where the loader passes its connection on

// A new descriptor gets the lowest number that is free: none of ours is to be one of the standard three, nor to be
// taken for a connection that the loader passed on.
void occupyFirstDescriptors() {
  for (int fd = STDIN_FILENO; fd <= kLoaderConnection; ++fd)
    if (::fcntl(fd, F_GETFD) < 0) (void)::open("/dev/null", O_RDWR);
}

// The configuration that the command line names; the built-in one when there is no file at the usual place.
logd::Configuration configurationOf(const logd::CommandLine& line, std::vector<logd::Mistake>& mistakes) {
  const bool isThere = line.isGiven || std::filesystem::exists(line.file);
  logd::Configuration configuration = isThere ? logd::readConfiguration(line.file, mistakes)
                                              : logd::parseConfiguration("", line.file, mistakes);
  if (!line.syslog.empty()) configuration.syslog = line.syslog;
  return configuration;
}

// The socket is there before the loader knows of the service: who waits for the service finds it.
int run(const logd::Configuration& configuration) {
  (void)::signal(SIGPIPE, SIG_IGN);
  logd::Listener listener;
  if (const std::string problem = listener.open(); !problem.empty()) {
    std::cerr << "kl-logd: " << problem << '\n';
    return kCannotRun;
  }
  logd::LogBook book(configuration);
  logd::LogService service(configuration, book, listener);
  service.run();
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  occupyFirstDescriptors();
  int status = 0;
  const auto line = logd::readCommandLine(argc, argv, status);
  if (!line) return status;
  std::vector<logd::Mistake> mistakes;
  const logd::Configuration configuration = configurationOf(*line, mistakes);
  for (const logd::Mistake& mistake : mistakes) std::cerr << "kl-logd: " << mistake.describe() << '\n';
  if (!mistakes.empty()) return kMistake;
  return line->checksOnly ? 0 : run(configuration);
}

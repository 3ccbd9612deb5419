// kl-loader: starts the services of the system and carries the messages between them.

#include <signal.h>
#include <unistd.h>

#include <filesystem>
#include <iostream>

#include "config/command_line.h"
#include "loader.h"

namespace {

constexpr int kCannotRun = 1;
constexpr int kMistake = 2;

// The configuration that the command line names; the built-in one when there is no file at the usual place.
loader::Configuration configurationOf(const loader::CommandLine& line,
                                      std::vector<loader::Mistake>& mistakes) {
  if (!line.isGiven && !std::filesystem::exists(line.file)) return loader::defaultConfiguration();
  return loader::readConfiguration(line.file, mistakes);
}

int run(const loader::Configuration& configuration) {
  (void)::signal(SIGPIPE, SIG_IGN);  // a log that nobody reads must not end the loader
  loader::raiseDescriptorLimit();
  loader::Log log(STDERR_FILENO);
  loader::Loader loader(configuration, log);
  if (const std::string problem = loader.start(); !problem.empty()) {
    log.line(problem);
    return kCannotRun;
  }
  loader.run();
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  loader::openStandardDescriptors();
  int status = 0;
  const auto line = loader::readCommandLine(argc, argv, status);
  if (!line) return status;
  std::vector<loader::Mistake> mistakes;
  const loader::Configuration configuration = configurationOf(*line, mistakes);
  for (const loader::Mistake& mistake : mistakes) std::cerr << "kl-loader: " << mistake.describe() << '\n';
  if (!mistakes.empty()) return kMistake;
  return line->checksOnly ? 0 : run(configuration);
}

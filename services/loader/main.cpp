// kl-loader: starts the services of the system and carries the messages between them.

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <new>
#include <utility>

#include "comparing.h"
#include "kl/utilities.h"
#include "life/oom_score.h"
#include "loader.h"
#include "services/common/command_line.h"

namespace {

// Strangers cannot make the loader keep more than is bounded, so another process has it; and nobody could go on here.
[[noreturn]] void endWithoutMemory() {
  constexpr char kLine[] = "kl-loader: ends because no memory is left\n";
  (void)!::write(STDERR_FILENO, kLine, sizeof kLine - 1);
  ::_exit(common::kCannotRun);
}

int run(loader::Configuration configuration, const common::CommandLine& line) {
  std::set_new_handler(endWithoutMemory);
  loader::lowerOomScore();
  (void)::signal(SIGPIPE, SIG_IGN);  // a log that nobody reads must not end the loader
  loader::raiseDescriptorLimit();
  loader::Log log(STDERR_FILENO);
  loader::Loader loader(std::move(configuration), log);
  loader.setSource([&line](common::Mistakes& mistakes) { return loader::readConfiguration(line, mistakes); });
  if (const std::string problem = loader.start(); !problem.empty()) {
    log.line(problem);
    return common::kCannotRun;
  }
  loader.run();
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  common::occupyDescriptors(STDERR_FILENO, O_RDWR);
  const common::Program program{"kl-loader",
                                "Starts the services of the system and carries the messages between them.",
                                kl::underRoot(KL_CONFIGURATION_FILE), "the loader"};
  int status = 0;
  std::string against;
  const auto line =
      common::readCommandLine(program, argc, argv, status, {}, {loader::againstOption(against)});
  if (!line) return status;
  common::Mistakes mistakes;
  loader::Configuration configuration = loader::readConfiguration(*line, mistakes);
  common::report(mistakes, program.name);
  common::report(configuration.warnings, program.name);
  if (!mistakes.empty()) return common::kMistake;
  if (!against.empty()) return loader::compareWithRunning(*line);
  return line->checksOnly ? 0 : run(std::move(configuration), *line);
}

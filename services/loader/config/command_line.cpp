#include "config/command_line.h"

#include <CLI/CLI.hpp>

namespace loader {
namespace {

constexpr int kUsageStatus = 2;
constexpr char kDefaultFile[] = KL_CONFIGURATION_FILE;

}  // namespace

std::optional<CommandLine> readCommandLine(int argc, const char* const* argv, int& status) {
  CommandLine line;
  line.file = kDefaultFile;
  CLI::App app("Starts the services of the system and carries the messages between them.", "kl-loader");
  app.set_version_flag("--version", "kl-loader " KL_VERSION);
  const CLI::Option* file = app.add_option("--config", line.file, "The configuration file")
                                ->type_name("FILE")
                                ->capture_default_str();
  app.add_flag("--check", line.checksOnly, "Only say whether the configuration file is right");
  app.footer(
      "Exit status: 0 after an orderly end, 1 when the loader cannot run, 2 after a mistake in the\n"
      "command line or in the configuration file.");
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& end) {
    status = app.exit(end) == 0 ? 0 : kUsageStatus;
    return {};
  }
  line.isGiven = file->count() > 0;
  return line;
}

}  // namespace loader

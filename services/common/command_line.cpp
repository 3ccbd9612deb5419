// The words are read by a library made for it; what it cannot read it reports itself, and every mistake has one status.

#include "services/common/command_line.h"

#include <CLI/CLI.hpp>

namespace common {
namespace {

void addConfiguration(CLI::App& app, const Program& program, CommandLine& line) {
  line.file = program.configurationFile;
  app.add_option("--config", line.file, "The configuration file")->type_name("FILE")->capture_default_str();
  app.add_flag("--check", line.checksOnly, "Only say whether the configuration file is right");
  app.footer("Exit status: 0 after an orderly end, 1 when " + program.noun +
             " cannot run, 2 after a mistake in the\ncommand line or in the configuration file.");
}

void addChoice(CLI::App& app, const Choice& choice) {
  app.add_option(choice.name, *choice.word, choice.help)
      ->type_name("WHAT")
      ->check(CLI::IsMember(choice.words))
      ->needs("--check");
}

}  // namespace

std::optional<std::string> CommandLine::readFile(Mistakes& mistakes) const {
  return isGiven ? common::readFile(file, mistakes) : readFileIfThere(file, mistakes);
}

std::optional<CommandLine> readCommandLine(const Program& program, int argc, const char* const* argv,
                                           int& status, const std::vector<Flag>& flags,
                                           const std::vector<Choice>& choices) {
  CommandLine line;
  CLI::App app(program.purpose, program.name);
  app.set_version_flag("--version", program.name + " " KL_VERSION);
  const bool isConfigured = !program.configurationFile.empty();
  if (isConfigured) addConfiguration(app, program, line);
  for (const Flag& flag : flags) app.add_flag(flag.name, *flag.isGiven, flag.help);
  for (const Choice& choice : choices) addChoice(app, choice);
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& end) {
    status = app.exit(end) == 0 ? 0 : kMistake;
    return {};
  }
  line.isGiven = isConfigured && app.count("--config") > 0;
  return line;
}

}  // namespace common

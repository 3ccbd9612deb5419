// klgen: makes headers and pages of a description, and says whether a new description breaks what an older one promised.
// Everything that it makes is made in memory first: a description with a mistake leaves no file behind.

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdio>
#include <fstream>
#include <iostream>
#include <optional>

#include "against.h"
#include "dissector.h"
#include "header.h"
#include "pages.h"
#include "regions.h"
#include "services/common/command_line.h"
#include "services/describe/check.h"
#include "services/describe/json.h"
#include "services/describe/reader.h"

namespace klgen {
namespace {

constexpr int kDone = 0;
constexpr int kBroken = 1;  // a break, or a file that cannot be written
constexpr int kMistake = common::kMistake;

struct Words {
  std::string file;
  std::vector<std::string> files;  // of several descriptions
  std::vector<std::string> pages;
  bool checks = false;
  std::string output;
  std::string older;
  std::string level = "wire";
};

// The description in a file; none, and its mistakes are told, when it has any.
std::optional<describe::Description> load(const std::string& file) {
  common::Mistakes mistakes;
  auto description = describe::readFile(file, describe::OtherKeys::kRefused, mistakes);
  if (mistakes.empty()) describe::check(description, file, mistakes);
  if (mistakes.empty()) (void)headerOf(description, file, mistakes);
  common::report(mistakes, "klgen");
  return mistakes.empty() ? std::optional(std::move(description)) : std::nullopt;
}

std::string textOf(const std::string& form, const describe::Description& description,
                   const std::string& file) {
  common::Mistakes none;  // load() has told them
  if (form == "header") return headerOf(description, file, none);
  if (form == "json") return describe::jsonOf(description);
  if (form == "markdown") return markdownOf(description);
  return manPageOf(description);
}

bool isThere(const std::string& file, const std::string& text) {
  std::ifstream in(file, std::ios::binary);
  return in && std::string(std::istreambuf_iterator<char>(in), {}) == text;
}

// A file that has the text already keeps its time, so that nothing is built anew because of it.
bool write(const std::string& file, const std::string& text) {
  if (file.empty()) return static_cast<bool>(std::cout << text << std::flush);
  if (isThere(file, text)) return true;
  std::ofstream out(file, std::ios::binary | std::ios::trunc);
  return static_cast<bool>(out << text << std::flush);
}

int put(const Words& words, const std::string& text) {
  if (write(words.output, text)) return kDone;
  std::cerr << "klgen: cannot write " << (words.output.empty() ? "the text" : words.output) << "\n";
  return kBroken;
}

int make(const std::string& form, const Words& words) {
  const auto description = load(words.file);
  return description ? put(words, textOf(form, *description, words.file)) : kMistake;
}

// One of several descriptions.
int makeDissector(const Words& words) {
  std::vector<describe::Description> descriptions;
  for (const std::string& file : words.files) {
    const auto description = load(file);
    if (!description) return kMistake;
    for (const describe::Description& other : descriptions)
      if (description->id && description->id == other.id) {
        std::cerr << "klgen: " << file << ": the number of " << description->name << " is that of "
                  << other.name << "\n";
        return kMistake;
      }
    descriptions.push_back(*description);
  }
  return put(words, dissectorOf(descriptions));
}

int checkFile(const Words& words) {
  const auto newer = load(words.file);
  if (!newer) return kMistake;
  if (words.older.empty()) return kDone;
  const auto older = load(words.older);
  if (!older) return kMistake;
  int status = kDone;
  for (const Break& found : breaksOf(*older, *newer)) {
    if (found.level == Level::kSource && words.level == "wire") continue;
    std::cerr << "klgen: " << words.file << ":" << found.line << ": "
              << (found.level == Level::kWire ? "wire: " : "source: ") << found.text << "\n";
    status = kBroken;
  }
  return status;
}

// Writes what is made of descriptions into a page, or says that it is not there.
int update(const std::string& file, bool checks) {
  common::Mistakes mistakes;
  const auto page = common::readFile(file, mistakes);
  const std::string now = page ? updatedPage(*page, file, load, mistakes) : "";
  common::report(mistakes, "klgen");
  if (!mistakes.empty()) return kMistake;
  if (now == *page) return kDone;
  if (checks) std::cerr << "klgen: " << file << ": its tables are not those of the descriptions\n";
  else if (write(file, now)) return kDone;
  else std::cerr << "klgen: cannot write " << file << "\n";
  return kBroken;
}

int updateAll(const Words& words) {
  int status = kDone;
  for (const std::string& page : words.pages) status = std::max(status, update(page, words.checks));
  return status;
}

void addOutput(CLI::App& command, Words& words) {
  command.add_option("-o,--output", words.output, "The file to write; without it the standard output")
      ->type_name("FILE");
}

void addForm(CLI::App& app, Words& words, const std::string& form, const std::string& what) {
  CLI::App* command = app.add_subcommand(form, "Makes " + what);
  command->add_option("file", words.file, "The description")->required()->type_name("FILE");
  addOutput(*command, words);
}

CLI::App* addDissector(CLI::App& app, Words& words) {
  CLI::App* dissector = app.add_subcommand("dissector", "Makes a dissector for Wireshark and tshark");
  dissector->add_option("file", words.files, "The descriptions of all services")
      ->required()
      ->type_name("FILE");
  addOutput(*dissector, words);
  return dissector;
}

CLI::App* addCheck(CLI::App& app, Words& words) {
  CLI::App* check = app.add_subcommand("check", "Says whether a description is right");
  check->add_option("file", words.file, "The description")->required()->type_name("FILE");
  check->add_option("--against", words.older, "Says what it breaks of an older one")->type_name("OLD");
  check->add_option("--level", words.level, "What counts as broken: programs that run, or also their sources")
      ->check(CLI::IsMember({"wire", "source"}))
      ->capture_default_str();
  return check;
}

CLI::App* addUpdate(CLI::App& app, Words& words) {
  CLI::App* updates = app.add_subcommand("update", "Writes tables of descriptions into pages");
  updates->add_option("page", words.pages, "Pages with regions, in Markdown or for man")
      ->required()
      ->type_name("PAGE");
  updates->add_flag("--check", words.checks, "Writes nothing, and says which pages are not current");
  return updates;
}

int run(int argc, char** argv) {
  Words words;
  CLI::App app("Makes headers and pages of the description of a service, and checks it.", "klgen");
  app.set_version_flag("--version", "klgen " KLGEN_VERSION);
  app.require_subcommand(1);
  app.footer(
      "Exit status: 0 when it is done, 1 for a break, a page that is not current or a file that cannot be\n"
      "written, 2 after a mistake in the command line, in a description or in a page.");
  addForm(app, words, "header", "a C++ header");
  addForm(app, words, "json", "JSON");
  addForm(app, words, "markdown", "a page in Markdown");
  addForm(app, words, "man", "a man page");
  const CLI::App* const dissector = addDissector(app, words);
  const CLI::App* const check = addCheck(app, words);
  const CLI::App* const update = addUpdate(app, words);
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& end) {
    return app.exit(end) == 0 ? kDone : kMistake;
  }
  if (dissector->parsed()) return makeDissector(words);
  if (check->parsed()) return checkFile(words);
  if (update->parsed()) return updateAll(words);
  return make(app.get_subcommands().front()->get_name(), words);
}

}  // namespace
}  // namespace klgen

int main(int argc, char** argv) { return klgen::run(argc, argv); }

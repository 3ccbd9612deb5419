// Text from anywhere is read as a configuration file of the loader.
//
//   - it is accepted or its mistakes are named, each in a line of the file
//   - what is accepted keeps the rules that the loader counts on: ids and names that may be given, each once; settings
//     that are whole messages; and reading it again gives the same
//   - it means the same after it was written anew by the library that reads its syntax

#include "config/configuration.h"

#include <set>
#include <sstream>

#include "fuzz/input.h"
#include "kl/message.h"
#include "kl/records.h"
#include "services/common/section.h"

namespace {

using common::Mistake;
using fuzz::require;
using loader::Configuration;

const std::string kFile = "loader.toml";

Configuration parse(const std::string& text, std::vector<Mistake>& mistakes) {
  return loader::parseConfiguration(text, kFile, mistakes);
}

void write(std::ostream& out, const loader::Rights& rights) { out << wordsOf(rights) << '\n'; }

// Its order is that of the lines, which a library that writes the text anew does not keep.
void write(std::ostream& out, const loader::AccessList& list) {
  std::set<std::string> entries;
  for (const loader::AccessEntry& entry : list.entries)
    entries.insert(entry.key + ' ' + wordsOf(entry.rights));
  out << list.name << '\n';
  for (const std::string& entry : entries) out << entry << '\n';
}

// Everything that a configuration says.
std::string textOf(const Configuration& c) {
  std::ostringstream out;
  out << c.stateFolder << '\n' << c.queueLimit << '\n' << c.stallSeconds << '\n' << c.startSeconds << '\n';
  write(out, c.rights);
  write(out, c.access);
  for (const loader::ServiceConfiguration& service : c.services) {
    out << service.id << ' ' << service.name << ' ' << service.user << ' ' << service.folder << '\n';
    for (const std::string& word : service.command) out << word << '\n';
    for (const auto& [name, value] : service.environment) out << name << '=' << value << '\n';
    if (service.rights) write(out, *service.rights);
    write(out, service.access);
    for (const auto& [command, bits] : service.commands.value_or(loader::CommandRights()))
      out << command << ' ' << bits << '\n';
    out << static_cast<int>(service.restart) << service.startsAtBoot << service.startsOnDemand
        << service.leaveIdleSeconds << ' ' << service.startSeconds << '\n'
        << kl::message(service.settings) << '\n';
  }
  return out.str();
}

void checkAccepted(const Configuration& c) {
  std::set<unsigned int> ids;
  std::set<std::string> names;
  for (const loader::ServiceConfiguration& service : c.services) {
    require(loader::isConfigurable(service.id) && ids.insert(service.id).second, "an id of its own");
    require(!service.name.empty() && names.insert(service.name).second, "a name of its own");
    kl::RecordWalk walk(service.settings);
    for (kl::Record record; walk.next(record);) {
    }
    require(service.settings.empty() || walk.ok(), "settings are a whole message");
  }
}

std::string writtenAnew(const std::string& text) {
  std::ostringstream out;
  out << toml::default_formatter(toml::parse(text));
  return out.str();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string text(data, data + std::min<std::size_t>(size, 4096));
  std::vector<Mistake> mistakes;
  const Configuration configuration = parse(text, mistakes);
  const auto lines = static_cast<unsigned int>(1 + std::count(text.begin(), text.end(), '\n'));
  for (const Mistake& mistake : mistakes) {
    require(mistake.file == kFile && mistake.line <= lines && !mistake.text.empty(), "a mistake in a line");
    require(mistake.describe().starts_with(kFile), "a mistake says where");
  }
  if (!mistakes.empty()) return 0;
  checkAccepted(configuration);
  require(textOf(parse(text, mistakes)) == textOf(configuration), "the same text says the same");
  require(textOf(parse(writtenAnew(text), mistakes)) == textOf(configuration) && mistakes.empty(),
          "it says the same when it was written anew");
  return 0;
}

// The names are those of the service's description.

#include "values/dictionary.h"

#include <cstdlib>
#include <set>
#include <sstream>

#include "kl/utilities.h"
#include "services/common/data_file.h"
#include "services/describe/reader.h"
#include "services/describe/words.h"
#include "values/failure.h"
#include "values/similar.h"

namespace klctl {
namespace {

using describe::Command;
using describe::Object;

// The file may be newer than this program: keys that it does not know are none of its business.
describe::Description read(const std::filesystem::path& file) {
  common::Mistakes mistakes;
  auto description = describe::readFile(file.string(), describe::OtherKeys::kIgnored, mistakes);
  if (!mistakes.empty()) throw usage(mistakes.front().describe());
  return description;
}

void addNames(const describe::Description& description, FieldNames& names) {
  for (const describe::Field& field : description.fields) {
    names.add(field.name, field.id);
    for (const describe::Value& value : field.values) names.addValue(field.id, value.word, value.number);
    if (!field.unit.empty()) names.setUnit(field.id, field.unit);
    if (field.isSecret) names.setSecret(field.id);
  }
}

std::string variable(const char* name) {
  const char* const value = std::getenv(name);
  return value != nullptr ? value : "";
}

std::optional<std::filesystem::path> find(const std::string& file, const Folders& folders) {
  std::error_code ignored;
  for (const std::filesystem::path& folder : folders)
    if (std::filesystem::exists(folder / file, ignored)) return folder / file;
  return std::nullopt;
}

bool isPlainName(const std::string& service) {
  return !service.empty() && service.front() != '.' && service.find('/') == std::string::npos;
}

std::string seeHelp(const std::string& service) { return " (klctl help " + service + " lists them)"; }

bool answersAt(const Object& object, const std::vector<unsigned int>& handlers) {
  return object.handler ? handlers == std::vector{*object.handler} : handlers.empty();
}

// The command of the service's own; null where the object has none of this name.
const Command* findCommand(const Object& object, const std::string& name) {
  for (const Command& command : object.commands)
    if (!command.isStandard && command.name == name) return &command;
  return nullptr;
}

// CMD_RELEASE_ALL is release_all.
std::string nameIn(const std::string& word) {
  return word.starts_with("CMD_") ? describe::shortForm(word) : word;
}

Failure noCommand(const describe::Description& description, const std::string& service,
                  const std::string& word) {
  std::vector<std::string> names;
  const std::string isOneOf = "the command '" + word + "' is one of " + service + "/";
  for (const Object& object : description.objects) {
    if (findCommand(object, nameIn(word)) != nullptr) return usage(std::string(isOneOf).append(object.name));
    for (const Command& command : object.commands) names.push_back(command.name);
  }
  for (const auto& command : describe::standardCommands()) names.push_back(describe::shortForm(command.name));
  return usage("there is no command '" + word + "'" + didYouMean(word, names) +
               " (a number names any; klctl help " + service + " lists those of " + service + ")");
}

}  // namespace

Folders dictionaryFolders(const std::filesystem::path& own) {
  Folders folders;
  if (!own.empty()) folders.push_back(own);
  std::istringstream named(variable("KL_FIELDS"));
  for (std::string folder; std::getline(named, folder, ':');)
    if (!folder.empty()) folders.emplace_back(folder);
  const std::filesystem::path home = variable("HOME");
  if (home.is_absolute()) folders.push_back(home / ".config/kl");
  folders.emplace_back(
      common::findData(kl::underRoot(KLCTL_FIELDS), KLCTL_FIELDS_FROM_PROGRAM, KLCTL_FIELDS));
  return folders;
}

Dictionary dictionaryOf(const std::string& service, const Folders& folders) {
  Dictionary dictionary;
  const auto file = isPlainName(service) ? find(service + ".toml", folders) : std::nullopt;
  if (!file) return dictionary;
  dictionary.description = read(*file);
  addNames(*dictionary.description, dictionary.names);
  return dictionary;
}

FieldNames namesFor(const std::string& service, const Folders& folders) {
  return dictionaryOf(service, folders).names;
}

std::vector<std::string> describedServices(const Folders& folders) {
  std::set<std::string> services;
  std::error_code ignored;
  for (const std::filesystem::path& folder : folders)
    for (const auto& entry : std::filesystem::directory_iterator(folder, ignored))
      if (entry.path().extension() == ".toml") services.insert(entry.path().stem().string());
  return {services.begin(), services.end()};
}

std::vector<unsigned int> handlersOf(const Dictionary& dictionary, const std::string& service,
                                     const std::string& object) {
  if (!dictionary.description)
    throw usage("there is no description of " + service + " that says what '" + object + "' is");
  std::vector<std::string> names;
  for (const Object& known : dictionary.description->objects) {
    if (known.name == object)
      return known.handler ? std::vector{*known.handler} : std::vector<unsigned int>();
    names.push_back(known.name);
  }
  throw usage(service + " has no object '" + object + "'" + didYouMean(object, names) + seeHelp(service));
}

unsigned int commandOf(const Dictionary& dictionary, const std::string& service,
                       const std::vector<unsigned int>& handlers, const std::string& word) {
  if (!dictionary.description) throw usage("there is no command '" + word + "' (a number names any)");
  for (const Object& object : dictionary.description->objects) {
    const Command* const command = findCommand(object, nameIn(word));
    if (command != nullptr && answersAt(object, handlers)) return command->code;
  }
  throw noCommand(*dictionary.description, service, word);
}

std::string commandText(const Dictionary& dictionary, unsigned int command) {
  if (dictionary.description) {
    for (const Object& object : dictionary.description->objects)
      for (const Command& known : object.commands)
        if (!known.isStandard && known.code == command) return known.name;
  }
  return commandWord(command);
}

}  // namespace klctl

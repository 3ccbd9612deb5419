// Both descriptions are compared by their names and numbers; sentences, units and bounds a process may leave out.

#include "services/describe/told.h"

#include <algorithm>
#include <cstdio>
#include <map>

#include "services/describe/check.h"
#include "services/describe/field_id.h"

namespace describe {
namespace {

template <class Entry>
const Entry* findNamed(const std::vector<Entry>& entries, const std::string& name) {
  const auto found =
      std::find_if(entries.begin(), entries.end(), [&](const Entry& entry) { return entry.name == name; });
  return found == entries.end() ? nullptr : &*found;
}

void addFields(std::vector<Field>& fields, const std::vector<Field>& told) {
  for (const Field& field : told) {
    const bool isThere = std::any_of(fields.begin(), fields.end(), [&](const Field& known) {
      return known.id == field.id || known.name == field.name;
    });
    if (isThere || !isName(field.name)) continue;
    fields.push_back(field);
    fields.back().isSecret = false;
    std::erase_if(fields.back().values, [](const Value& value) { return !isName(value.word); });
  }
}

void addWords(std::vector<std::string>& words, const std::vector<std::string>& told) {
  for (const std::string& word : told)
    if (isName(word) && std::find(words.begin(), words.end(), word) == words.end()) words.push_back(word);
}

void addCommands(Object& object, const std::vector<Command>& told) {
  for (const Command& command : told) {
    if (findNamed(object.commands, command.name) != nullptr || !isName(command.name)) continue;
    object.commands.push_back(command);
    if (!command.isStandard) object.commands.back().right.clear();
  }
}

void addObjects(Description& description, const std::vector<Object>& told) {
  for (const Object& object : told) {
    if (!isName(object.name)) continue;
    if (findNamed(description.objects, object.name) == nullptr) {
      Object added;
      added.name = object.name;
      added.handler = object.handler;
      added.key = isName(object.key) ? object.key : "";
      added.doc = object.doc;
      description.objects.push_back(std::move(added));
    }
    const auto place = std::find_if(description.objects.begin(), description.objects.end(),
                                    [&](const Object& known) { return known.name == object.name; });
    addWords(place->fields, object.fields);
    addCommands(*place, object.commands);
  }
}

// Everything that a description names, each with what it says of it.
std::map<std::string, std::string> namedIn(const Description& description) {
  std::map<std::string, std::string> all;
  const auto addAll = [&](const std::string& kind, const std::vector<Field>& fields) {
    for (const Field& field : fields) {
      all[kind + " " + field.name] = fieldIdText(field.id);
      for (const Value& value : field.values)
        all["value " + value.word + " of " + field.name] = std::to_string(value.number);
    }
  };
  addAll("field", description.fields);
  addAll("setting", description.settings);
  for (const Object& object : description.objects) {
    all["object " + object.name] =
        object.handler ? "handler " + std::to_string(*object.handler) : "no handler";
    for (const Command& command : object.commands) {
      char code[16];
      (void)std::snprintf(code, sizeof code, "0x%x", command.code);
      all["command " + command.name + " of " + object.name] = std::string(code) + ", right " + command.right;
    }
  }
  for (const Topic& topic : description.topics) all["topic " + topic.name] = std::to_string(topic.number);
  if (!description.version.empty()) all["version"] = description.version;
  return all;
}

std::string difference(const std::string& what, const std::string& installed, const std::string& told) {
  return what + ": " + installed + ", " + told;
}

}  // namespace

Description completed(const Description& installed, const Description& told) {
  Description all = installed;
  addFields(all.fields, told.fields);
  addFields(all.settings, told.settings);
  addObjects(all, told.objects);
  for (const Topic& topic : told.topics)
    if (isName(topic.name) && findNamed(all.topics, topic.name) == nullptr) all.topics.push_back(topic);
  if (all.title.empty()) all.title = told.title;
  if (all.version.empty()) all.version = told.version;
  if (all.doc.empty()) all.doc = told.doc;
  if (!all.id) all.id = told.id;
  return all;
}

std::vector<std::string> differencesOf(const Description& installed, const Description& told) {
  const auto here = namedIn(installed);
  const auto there = namedIn(told);
  std::vector<std::string> differences;
  for (const auto& [what, value] : here) {
    const auto other = there.find(what);
    if (other == there.end())
      differences.push_back(difference(what, "installed " + value, "the process has none"));
    else if (other->second != value)
      differences.push_back(difference(what, "installed " + value, "the process says " + other->second));
  }
  for (const auto& [what, value] : there)
    if (!here.contains(what))
      differences.push_back(difference(what, "the process says " + value, "none is installed"));
  return differences;
}

}  // namespace describe

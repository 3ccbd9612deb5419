// Tables of the description's lists; what is said of a field is what every page says.

#include "verbs/help.h"

#include "output/show.h"
#include "services/common/text.h"
#include "services/describe/field_id.h"
#include "services/describe/json.h"
#include "services/describe/notes.h"
#include "values/failure.h"
#include "verbs/resolve.h"

namespace klctl {
namespace {

using describe::Command;
using describe::Description;
using describe::Field;
using describe::Object;

constexpr char kIndent[] = "  ";

std::string sentence(const std::string& text) { return text.empty() ? "" : common::printable(text) + "\n"; }

// A table below a line that says what it is.
std::string listText(const std::string& title, const std::vector<Json>& rows,
                     const std::vector<std::string>& columns) {
  if (rows.empty()) return {};
  std::string text = "\n" + common::printable(title) + "\n";
  std::string table = objectsTable(rows, columns, std::numeric_limits<std::size_t>::max());
  for (std::size_t at = table.find('\n') + 1; at < table.size(); at = table.find('\n', at) + 1) {
    const std::string line = table.substr(at, table.find('\n', at) - at);
    text += kIndent + line.substr(0, line.find_last_not_of(' ') + 1) + "\n";
  }
  return text;
}

Json fieldRow(const Field& field) {
  Json row = Json::object();
  row["name"] = field.name;
  row["field"] = describe::fieldIdText(field.id);
  row["notes"] = describe::notesOf(field);
  return row;
}

std::string joined(const std::vector<std::string>& words) {
  std::string all;
  for (const std::string& word : words) all += (all.empty() ? "" : ", ") + word;
  return all;
}

void add(std::string& all, const std::string& label, const std::string& text) {
  if (!text.empty()) all += (all.empty() ? "" : "; ") + label + text;
}

Json commandRow(const std::string& name, const std::string& right, const std::string& notes) {
  Json row = Json::object();
  row["name"] = name;
  row["right"] = right;
  row["notes"] = notes;
  return row;
}

// The fields that a command takes, gives and may answer stand below its sentence, each on a line of its own.
void addCommand(std::vector<Json>& rows, const Command& command) {
  std::string notes = command.doc;
  add(notes, "since ", command.since);
  add(notes, "deprecated: ", command.deprecated);
  std::vector<std::string> lines;
  if (!notes.empty()) lines.push_back(notes);
  const auto addLine = [&lines](const std::string& label, const std::vector<std::string>& words) {
    if (!words.empty()) lines.push_back(label + joined(words));
  };
  addLine("takes ", command.takes);
  addLine("gives ", command.gives);
  addLine("may answer ", command.errors);
  rows.push_back(commandRow(command.name, command.right, lines.empty() ? "" : lines.front()));
  for (std::size_t i = 1; i < lines.size(); ++i) rows.push_back(commandRow("", "", lines[i]));
}

std::string objectText(const Description& description, const Object& object, const std::string& service) {
  std::vector<Json> fields;
  for (const std::string& name : object.fields)
    if (const Field* const field = description.findField(name)) fields.push_back(fieldRow(*field));
  std::vector<Json> commands;
  for (const Command& command : object.commands) addCommand(commands, command);
  const std::string path = object.handler ? service + "/" + object.name : service;
  std::string title = path + (object.doc.empty() ? "" : ": " + object.doc);
  if (!object.key.empty()) title += " (one of them: " + path + ":" + object.key + ")";
  return "\n" + common::printable(title) + "\n" + listText("fields", fields, {"name", "field", "notes"}) +
         listText("commands, and the right that each needs", commands, {"name", "right", "notes"});
}

std::string settingsText(const Description& description) {
  std::vector<Json> settings;
  for (const Field& setting : description.settings) settings.push_back(fieldRow(setting));
  return listText("settings, in the configuration of the loader", settings, {"name", "field", "notes"});
}

std::string topicsText(const Description& description) {
  std::vector<Json> topics;
  for (const describe::Topic& topic : description.topics)
    topics.push_back(Json{{"name", topic.name}, {"number", topic.number}, {"notes", topic.doc}});
  return listText("topics of the log", topics, {"name", "number", "notes"});
}

// Fields that no object has: those of messages inside.
std::string otherFieldsText(const Description& description) {
  std::vector<Json> rows;
  for (const Field& field : description.fields) {
    bool isShown = false;
    for (const Object& object : description.objects)
      for (const std::string& name : object.fields) isShown = isShown || name == field.name;
    if (!isShown) rows.push_back(fieldRow(field));
  }
  return listText(description.objects.empty() ? "fields" : "other fields", rows, {"name", "field", "notes"});
}

std::string headingOf(const Description& description) {
  std::string text = description.name;
  if (description.id) text += " (" + std::to_string(*description.id) + ")";
  if (!description.title.empty()) text += ": " + description.title;
  if (!description.version.empty()) text += ", version " + description.version;
  return text;
}

Description descriptionOf(const CommandLine& line, const std::string& service) {
  Dictionary dictionary = dictionaryFor(line, service);
  if (dictionary.description) return std::move(*dictionary.description);
  const std::vector<std::string> described = describedServices(line.fields);
  throw Failure(Status::kRefused, "there is no description of " + line.path.service + " in " +
                                      joined({line.fields.begin(), line.fields.end()}) +
                                      (described.empty() ? "" : "; there are those of " + joined(described)));
}

}  // namespace

std::string helpText(const Description& description, const std::string& service,
                     const std::string& objectName) {
  std::string text = sentence(headingOf(description)) + sentence(description.doc);
  for (const Object& object : description.objects)
    if (objectName.empty() || object.name == objectName) text += objectText(description, object, service);
  if (!objectName.empty()) return text;
  return text + otherFieldsText(description) + settingsText(description) + topicsText(description);
}

void helpService(const CommandLine& line, const Channels& channels) {
  const std::string service = resolveName(line.path.service, channels.exchange);
  const Description description = descriptionOf(line, service);
  const std::string& object = line.path.objectName;
  if (!object.empty()) (void)resolved(line, {.names = {}, .description = description});
  channels.print(line.json ? jsonText(Json::parse(describe::jsonOf(description)))
                           : helpText(description, line.path.service, object));
}

}  // namespace klctl

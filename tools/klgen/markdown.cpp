// A page in Markdown: a table for each list of the description.  Every text is written so that it is only text there.

#include <algorithm>
#include <cstdio>

#include "pages.h"
#include "services/describe/field_id.h"
#include "services/describe/notes.h"

namespace klgen {
namespace {

using describe::Description;

// Text in a cell of a table: one line, and no character that means something.
std::string cell(const std::string& text) {
  std::string result;
  for (const char c : text) {
    if (std::string("\\`*_{}[]<>|#~&").find(c) != std::string::npos) result += '\\';
    result += static_cast<unsigned char>(c) < ' ' ? ' ' : c;
  }
  return result;
}

std::string code(const std::string& name) { return "`" + name + "`"; }

std::string codeList(const std::vector<std::string>& names) {
  std::string all;
  for (const std::string& name : names) all += (all.empty() ? "" : ", ") + code(name);
  return all;
}

template <class Thing>
Rows<Thing> unlabelled(const std::vector<Thing>& things) {
  Rows<Thing> rows;
  for (const Thing& thing : things) rows.push_back({"", &thing});
  return rows;
}

std::string fieldTable(const std::string& heading, const std::vector<describe::Field>& fields) {
  return fields.empty() ? "" : "\n## " + heading + "\n\n" + markdownFields(unlabelled(fields));
}

std::string idInHex(unsigned int number) {
  char text[12];
  (void)std::snprintf(text, sizeof text, "0x%08x", number);
  return text;
}

std::string commandTable(const std::vector<describe::Command>& commands) {
  if (commands.empty()) return {};
  std::string text = "| command | right | takes | gives | may answer | |\n|---|---|---|---|---|---|\n";
  for (const describe::Command& command : commands) {
    const std::string number = command.isStandard ? "" : " " + std::to_string(command.code);
    text += "| " + code(command.name) + number + " | " + command.right + " | " + codeList(command.takes) +
            " | " + codeList(command.gives) + " | " + codeList(command.errors) + " | " + cell(command.doc) +
            " |\n";
  }
  return text;
}

std::string pathOf(const Description& description, const describe::Object& object) {
  const std::string service = description.id ? std::to_string(*description.id) : description.name;
  return "[" + service + (object.handler ? ", " + std::to_string(*object.handler) : "") + "]";
}

std::string objectSection(const Description& description, const describe::Object& object) {
  std::string text =
      "\n## " + code(object.name) + "\n\nThe path is " + code(pathOf(description, object)) + ".";
  if (!object.doc.empty()) text += " " + cell(object.doc) + ".";
  if (!object.key.empty()) text += " The key is " + code(object.key) + ".";
  if (!object.store.empty()) text += " The objects outlive the service.";
  if (object.isUndone) text += " Changes can be taken back.";
  text += "\n";
  if (!object.fields.empty()) text += "\nFields: " + codeList(object.fields) + "\n";
  return text + (object.commands.empty() ? "" : "\n") + commandTable(object.commands);
}

}  // namespace

std::string markdownOf(const Description& description) {
  const std::string title = description.title.empty() ? description.name : description.title;
  std::string text = "# " + cell(title) + "\n";
  text += "\nThe service " + code(description.name);
  if (description.id) text += ", " + std::to_string(*description.id);
  text += description.version.empty() ? ".\n" : ", version " + cell(description.version) + ".\n";
  if (!description.doc.empty()) text += "\n" + cell(description.doc) + "\n";
  for (const describe::Object& object : description.objects) text += objectSection(description, object);
  text += fieldTable("Fields", description.fields);
  text += fieldTable("Settings", description.settings);
  if (!description.topics.empty()) text += "\n## Topics\n\n" + markdownTopics(unlabelled(description.topics));
  return text;
}

std::string markdownFields(const Rows<describe::Field>& fields) {
  const bool hasLabels =
      std::any_of(fields.begin(), fields.end(), [](const auto& row) { return !row.label.empty(); });
  std::string text =
      hasLabels ? "| field | name | id | |\n|---|---|---|---|\n" : "| name | field | |\n|---|---|---|\n";
  for (const auto& [label, field] : fields) {
    const std::string id = hasLabels ? idInHex(field->id) : code(describe::fieldIdText(field->id));
    if (hasLabels) text.append("| ").append(label.empty() ? "" : code(label)).append(" ");
    text.append("| ").append(code(field->name)).append(" | ").append(id);
    text.append(" | ").append(cell(describe::notesOf(*field))).append(" |\n");
  }
  return text;
}

std::string markdownValues(const Rows<describe::Field>& fields) {
  std::string text = "| field | value | word |\n|---|---|---|\n";
  for (const auto& [label, field] : fields)
    for (const describe::Value& value : field->values)
      text += "| " + code(label.empty() ? field->name : label) + " | " + std::to_string(value.number) +
              " | " + code(value.word) + " |\n";
  return text;
}

std::string markdownCommands(const Rows<describe::Object>& objects) {
  std::string text;
  for (const auto& [label, object] : objects)
    text += (text.empty() ? "" : "\n") + commandTable(object->commands);
  return text;
}

std::string markdownTopics(const Rows<describe::Topic>& topics) {
  std::string text = "| name | number | |\n|---|---|---|\n";
  for (const auto& [label, topic] : topics)
    text +=
        "| " + code(topic->name) + " | " + std::to_string(topic->number) + " | " + cell(topic->doc) + " |\n";
  return text;
}

}  // namespace klgen

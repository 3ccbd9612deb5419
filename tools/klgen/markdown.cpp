// A page in Markdown: a table for each list of the description.  Every text is written so that it is only text there.

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

std::string fieldTable(const std::string& heading, const std::vector<describe::Field>& fields) {
  if (fields.empty()) return {};
  std::string text = "\n## " + heading + "\n\n| name | field | |\n|---|---|---|\n";
  for (const describe::Field& field : fields) {
    text += "| " + code(field.name) + " | " + code(describe::fieldIdText(field.id)) + " | " +
            cell(describe::notesOf(field)) + " |\n";
  }
  return text;
}

std::string commandTable(const std::vector<describe::Command>& commands) {
  if (commands.empty()) return {};
  std::string text = "\n| command | right | takes | gives | may answer | |\n|---|---|---|---|---|---|\n";
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
  text += "\n";
  if (!object.fields.empty()) text += "\nFields: " + codeList(object.fields) + "\n";
  return text + commandTable(object.commands);
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
  if (!description.topics.empty()) text += "\n## Topics\n\n| name | number | |\n|---|---|---|\n";
  for (const describe::Topic& topic : description.topics) {
    text += "| " + code(topic.name) + " | " + std::to_string(topic.number) + " | " + cell(topic.doc) + " |\n";
  }
  return text;
}

}  // namespace klgen

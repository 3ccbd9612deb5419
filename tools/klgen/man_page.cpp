// A man page in the macros of man(7).

#include "pages.h"
#include "services/describe/field_id.h"
#include "services/describe/notes.h"

namespace klgen {
namespace {

using describe::Description;

// Text that no request can begin in: it follows a macro's name or begins with a character of no width.
std::string escaped(const std::string& text) {
  std::string result;
  for (const char c : text) {
    if (c == '\\') result += "\\e";
    else if (c == '-') result += "\\-";
    else if (c == '\'') result += "\\(aq";
    else if (c == '"') result += "\\(dq";
    else if (c == '`') result += "\\(ga";
    else result += static_cast<unsigned char>(c) < ' ' ? ' ' : c;
  }
  return result;
}

std::string paragraphLine(const std::string& text) {
  return text.empty() ? "" : "\\&" + escaped(text) + "\n";
}

// A paragraph with a tag: "name u32:4" and what it is.
std::string tagged(const std::string& name, const std::string& number, const std::string& text) {
  const std::string tag =
      number.empty() ? ".B " + escaped(name) : ".BR " + escaped(name) + " \" " + escaped(number) + "\"";
  return ".TP\n" + tag + "\n" + (text.empty() ? "\\&\n" : paragraphLine(text));
}

std::string sentence(const std::string& label, const std::vector<std::string>& names) {
  std::string all;
  for (const std::string& name : names) all.append(all.empty() ? label + " " : ", ").append(name);
  return all.empty() ? "" : all + ".";
}

std::string fieldItem(const describe::Field& field, const std::string& label) {
  const std::string name = label.empty() ? field.name : label;
  return tagged(name, describe::fieldIdText(field.id), describe::notesOf(field));
}

std::string fieldItems(const std::string& heading, const std::vector<describe::Field>& fields) {
  std::string text = fields.empty() ? "" : ".SH " + heading + "\n";
  for (const describe::Field& field : fields) text += fieldItem(field, "");
  return text;
}

// The word behind "name =" in a configuration.
std::string valueWord(unsigned int id) {
  const std::string word = [id] {
    switch (describe::elementType(id)) {
      case describe::kBool: return "boolean";
      case describe::kU32:
      case describe::kU64: return "number";
      default: return "text";
    }
  }();
  return describe::isArray(id) ? "list of " + word + "s" : word;
}

std::string commandItem(const describe::Command& command) {
  std::string text =
      tagged(command.name, command.isStandard ? "" : std::to_string(command.code), command.doc);
  text += paragraphLine("Needs the right: " + command.right + ".");
  text += paragraphLine(sentence("Takes", command.takes));
  text += paragraphLine(sentence("Gives", command.gives));
  return text + paragraphLine(sentence("May answer", command.errors));
}

std::string objectItems(const describe::Object& object) {
  std::string text = ".SS " + escaped(object.name) + "\n";
  text += object.handler ? paragraphLine("Handler " + std::to_string(*object.handler) + ".")
                         : paragraphLine("The service itself.");
  text += paragraphLine(object.doc.empty() ? "" : object.doc + ".");
  text += paragraphLine(sentence("Its fields are", object.fields));
  if (!object.key.empty()) text += paragraphLine("The key is " + object.key + ".");
  if (!object.store.empty()) text += paragraphLine("The objects outlive the service.");
  if (object.isUndone) text += paragraphLine("Changes can be taken back.");
  for (const describe::Command& command : object.commands) text += commandItem(command);
  return text;
}

std::string capitals(std::string text) {
  for (char& c : text)
    if (c >= 'a' && c <= 'z') c = static_cast<char>(c - 'a' + 'A');
  return text;
}

}  // namespace

std::string manPageOf(const Description& description) {
  const std::string title = description.title.empty() ? "messages of a service" : description.title;
  std::string text =
      ".TH " + capitals(description.name) + " 5 \"\" \"" + escaped(description.version) + "\" \"Services\"\n";
  text += ".SH NAME\n" + escaped(description.name) + " \\- " + escaped(title) + "\n";
  text += ".SH DESCRIPTION\n";
  if (description.id) text += paragraphLine("Service " + std::to_string(*description.id) + ".");
  text += paragraphLine(description.doc);
  if (!description.id && description.doc.empty()) text += paragraphLine("A service.");
  if (!description.objects.empty()) text += ".SH OBJECTS\n";
  for (const describe::Object& object : description.objects) text += objectItems(object);
  text += fieldItems("FIELDS", description.fields) + fieldItems("SETTINGS", description.settings);
  if (!description.topics.empty()) text += ".SH TOPICS\n";
  for (const describe::Topic& topic : description.topics) {
    text += tagged(topic.name, std::to_string(topic.number), topic.doc);
  }
  return text;
}

std::string manFields(const Rows<describe::Field>& fields) {
  std::string text;
  for (const auto& [label, field] : fields) text += fieldItem(*field, label);
  return text;
}

std::string manSettings(const Rows<describe::Field>& settings) {
  std::string text;
  for (const auto& [label, setting] : settings)
    text += tagged(setting->name, "= " + valueWord(setting->id), describe::notesOf(*setting));
  return text;
}

std::string manCommands(const Rows<describe::Object>& objects) {
  std::string text;
  for (const auto& [label, object] : objects)
    for (const describe::Command& command : object->commands) text += commandItem(command);
  return text;
}

std::string manTopics(const Rows<describe::Topic>& topics) {
  std::string text;
  for (const auto& [label, topic] : topics)
    text += tagged(topic->name, std::to_string(topic->number), topic->doc);
  return text;
}

}  // namespace klgen

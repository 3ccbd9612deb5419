// A header is written part by part; every name at its outer level goes through claim(), so that two of them never clash
// unnoticed.
//
// A structure keeps the message that it was made of, and puts its members into a copy of that: fields that it does not
// know stay as they were.  For each type of field a function reads and writes one member; it is never inlined, and
// stands in each header once for all: a program has one of it.

#include "header.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <filesystem>
#include <map>

#include "identifiers.h"
#include "operations.h"
#include "rules.h"
#include "services/describe/compact.h"
#include "services/describe/field_id.h"
#include "services/describe/notes.h"

namespace klgen {
namespace {

using describe::Description;
using describe::Field;

constexpr char kHelpers[] = R"(
#ifndef KL_DESCRIBED_1
#define KL_DESCRIBED_1
// One member of a structure from a message and into it.  An absent field is an empty member.
namespace kl::described_1 {

template <class T>
[[gnu::noinline]] void take(const message& from, field<T> id, std::optional<T>& member) noexcept {
  if (from.has(id)) member.emplace(from.get(id, T()));
}
template <class T>
[[gnu::noinline]] void take(const message& from, field<T> id, T& member) noexcept {
  member = from.get(id, T());
}
template <class T>
[[gnu::noinline]] void put(message& into, field<T> id, const std::optional<T>& member) noexcept {
  if (member) into.insert(id, *member);
  else if (into.has(id)) into.remove(id);
}
template <class T>
[[gnu::noinline]] void put(message& into, field<T> id, const T& member) noexcept {
  into.insert(id, member);
}

}  // namespace kl::described_1
#endif
)";

std::string hex(unsigned int number) {
  char text[12];
  (void)std::snprintf(text, sizeof text, "0x%08x", number);
  return text;
}

std::string elementTypeOf(unsigned int id) {
  switch (describe::elementType(id)) {
    case describe::kBool: return "bool";
    case describe::kU32: return "unsigned int";
    case describe::kU64: return "unsigned long long";
    case describe::kAddr6: return "::kl::IPAddr6";
    case describe::kString: return "::std::string";
    case describe::kMessage: return "::kl::message::flat_message";
    case describe::kRaw: return "::std::vector<unsigned char>";
  }
  return {};
}

std::string typeOf(unsigned int id) {
  const std::string element = elementTypeOf(id);
  return describe::isArray(id) ? "::std::vector<" + element + ">" : element;
}

// A text in C++; in one of descriptions the newline is the only control character.
std::string literal(const std::string& text) {
  std::string result = "\"";
  for (const char c : text) {
    if (c == '"' || c == '\\') result += '\\';
    if (c == '\n') result += "\\n";
    else result += c;
  }
  return result + "\"";
}

// "  // TEXT", or nothing.
std::string remark(const std::string& text) { return text.empty() ? "" : "  // " + commentText(text); }

// The enumeration that a member is of; empty for other members, and for arrays, which keep their numbers.
std::string enumerationOf(const Field& field) {
  return field.values.empty() || describe::isArray(field.id) ? "" : typeName(field.name);
}

class HeaderWriter {
 public:
  HeaderWriter(const Description& description, const std::string& file, common::Mistakes& mistakes)
      : description_(description), file_(file), mistakes_(mistakes) {}

  std::string write();

 private:
  void writeOpening();
  void writeDescription();
  void writeNumbers();
  void writeFields(const std::vector<Field>& fields, const std::string& prefix);
  void writeDefaults();
  void writeEnumerations(const std::vector<Field>& fields, const std::string& prefix);
  void writeObject(const describe::Object& object);
  // `object` is null where a structure is of what a command takes or gives.
  void writeStructure(const std::string& name, const std::string& doc, const std::vector<std::string>& fields,
                      unsigned int line, const describe::Object* object);
  void writeCommand(const std::string& name, const describe::Command& command);
  void writeMember(const Field& field);
  void writeTransfer(const Field& field, bool takes);

  // Remembers a name of the outer level; false when the same thing has it already.
  bool claim(const std::string& name, const std::string& meaning, unsigned int line);
  void constant(const std::string& name, unsigned int number, const std::string& text, unsigned int line);
  void define(const std::string& type, const std::string& name, const std::string& value, const Field& field);

  const Description& description_;
  const std::string& file_;
  common::Mistakes& mistakes_;
  std::map<std::string, std::string> claimed_;
  std::string out_;
};

std::string HeaderWriter::write() {
  const std::string space = spaceName(description_.nameSpace);
  writeOpening();
  out_ += "\nnamespace " + space + " {\n\n";
  writeNumbers();
  writeFields(description_.fields, "");
  writeEnumerations(description_.fields, "");
  if (!description_.settings.empty()) out_ += "\n// Settings.\n";
  writeFields(description_.settings, "setting_");
  writeDefaults();
  writeEnumerations(description_.settings, "setting_");
  for (const describe::Object& object : description_.objects) writeObject(object);
  writeDescription();
  out_ += "\n}  // namespace " + space + "\n";
  return std::move(out_);
}

void HeaderWriter::writeOpening() {
  const std::string source = std::filesystem::path(file_).filename().string();
  const std::string title = description_.title.empty() ? description_.name : description_.title;
  out_ += "#pragma once\n// " + commentText(title) + ": the messages of the service " + description_.name +
          ".\n//\n";
  out_ += "// Made by klgen of " + commentText(source) + "; changes belong there.\n\n";
  out_ += "#include <optional>\n#include <string>\n#include <vector>\n\n";
  if (std::any_of(description_.objects.begin(), description_.objects.end(), hasOwnCommands))
    out_ += "#include \"kl/commands.h\"\n";
  out_ += "#include \"kl/described.h\"\n#include \"kl/field.h\"\n";
  if (!description_.objects.empty()) out_ += kHelpers;
}

// The argument of kl::setDescription.  Its name is like no other, as these are all capitals or begin with one.
void HeaderWriter::writeDescription() {
  const std::string text = describe::compactOf(description_);
  if (text.empty()) {
    out_ += "\n// The description is too long for a process to carry.\n";
    return;
  }
  out_ += "\n// For kl::setDescription (kl/description.h).\ninline constexpr char kDescription[] =";
  for (std::size_t at = 0; at < text.size(); at = text.find('\n', at) + 1)
    out_ += "\n    " + literal(text.substr(at, text.find('\n', at) + 1 - at));
  out_ += ";\n";
}

void HeaderWriter::writeNumbers() {
  if (description_.id) constant("service", *description_.id, description_.doc, 1);
  for (const describe::Object& object : description_.objects) {
    if (object.handler) constant("handler_" + object.name, *object.handler, object.doc, object.line);
    for (const describe::Command& command : object.commands) {
      if (!command.isStandard) constant("cmd_" + command.name, command.code, command.doc, command.line);
    }
  }
  for (const describe::Topic& topic : description_.topics) {
    constant("topic_" + topic.name, topic.number, topic.doc, topic.line);
  }
}

void HeaderWriter::constant(const std::string& name, unsigned int number, const std::string& text,
                            unsigned int line) {
  const std::string word = constantName(name);
  if (!claim(word, std::to_string(number), line)) return;
  const std::string value = number > 0xffff ? hex(number) : std::to_string(number);
  out_ += "inline constexpr unsigned int " + word + " = " + value + ";" + remark(text) + "\n";
}

void HeaderWriter::writeFields(const std::vector<Field>& fields, const std::string& prefix) {
  for (const Field& field : fields) {
    const std::string word = constantName(prefix + field.name);
    if (!claim(word, prefix + "field " + field.name, field.line)) continue;
    out_ += "inline constexpr ::kl::field<" + typeOf(field.id) + "> " + word + "{" + hex(field.id) + "};" +
            remark(describe::notesOf(field)) + "\n";
  }
}

// The default of each setting, and the bounds of a number.
void HeaderWriter::writeDefaults() {
  for (const Field& field : description_.settings) {
    const std::string name = "setting_" + field.name;
    const auto type = describe::elementType(field.id);
    if (describe::isArray(field.id)) continue;
    if (type == describe::kString && !field.initial.empty())
      define("char", name + "_default", literal(field.initial), field);
    if (type == describe::kBool && !field.initial.empty())
      define("bool", name + "_default", field.initial == "true" ? "true" : "false", field);
    if (type != describe::kU32 && type != describe::kU64) continue;
    const unsigned long long most = type == describe::kU32 ? ~0u : ~0ull;
    if (const auto initial = describe::parseNumber(field.initial, most))
      define(elementTypeOf(field.id), name + "_default", std::to_string(*initial) + "u", field);
    if (field.min) define(elementTypeOf(field.id), name + "_min", std::to_string(*field.min) + "u", field);
    if (field.max) define(elementTypeOf(field.id), name + "_max", std::to_string(*field.max) + "u", field);
  }
}

void HeaderWriter::define(const std::string& type, const std::string& name, const std::string& value,
                          const Field& field) {
  const std::string word = constantName(name);
  if (!claim(word, name, field.line)) return;
  out_ += "inline constexpr " + type + " " + word + (type == "char" ? "[]" : "") + " = " + value + ";\n";
}

void HeaderWriter::writeEnumerations(const std::vector<Field>& fields, const std::string& prefix) {
  for (const Field& field : fields) {
    if (field.values.empty()) continue;
    const std::string name = typeName(prefix + field.name);
    if (!claim(name, prefix + "values of " + field.name, field.line)) continue;
    out_ += "\n// Values of " + constantName(prefix + field.name) + "; others are legal.\n";
    out_ += "enum class " + name + " : unsigned int {\n";
    for (const describe::Value& value : field.values) {
      out_ += "  " + memberName(value.word) + " = " + std::to_string(value.number) + ",\n";
    }
    out_ += "};\n";
  }
}

// The object comes last, because its operations name the structures of its commands.
void HeaderWriter::writeObject(const describe::Object& object) {
  for (const describe::Command& command : object.commands) {
    const std::string name = typeName(object.name + "_" + command.name);
    if (!command.takes.empty())
      writeStructure(name + "Request", command.doc, command.takes, command.line, nullptr);
    if (!command.gives.empty())
      writeStructure(name + "Reply", command.doc, command.gives, command.line, nullptr);
    if (!command.isStandard) writeCommand(name, command);
  }
  writeStructure(typeName(object.name), object.doc, object.fields, object.line, &object);
}

// The name of a command, and the rules for its requests.
void HeaderWriter::writeCommand(const std::string& name, const describe::Command& command) {
  if (!claim(name, "command " + name, command.line)) return;
  out_ += "\nstruct " + name + " {\n";
  out_ += "  static constexpr unsigned int kCommand = " + hex(command.code) + ";\n";
  out_ += "  using Request = " + (command.takes.empty() ? "::kl::NoFields" : name + "Request") + ";\n";
  out_ += "  using Reply = " + (command.gives.empty() ? "::kl::NoFields" : name + "Reply") + ";\n";
  if (!command.takes.empty()) out_ += rulesOf(description_, command);
  out_ += "};\n";
}

void HeaderWriter::writeStructure(const std::string& name, const std::string& doc,
                                  const std::vector<std::string>& fields, unsigned int line,
                                  const describe::Object* object) {
  if (!claim(name, "structure " + name, line)) return;
  out_ += "\n" + (doc.empty() ? "" : "// " + commentText(doc) + "\n") + "struct " + name + " {\n";
  for (const std::string& field : fields) writeMember(*description_.findField(field));
  out_ += "  ::kl::message otherFields{};  // the message that it was made of\n\n";
  out_ += "  static " + name + " fromMessage(const ::kl::message& theMessage) {\n";
  out_ += "    " + name + " theObject;\n    theObject.otherFields = theMessage;\n";
  for (const std::string& field : fields) writeTransfer(*description_.findField(field), true);
  out_ += "    return theObject;\n  }\n";
  out_ += "  ::kl::message toMessage() const {\n    ::kl::message theMessage = otherFields;\n";
  for (const std::string& field : fields) writeTransfer(*description_.findField(field), false);
  out_ += "    return theMessage;\n  }\n";
  if (object != nullptr) out_ += rulesOf(description_, *object) + operationsOf(*object);
  out_ += "};\n";
}

void HeaderWriter::writeMember(const Field& field) {
  const std::string enumeration = enumerationOf(field);
  const std::string type = enumeration.empty() ? typeOf(field.id) : enumeration;
  const std::string word = memberName(field.name);
  out_ += "  " + (field.isRequired ? type : "::std::optional<" + type + ">") + " " + word + "{};" +
          remark(describe::notesOf(field)) + "\n";
}

// A member that is an enumeration goes by way of its number.
void HeaderWriter::writeTransfer(const Field& field, bool takes) {
  const std::string id = constantName(field.name);
  const std::string member = memberName(field.name);
  const std::string type = enumerationOf(field);
  const std::string call =
      std::string("::kl::described_1::") + (takes ? "take" : "put") + "(theMessage, " + id + ", ";
  if (type.empty()) {
    out_ += "    " + call + (takes ? "theObject." : "") + member + ");\n";
  } else if (takes && field.isRequired) {
    out_ += "    theObject." + member + " = static_cast<" + type + ">(theMessage.get(" + id + ", 0));\n";
  } else if (takes) {
    out_ += "    if (theMessage.has(" + id + ")) theObject." + member + " = static_cast<" + type +
            ">(theMessage.get(" + id + ", 0));\n";
  } else if (field.isRequired) {
    out_ += "    theMessage.insert(" + id + ", static_cast<unsigned int>(" + member + "));\n";
  } else {
    out_ += "    if (" + member + ") theMessage.insert(" + id + ", static_cast<unsigned int>(*" + member +
            "));\n    else if (theMessage.has(" + id + ")) theMessage.remove(" + id + ");\n";
  }
}

bool HeaderWriter::claim(const std::string& name, const std::string& meaning, unsigned int line) {
  const auto [place, isNew] = claimed_.emplace(name, meaning);
  if (!isNew && place->second != meaning) {
    mistakes_.push_back({file_, line, "two things would be called " + name + " in C++: rename one of them"});
  }
  return isNew;
}

}  // namespace

std::string headerOf(const Description& description, const std::string& file, common::Mistakes& mistakes) {
  return HeaderWriter(description, file, mistakes).write();
}

}  // namespace klgen

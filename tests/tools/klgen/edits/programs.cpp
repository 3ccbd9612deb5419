// Text is made line by line.  The types of members are written anew here, so that the header's are checked.

#include "tests/tools/klgen/edits/programs.h"

#include <algorithm>

#include "services/describe/field_id.h"
#include "tests/tools/klgen/edits/judge.h"
#include "tools/klgen/header.h"
#include "tools/klgen/identifiers.h"

namespace edits {
namespace {

using describe::Command;
using describe::Description;
using describe::Field;
using describe::Object;
using Names = std::vector<std::string>;

std::string plainType(const Field& field) {
  static constexpr const char* kTypes[] = {"bool",
                                           "unsigned int",
                                           "unsigned long long",
                                           "kl::IPAddr6",
                                           "std::string",
                                           "kl::message::flat_message",
                                           "std::vector<unsigned char>"};
  const std::string element = kTypes[(field.id >> 27) & 0xf];
  return describe::isArray(field.id) ? "std::vector<" + element + ">" : element;
}

bool isEnumeration(const Field& field) { return !field.values.empty() && !describe::isArray(field.id); }

std::string memberType(const Field& field, const std::string& space) {
  const std::string type = isEnumeration(field) ? space + klgen::typeName(field.name) : plainType(field);
  return field.isRequired ? type : "std::optional<" + type + ">";
}

std::string spaceOf(const Description& d, const std::string& prefix) { return prefix + d.nameSpace + "::"; }

class User {
 public:
  User(const Description& d, const std::string& prefix) : d_(d), space_(spaceOf(d, prefix)) {}

  std::string write() {
    useConstants();
    useFields(d_.fields, "");
    useFields(d_.settings, "setting_");
    for (const Object& object : d_.objects) {
      useStructure(object.name, object.fields, true);
      for (const Command& command : object.commands) {
        useStructure(object.name + "_" + command.name + "_request", command.takes, false);
        useStructure(object.name + "_" + command.name + "_reply", command.gives, false);
      }
    }
    return "void use() {\n" + out_ + "}\n";
  }

 private:
  void use(const std::string& type, const std::string& expression) {
    out_ += "  [[maybe_unused]] " + type + " x" + std::to_string(++count_) + " = " + expression + ";\n";
  }
  void useNumber(const std::string& name) { use("const unsigned int", space_ + klgen::constantName(name)); }

  void useConstants() {
    if (d_.id) useNumber("service");
    for (const Object& object : d_.objects) {
      if (object.handler) useNumber("handler_" + object.name);
      for (const Command& command : object.commands)
        if (!command.isStandard) useNumber("cmd_" + command.name);
    }
    for (const describe::Topic& topic : d_.topics) useNumber("topic_" + topic.name);
  }

  void useFields(const std::vector<Field>& fields, const std::string& prefix) {
    for (const Field& field : fields) {
      use("const kl::field<" + plainType(field) + ">", space_ + klgen::constantName(prefix + field.name));
      for (const describe::Value& value : field.values)
        use("const auto",
            space_ + klgen::typeName(prefix + field.name) + "::" + klgen::memberName(value.word));
      if (prefix.empty() || (field.id & describe::kTypeMask) != describe::kU32) continue;
      if (!field.initial.empty()) useNumber(prefix + field.name + "_default");
      if (field.min) useNumber(prefix + field.name + "_min");
      if (field.max) useNumber(prefix + field.name + "_max");
    }
  }

  // Members are named in their order, and are of their types.
  void useStructure(const std::string& name, const Names& fields, bool isAlwaysThere) {
    if (fields.empty() && !isAlwaysThere) return;
    const std::string structure = "s" + std::to_string(++count_);
    std::string members;
    for (const std::string& field : fields)
      members += (members.empty() ? "." : ", .") + klgen::memberName(field) + " = {}";
    out_ += "  " + space_ + klgen::typeName(name) + " " + structure + "{" + members + "};\n";
    for (const std::string& field : fields)
      use(memberType(*d_.findField(field), space_) + "&", structure + "." + klgen::memberName(field));
    use("kl::message",
        space_ + klgen::typeName(name) + "::fromMessage(" + structure + ".toMessage()).otherFields");
  }

  const Description& d_;
  std::string space_;
  std::string out_;
  unsigned int count_ = 0;
};

std::string madeValue(const Field& field, const std::string& space, unsigned int number) {
  const std::string digits = std::to_string(number);
  if (isEnumeration(field)) return "static_cast<" + space + klgen::typeName(field.name) + ">(" + digits + ")";
  switch (field.id & describe::kTypeMask) {
    case describe::kBool: return "true";
    case describe::kU32:
    case describe::kU64: return digits + "u";
    case describe::kString: return "std::string(\"text " + digits + "\")";
    case describe::kRaw: return "std::vector<unsigned char>{1, " + digits + "}";
    case describe::kU32 | describe::kArrayBit: return "std::vector<unsigned int>{" + digits + ", 7}";
    default: return "std::vector<std::string>{\"\", \"" + digits + "\"}";
  }
}

// One way: the sender's structure, the message, the receiver's structure.
struct Side {
  const Description& d;
  std::string space;
  const std::string& structure;
  const Names& fields;
};

std::string blockOf(const Side& from, const Side& to, bool all, const Description& older,
                    const Description& newer) {
  const auto meaning = [&](const Side& side, const std::string& name) {
    return &side.d == &newer ? meaningOfField(name, older, newer) : name;
  };
  std::string text = "  {\n    " + from.space + from.structure + " s{};\n";
  unsigned int number = 100;
  Names sent;
  for (const std::string& name : from.fields) {
    const Field& field = *from.d.findField(name);
    if (!all && !field.isRequired) continue;
    sent.push_back(name);
    text += "    s." + klgen::memberName(name) + " = " + madeValue(field, from.space, ++number) + ";\n";
  }
  text += "    const kl::message m = s.toMessage();\n    const auto r = " + to.space + to.structure +
          "::fromMessage(m);\n    (void)r;\n";
  for (const std::string& name : to.fields) {
    const auto same = std::find_if(sent.begin(), sent.end(), [&](const std::string& other) {
      return meaning(from, other) == meaning(to, name);
    });
    const std::string was = same == sent.end() ? "\"absent\"" : "textOf(s." + klgen::memberName(*same) + ")";
    text += "    if (!isUnderstood(m.has(" + to.space + klgen::constantName(name) + "), " +
            (to.d.findField(name)->isRequired ? "true" : "false") + ", textOf(r." + klgen::memberName(name) +
            "), " + was + ")) return false;\n";
  }
  return text + "  }\n";
}

}  // namespace

std::string headerText(Description description, const std::string& prefix) {
  description.nameSpace = prefix + description.nameSpace;
  common::Mistakes mistakes;
  return klgen::headerOf(description, "svc.toml", mistakes);
}

std::string userProgram(const Description& older, const std::string& prefix) {
  return User(older, prefix).write();
}

std::string exchangeProgram(const Description& older, const std::string& oldPrefix, const Description& newer,
                            const std::string& newPrefix, const std::string& name) {
  std::string text = "bool " + name + "() {\n";
  for (const Structures& both : commonStructures(older, newer)) {
    const Side old{older, spaceOf(older, oldPrefix), both.older, both.oldFields};
    const Side now{newer, spaceOf(newer, newPrefix), both.newer, both.newFields};
    for (const bool all : {true, false})
      text += blockOf(old, now, all, older, newer) + blockOf(now, old, all, older, newer);
  }
  return text + "  return true;\n}\n";
}

const char* const kExchangeHelpers = R"(
template <class Number>
std::string textOf(Number number) { return std::to_string(static_cast<unsigned long long>(number)); }
inline std::string textOf(const std::string& text) { return text; }
template <class Element>
std::string textOf(const std::vector<Element>& elements) {
  std::string text;
  for (const Element& element : elements) text += textOf(element) + ",";
  return text;
}
template <class T>
std::string textOf(const std::optional<T>& member) { return member ? textOf(*member) : "absent"; }
inline bool isUnderstood(bool isPresent, bool isRequired, const std::string& got, const std::string& sent) {
  return isPresent ? got == sent : !isRequired && sent == "absent";
}
)";

}  // namespace edits

// The rules of an object are constants: a list of its fields, a list of the commands whose rights are not those of the
// conventions, and what stands once, which refers to both.  A list that would be empty is left out.

#include "rules.h"

#include <algorithm>

#include "identifiers.h"
#include "kl/conventions.h"
#include "kl/described.h"
#include "services/describe/field_id.h"
#include "services/describe/words.h"

namespace klgen {
namespace {

using describe::Command;
using describe::Field;
using describe::Object;

std::string number(unsigned int value) { return std::to_string(value) + "U"; }

// An array keeps its numbers: its values are names and no bounds.
bool hasValues(const Field& field) { return !field.values.empty() && !describe::isArray(field.id); }

std::string valuesName(const Field& field) { return "kValuesOf" + typeName(field.name); }

const Command* findCommand(const Object& object, unsigned int code) {
  const auto found = std::find_if(object.commands.begin(), object.commands.end(),
                                  [code](const Command& command) { return command.code == code; });
  return found == object.commands.end() ? nullptr : &*found;
}

// Does the object's command take the field?  One that says nothing of what it takes takes them all.
bool takes(const Object& object, unsigned int code, const Field& field) {
  const Command* command = findCommand(object, code);
  if (command == nullptr) return false;
  return command->takes.empty() ||
         std::find(command->takes.begin(), command->takes.end(), field.name) != command->takes.end();
}

unsigned int changesOf(const Object& object) {
  using Rules = kl::ObjectRules;
  const Command* add = findCommand(object, kl::CMD_ADDOBJ);
  const Command* set = findCommand(object, kl::CMD_SETOBJ);
  return (add != nullptr ? Rules::kAdd : 0) | (set != nullptr ? Rules::kSet : 0) |
         (findCommand(object, kl::CMD_REMOVEOBJ) != nullptr ? Rules::kRemove : 0) |
         (findCommand(object, kl::CMD_MOVEOBJ) != nullptr ? Rules::kMove : 0) |
         (add != nullptr && add->takes.empty() ? Rules::kAddsOthers : 0) |
         (set != nullptr && set->takes.empty() ? Rules::kSetsOthers : 0) |
         (object.isUndone ? Rules::kUndone : 0);
}

// static constexpr unsigned int kValuesOfState[] = {1U, 2U};
std::string valuesOf(const Field& field) {
  std::string list;
  for (const describe::Value& value : field.values) list += (list.empty() ? "" : ", ") + number(value.number);
  return "  static constexpr unsigned int " + valuesName(field) + "[] = {" + list + "};\n";
}

unsigned int usesOf(const Object& object, const Field& field) {
  using Rule = kl::FieldRule;
  return (field.isRequired ? Rule::kRequired : 0) |
         (takes(object, kl::CMD_ADDOBJ, field) ? Rule::kAdded : 0) |
         (takes(object, kl::CMD_SETOBJ, field) ? Rule::kSet : 0);
}

// {MTU, "mtu", 6, 68, 9000, kValuesOfMtu},
std::string fieldRule(const Field& field, unsigned int uses) {
  std::string rule = "      {" + constantName(field.name) + ", \"" + field.name + "\", " + number(uses);
  rule += ", " + std::to_string(field.min.value_or(0)) + ", ";
  rule += field.max ? std::to_string(*field.max) : "~0ULL";
  return rule + (hasValues(field) ? ", " + valuesName(field) : "") + "},\n";
}

// {393217U, 128U},
std::string commandRule(const Command& command) {
  const describe::StandardCommand* standard = describe::findStandardCommand(command.name);
  if (standard != nullptr && command.right == standard->right) return "";
  const unsigned int right = describe::findRight(command.right).value_or(kl::RIGHT_OF_NOBODY);
  return "      {" + number(command.code) + ", " + number(right) + "},\n";
}

// static constexpr TYPE NAME[] = {RULES};
std::string listOf(const char* type, const char* name, const std::string& rules) {
  if (rules.empty()) return "";
  return std::string("  static constexpr ::kl::") + type + " " + name + "[] = {\n" + rules + "  };\n";
}

}  // namespace

std::string rulesOf(const describe::Description& description, const Command& command) {
  std::string text = "\n  // What a request has to keep to (kl/described.h).\n";
  std::string fields;
  for (const std::string& name : command.takes) {
    const Field& field = *description.findField(name);
    if (hasValues(field)) text += valuesOf(field);
    fields += fieldRule(field, field.isRequired ? kl::FieldRule::kRequired : 0);
  }
  const std::string none = number(kl::ObjectRules::kNone);
  return text + listOf("FieldRule", "kFields", fields) + "  static constexpr ::kl::ObjectRules kRules{\"" +
         command.name + "\", " + none + ", " + none + ", 0U, kFields, {}};\n";
}

std::string rulesOf(const describe::Description& description, const Object& object) {
  std::string text = "\n  // For kl::Table and kl::Client (kl/described.h).\n";
  std::string fields, commands;
  for (const std::string& name : object.fields) {
    const Field& field = *description.findField(name);
    if (hasValues(field)) text += valuesOf(field);
    fields += fieldRule(field, usesOf(object, field));
  }
  for (const Command& command : object.commands) commands += commandRule(command);
  text += listOf("FieldRule", "kFields", fields) + listOf("CommandRule", "kCommands", commands);
  constexpr unsigned int kNone = kl::ObjectRules::kNone;
  text += "  static constexpr ::kl::ObjectRules kRules{\"" + object.name + "\", " +
          number(description.id.value_or(kNone)) + ", " + number(object.handler.value_or(kNone)) + ", " +
          number(changesOf(object)) + ", ";
  text += fields.empty() ? "{}, " : "kFields, ";
  text += commands.empty() ? "{}" : "kCommands";
  return text + (object.store.empty() ? "" : ", \"" + object.store + "\"") + "};\n";
}

}  // namespace klgen

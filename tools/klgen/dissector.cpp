// A table of names in front of dissector.lua, which is the same for all descriptions.

#include "dissector.h"

#include <algorithm>
#include <cstdio>
#include <map>

#include "dissector_text.h"
#include "services/describe/words.h"

namespace klgen {
namespace {

using describe::Description;

std::string luaNumber(unsigned int number) {
  char text[16];
  return {text, static_cast<std::size_t>(std::snprintf(text, sizeof text, "0x%08x", number))};
}

// A text as Lua writes it: nothing in it ends it, and every byte is itself.
std::string luaText(const std::string& text) {
  std::string quoted = "\"";
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    char number[8];
    if (byte < ' ' || byte == 0x7f || c == '"' || c == '\\') {
      std::snprintf(number, sizeof number, "\\%03u", byte);
      quoted += number;
    } else {
      quoted += c;
    }
  }
  return quoted + "\"";
}

// One more entry of a table.
std::string entry(unsigned int key, const std::string& value) {
  return "[" + luaNumber(key) + "] = " + value + ", ";
}

std::string braced(const std::string& entries) {
  return entries.empty() ? "{}" : "{ " + entries.substr(0, entries.size() - 2) + " }";
}

template <class Entries>
std::string namedTable(const Entries& entries) {
  std::string table;
  for (const auto& each : entries) table += entry(each.number, luaText(each.name));
  return braced(table);
}

std::string standardCommandTable() {
  std::string table;
  for (const auto& each : describe::standardCommands())
    table += entry(each.code, luaText(std::string(each.name).substr(std::string(each.name).find('_') + 1)));
  return braced(table);
}

std::string fieldTable(const describe::Field& field) {
  std::string table = "name = " + luaText(field.name) + ", ";
  if (!field.unit.empty()) table += "unit = " + luaText(field.unit) + ", ";
  if (field.isSecret) table += "secret = true, ";
  std::string values;
  for (const describe::Value& value : field.values) values += entry(value.number, luaText(value.word));
  if (!values.empty()) table += "values = " + braced(values) + ", ";
  return braced(table);
}

// The commands that are a service's own, by the number of the handler.
std::string commandTables(const Description& description) {
  std::map<unsigned int, std::string> tables;
  for (const describe::Object& object : description.objects)
    for (const describe::Command& command : object.commands)
      if (!command.isStandard)
        tables[object.handler.value_or(0)] += entry(command.code, luaText(command.name));
  std::string all;
  for (const auto& [handler, table] : tables) all += entry(handler, braced(table));
  return braced(all);
}

// Settings come in a message, too: when the loader confirms a registration.
std::string serviceTable(const Description& description) {
  std::string table = "    [" + std::to_string(*description.id) + "] = {\n";
  table += "      name = " + luaText(description.name) + ",\n";
  table += "      commands = " + commandTables(description) + ",\n      fields = {\n";
  for (const describe::Field& field : description.fields)
    table += "        [" + luaNumber(field.id) + "] = " + fieldTable(field) + ",\n";
  table += "      },\n      settings = {\n";
  for (const describe::Field& setting : description.settings)
    table += "        [" + luaNumber(setting.id) + "] = " + fieldTable(setting) + ",\n";
  return table + "      },\n    },\n";
}

}  // namespace

std::string dissectorOf(const std::vector<Description>& descriptions) {
  std::string text = "-- Made by klgen of descriptions; changes here are lost.\n\nlocal names = {\n";
  std::vector<describe::Named> fields(describe::systemFields().begin(), describe::systemFields().end());
  fields.insert(fields.end(), describe::standardFields().begin(), describe::standardFields().end());
  text += "  fields = " + namedTable(fields) + ",\n";
  text += "  commands = " + standardCommandTable() + ",\n";
  text += "  errors = " + namedTable(describe::errors()) + ",\n";
  text += "  controls = " + namedTable(describe::controls()) + ",\n";
  std::string inControls;
  for (const describe::Named& field : describe::controlFields())
    inControls += entry(field.number, "{ name = " + luaText(field.name) + " }");
  text += "  controlFields = " + braced(inControls) + ",\n";
  text += "  services = {\n";
  for (const Description& description : descriptions)
    if (description.id) text += serviceTable(description);
  return text + "  },\n}\n\n" + kDissector;
}

}  // namespace klgen

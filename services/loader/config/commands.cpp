// The standard commands are asked of the library itself, so that both always agree.

#include "config/commands.h"

#include <array>
#include <charconv>
#include <cstdio>
#include <optional>
#include <set>
#include <string_view>
#include <utility>

#include "config/access_list.h"
#include "kl/conventions.h"
#include "kl/looper.h"
#include "kl/message_view.h"
#include "loader.kl.h"
#include "services/common/tap.h"
#include "services/describe/check.h"

namespace loader {
namespace {

constexpr std::array<std::pair<std::string_view, unsigned int>, 20> kNames{
    {{"NOOP", kl::CMD_NOOP},
     {"GETPOLICIES", kl::CMD_GETPOLICIES},
     {"GETOBJ", kl::CMD_GETOBJ},
     {"SETOBJ", kl::CMD_SETOBJ},
     {"GETALL", kl::CMD_GETALL},
     {"ADDOBJ", kl::CMD_ADDOBJ},
     {"REMOVEOBJ", kl::CMD_REMOVEOBJ},
     {"MOVEOBJ", kl::CMD_MOVEOBJ},
     {"NOTIFY", kl::CMD_NOTIFY},
     {"SHUTDOWN", kl::CMD_SHUTDOWN},
     {"GET", kl::CMD_GET},
     {"SET", kl::CMD_SET},
     {"START", kl::CMD_START},
     {"POLL", kl::CMD_POLL},
     {"CANCEL", kl::CMD_CANCEL},
     {"SUBSCRIBE", kl::CMD_SUBSCRIBE},
     {"UNSUBSCRIBE", kl::CMD_UNSUBSCRIBE},
     {"DISCONNECTED", kl::CMD_DISCONNECTED},
     {"GETCOUNT", kl::CMD_GETCOUNT},
     {"RESET", kl::CMD_RESET}}};

// "0x60001", "CMD_START" or "START".
std::optional<unsigned int> commandOf(std::string_view key) {
  if (key.starts_with("CMD_")) key.remove_prefix(4);
  for (const auto& [name, number] : kNames)
    if (key == name) return number;
  if (!key.starts_with("0x")) return {};
  unsigned int number = 0;
  const auto [end, error] = std::from_chars(key.data() + 2, key.data() + key.size(), number, 16);
  if (error != std::errc() || end != key.data() + key.size()) return {};
  return number;
}

// By the name that the description of the service has; none, and a mistake, where there is no such command.
std::optional<unsigned int> describedCommand(common::Section& table, const std::string& key,
                                             ServiceNames& names) {
  std::vector<unsigned int> codes;
  if (describe::isName(key)) codes = names.findCommands(key);
  if (codes.size() == 1) return codes.front();
  if (codes.size() > 1) {
    table.mistake(key, "several commands of the service have this name: give their numbers");
  } else {
    const bool isName = describe::isName(key) && names.mayHaveNames();
    const std::string hint = isName ? ", or a name (" + names.commandsThereAre() + ")" : "";
    table.expected(key, "a key that is a command, like \"0x60001\" or \"CMD_START\"" + hint);
  }
  return {};
}

// "none" means that the command needs no right.
unsigned int bitsOf(const Rights& rights) { return rights.none ? 0 : rights.bits; }

}  // namespace

CommandRights standardCommands() {
  CommandRights commands;
  const kl::message table = kl::policies().get_policies({});
  for (const auto& flat : table.get(kl::STD_OBJS, {})) {
    const kl::message_view entry(flat);
    commands[entry.get(kl::STD_ID, 0)] = entry.get(kl::POLICY_RIGHTS, kl::RIGHT_OF_NOBODY);
  }
  return commands;
}

CommandRights loaderCommands() {
  CommandRights commands = standardCommands();
  commands[kl::CMD_SETOBJ] = kl::RIGHT_CONTROL;
  commands[loader_service::CMD_EXPLAIN_RIGHTS] = kl::RIGHT_READ;
  commands[loader_service::CMD_LIST_RIGHTS] = kl::RIGHT_CONTROL;
  commands[loader_service::CMD_RELOAD] = kl::RIGHT_CONTROL;
  commands[common::tap::CMD_TAP] = kl::RIGHT_CONTROL;
  return commands;
}

std::string nameOfCommand(unsigned int command) {
  for (const auto& [name, number] : kNames)
    if (number == command) return "CMD_" + std::string(name);
  char text[16];
  (void)std::snprintf(text, sizeof text, "0x%x", command);
  return text;
}

CommandRights readCommands(common::Section& section, ServiceNames names) {
  CommandRights commands = standardCommands();
  common::Section table = section.table("commands");
  std::set<unsigned int> given;
  for (const std::string& key : table.keys()) {
    auto command = commandOf(key);
    if (!command) {
      command = describedCommand(table, key, names);
      if (command && given.contains(*command)) table.mistake(key, "it is given twice, also by its number");
    }
    if (!command) continue;
    given.insert(*command);
    commands[*command] = bitsOf(readRights(table, key, Rights::of(kl::RIGHT_OF_NOBODY)));
  }
  return commands;
}

}  // namespace loader

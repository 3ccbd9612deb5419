// The tables of the conventions' names.  They are short, and are searched from the front.

#include "services/describe/words.h"

#include <array>
#include <cctype>

#include "kl/conventions.h"

namespace describe {
namespace {

struct Named {
  const char* word;
  unsigned int number;
};

constexpr std::array<StandardCommand, 20> kCommands = {{
    {"CMD_NOOP", kl::CMD_NOOP, "read"},
    {"CMD_GETPOLICIES", kl::CMD_GETPOLICIES, "read"},
    {"CMD_GETOBJ", kl::CMD_GETOBJ, "read"},
    {"CMD_SETOBJ", kl::CMD_SETOBJ, "change"},
    {"CMD_GETALL", kl::CMD_GETALL, "read"},
    {"CMD_ADDOBJ", kl::CMD_ADDOBJ, "change"},
    {"CMD_REMOVEOBJ", kl::CMD_REMOVEOBJ, "change"},
    {"CMD_MOVEOBJ", kl::CMD_MOVEOBJ, "change"},
    {"CMD_NOTIFY", kl::CMD_NOTIFY, "nobody"},
    {"CMD_SHUTDOWN", kl::CMD_SHUTDOWN, "nobody"},
    {"CMD_GET", kl::CMD_GET, "read"},
    {"CMD_SET", kl::CMD_SET, "change"},
    {"CMD_START", kl::CMD_START, "control"},
    {"CMD_POLL", kl::CMD_POLL, "control"},
    {"CMD_CANCEL", kl::CMD_CANCEL, "control"},
    {"CMD_SUBSCRIBE", kl::CMD_SUBSCRIBE, "read"},
    {"CMD_UNSUBSCRIBE", kl::CMD_UNSUBSCRIBE, "read"},
    {"CMD_DISCONNECTED", kl::CMD_DISCONNECTED, "nobody"},
    {"CMD_GETCOUNT", kl::CMD_GETCOUNT, "read"},
    {"CMD_RESET", kl::CMD_RESET, "change"},
}};

constexpr std::array<Named, 12> kErrors = {{
    {"unknown", kl::ERROR_UNKNOWN},
    {"brkpath", kl::ERROR_BRKPATH},
    {"notimp", kl::ERROR_NOTIMP},
    {"unknownid", kl::ERROR_UNKNOWNID},
    {"missing", kl::ERROR_MISSING},
    {"failed", kl::ERROR_FAILED},
    {"exists", kl::ERROR_EXISTS},
    {"notallowed", kl::ERROR_NOTALLOWED},
    {"toobig", kl::ERROR_TOOBIG},
    {"unknownnextid", kl::ERROR_UNKNOWNNEXTID},
    {"busy", kl::ERROR_BUSY},
    {"timeout", kl::ERROR_TIMEOUT},
}};

constexpr std::array<Named, 6> kRights = {{
    {"none", 0},
    {"read", kl::RIGHT_READ},
    {"change", kl::RIGHT_CHANGE},
    {"control", kl::RIGHT_CONTROL},
    {"contents", kl::RIGHT_CONTENTS},
    {"nobody", kl::RIGHT_OF_NOBODY},
}};

std::optional<unsigned int> findNamed(std::span<const Named> table, const std::string& word) {
  for (const Named& entry : table)
    if (word == entry.word) return entry.number;
  return {};
}

}  // namespace

std::span<const StandardCommand> standardCommands() { return kCommands; }

const StandardCommand* findStandardCommand(const std::string& word) {
  for (const StandardCommand& command : kCommands)
    if (word == command.name || word == shortForm(command.name)) return &command;
  return nullptr;
}

std::string shortForm(const std::string& constant) {
  std::string word = constant.substr(constant.find('_') + 1);
  for (char& c : word) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return word;
}

std::optional<unsigned int> findError(const std::string& word) { return findNamed(kErrors, word); }

std::optional<unsigned int> findRight(const std::string& word) { return findNamed(kRights, word); }

}  // namespace describe

// The tables of the conventions' names.  They are short, and are searched from the front.

#include "services/describe/words.h"

#include <array>
#include <cctype>

#include "kl/conventions.h"
#include "kl/services.h"

namespace describe {
namespace {

constexpr std::array<Named, 12> kStandardFields = {{
    {"STD_ID", kl::STD_ID},
    {"STD_DESCR", kl::STD_DESCR},
    {"STD_DYNAMIC", kl::STD_DYNAMIC},
    {"STD_INACTIVE", kl::STD_INACTIVE},
    {"STD_DISABLED", kl::STD_DISABLED},
    {"STD_NEXTID", kl::STD_NEXTID},
    {"STD_UNDOID", kl::STD_UNDOID},
    {"STD_DEAD", kl::STD_DEAD},
    {"STD_FINISHED", kl::STD_FINISHED},
    {"STD_GETALLID", kl::STD_GETALLID},
    {"STD_GETALLNO", kl::STD_GETALLNO},
    {"STD_OBJS", kl::STD_OBJS},
}};

constexpr std::array<Named, 16> kSystemFields = {{
    {"SYS_TO", kl::SYS_TO},
    {"SYS_FROM", kl::SYS_FROM},
    {"SYS_TYPE", kl::SYS_TYPE},
    {"SYS_STATUS", kl::SYS_STATUS},
    {"SYS_REPLYEXP", kl::SYS_REPLYEXP},
    {"SYS_REQID", kl::SYS_REQID},
    {"SYS_CMD", kl::SYS_CMD},
    {"SYS_ERRNO", kl::SYS_ERRNO},
    {"SYS_ERRSTR", kl::SYS_ERRSTR},
    {"SYS_USER", kl::SYS_USER},
    {"SYS_POLICY", kl::SYS_POLICY},
    {"SYS_CTRL", kl::SYS_CTRL},
    {"SYS_RADDR", kl::SYS_RADDR},
    {"SYS_CTRL_ARG", kl::SYS_CTRL_ARG},
    {"SYS_NOTIFYCMD", kl::SYS_NOTIFYCMD},
    {"SYS_NOTIFYPATH", kl::SYS_NOTIFYPATH},
}};

constexpr std::array<Named, 9> kControls = {{
    {"CTRL_LEAVE", kl::CTRL_LEAVE},
    {"CTRL_LEFT", kl::CTRL_LEFT},
    {"CTRL_REFUSED", kl::CTRL_REFUSED},
    {"CTRL_WANT_LEAVE", kl::CTRL_WANT_LEAVE},
    {"CTRL_HELLO", kl::CTRL_HELLO},
    {"CTRL_RUNNING", kl::CTRL_RUNNING},
    {"CTRL_LEAVE_VALUE", kl::CTRL_LEAVE_VALUE},
    {"CTRL_READY", kl::CTRL_READY},
    {"CTRL_WAKE_AT", kl::CTRL_WAKE_AT},
}};

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

constexpr std::array<Named, 6> kControlFields = {{
    {"REGISTRATION_VALUES", kl::REGISTRATION_VALUES},
    {"READY_ID", kl::READY_ID},
    {"READY_VERSION", kl::READY_VERSION},
    {"READY_STARTS", kl::READY_STARTS},
    {"READY_DATA", kl::READY_DATA},
    {"READY_CONFIGURATION", kl::READY_CONFIGURATION},
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
    if (word == entry.name) return entry.number;
  return {};
}

}  // namespace

std::span<const Named> standardFields() { return kStandardFields; }
std::span<const Named> systemFields() { return kSystemFields; }
std::span<const Named> errors() { return kErrors; }
std::span<const Named> controls() { return kControls; }
std::span<const Named> controlFields() { return kControlFields; }

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

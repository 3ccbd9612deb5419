#pragma once
// words.h: the commands, errors and rights that every service shares, by the words of descriptions.

#include <optional>
#include <span>
#include <string>

namespace describe {

// A command of the conventions, and the right that it needs unless a service says otherwise.
struct StandardCommand {
  const char* name;  // "CMD_GETOBJ"
  unsigned int code;
  const char* right;  // "read"
};

std::span<const StandardCommand> standardCommands();

// Finds a command by its name, as it is or in short and small (CMD_GETCOUNT, getcount); null when there is none.
const StandardCommand* findStandardCommand(const std::string& word);

// The short and small form of a constant's name: "CMD_GETCOUNT" is "getcount".
std::string shortForm(const std::string& constant);

// The number of an error by its short and small name ("notallowed").
std::optional<unsigned int> findError(const std::string& word);

// The bits of SYS_POLICY by the word of the right: none, read, change, control, contents.
std::optional<unsigned int> findRight(const std::string& word);

}  // namespace describe

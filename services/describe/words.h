#pragma once
// words.h: the fields, commands, errors and rights that every service shares, by their names.

#include <optional>
#include <span>
#include <string>

namespace describe {

// A number of the conventions, and its name.
struct Named {
  const char* name;
  unsigned int number;
};

std::span<const Named> standardFields();  // "STD_ID", in the order in which people read them
std::span<const Named> systemFields();    // "SYS_TO"
std::span<const Named> errors();          // "unknownid"
std::span<const Named> controls();        // "CTRL_HELLO"
std::span<const Named> controlFields();   // "READY_ID": the fields of messages with a control

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

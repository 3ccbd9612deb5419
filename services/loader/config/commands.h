#pragma once
// commands.h: the commands of a service, and the right that each needs.

#include <string>
#include <unordered_map>

#include "config/service_names.h"
#include "services/common/section.h"

namespace loader {

// The policy bits that each command needs.
using CommandRights = std::unordered_map<unsigned int, unsigned int>;

// The commands that the library knows a policy for, with what they need unless a handler says otherwise.
CommandRights standardCommands();

// Those of the loader's own service: the standard ones, but to start and to stop services is to control them.
CommandRights loaderCommands();

// "CMD_SETOBJ", or "0x60001" where the library has no name.
std::string nameOfCommand(unsigned int command);

// Reads the key `commands` of a service: a table of commands, as "0x60001" or under the name that the library or the
// description of the service has for them, and of rights.  The result has the standard commands, too, with what the library says where the table does not
// name them.
CommandRights readCommands(common::Section& section, ServiceNames names = {});

}  // namespace loader

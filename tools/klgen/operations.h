#pragma once
// operations.h: the commands of a service's own as operations of its handler and as calls of its clients.

#include <string>

#include "services/describe/description.h"

namespace klgen {

// Has the object commands of its own?
bool hasOwnCommands(const describe::Object& object);

// The members of the object's structure that kl::Commands, kl::Table, kl::Client and kl::TaskClient are made of; nothing without commands
// of its own.  Needs: the structures of those commands stand in front of the object's.
std::string operationsOf(const describe::Object& object);

}  // namespace klgen

#pragma once
// capabilities.h: takes root's rights from a new process, or leaves it some of them.

#include "config/capabilities.h"

namespace loader {

// Before the process becomes another user: it keeps the set when it does, and what is not in the set cannot be had again,
// not even by a program that has it as a file.  False where this process may not forgo all of that.
bool boundCapabilities(Capabilities set);

// After that: the process, and what it starts, has this set and no more.  False where it cannot have the set.
bool takeCapabilities(Capabilities set);

}  // namespace loader

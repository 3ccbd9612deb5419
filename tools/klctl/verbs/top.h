#pragma once
// top.h: what the services do, again and again.

#include <string>

#include "values/load.h"
#include "verbs/verb.h"

namespace klctl {

// On a terminal until a key ends it; elsewhere a table or a line of JSON after each interval, until there were
// enough of them or the user interrupts.
void showTop(const CommandLine& line, const Channels& channels);

// One look at all services: their table, and that of the open requests if there is one to name.  Throws Failure.
SystemState look(const CommandLine& line, const Channels& channels);

}  // namespace klctl

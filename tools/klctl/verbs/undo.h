#pragma once
// undo.h: the records of the undo service, for people.

#include <string>

#include "ask/path.h"
#include "verbs/command_line.h"

namespace klctl {

// Does what `undo list`, `undo show` and `undo run` say and returns the text for the standard output.  Throws
// Failure.
std::string runUndo(const CommandLine& line, const Exchange& exchange);

}  // namespace klctl

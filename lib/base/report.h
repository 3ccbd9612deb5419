#pragma once
// diagnostics.h: the last line of a process that lost its loader.

#include <string>

namespace kl {

// One line on the standard error stream, in one piece.
void reportLine(const std::string& line);

// The line, then the end of the process with status 1.
[[noreturn]] void endProcess(const std::string& line);

}  // namespace kl

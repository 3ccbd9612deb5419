#pragma once
// comparing.h: what a configuration would change at the loader that runs.

#include <string>

#include "services/common/command_line.h"

namespace loader {

inline constexpr int kWouldChange = 3;  // beside the exit statuses of every companion

// --against running
common::Choice againstOption(std::string& word);

// Asks the loader that runs, and prints a line for each service that a reload would add, remove, restart or adjust, with
// the keys that differ.  0: there is none; kWouldChange: there are some; kMistake: a mistake that only the machine shows, as
// a program that is not there; kCannotRun: no loader answers, or it refuses.  Needs: the file has no mistakes.
int compareWithRunning(const common::CommandLine& line);

}  // namespace loader

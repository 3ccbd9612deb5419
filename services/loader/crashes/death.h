#pragma once
// death.h: how a process ended, in words.

#include <string>

#include "crashes/report_catcher.h"

namespace loader {

// "SIGSEGV"; of one without a name "signal 64".
std::string signalName(unsigned int signal);

// "killed by SIGSEGV" or "ended with status 3", of what waitpid() says and of what the process left behind.  A process
// that reports its crash ends with status 1, so the signal of the report counts.  One that had no stack left to report
// on leaves nothing, and that is said.
std::string describeEnd(int status, const Caught& caught = {});

// Every end but one that the program chose and called a success.
bool isCrash(int status);

}  // namespace loader

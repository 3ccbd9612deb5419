#pragma once
// process.h: one process of a configured service.

#include <sys/types.h>

#include <string>

#include "config/configuration.h"

namespace loader {

// Starts the program of a service, with `connection` as its descriptor 3, nothing as its standard input, a process
// group of its own, and the user, folder and environment that it is configured with.  Its pid, or -1 with errno.  A
// failure in the new process itself is one line on the standard error stream and status 127.  The kernel kills the
// process when the calling thread ends, so that is the loader's only one.
pid_t startProcess(const ServiceConfiguration& service, int connection);

// "status 3" or "signal 9", from the status of waitpid().
std::string describeEnd(int status);

}  // namespace loader

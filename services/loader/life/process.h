#pragma once
// process.h: one process of a configured service.

#include <sys/types.h>

#include "config/configuration.h"
#include "crashes/service_output.h"

namespace loader {

// Starts the program of a service, with `connection` as its descriptor 3, nothing as its standard input, its output and
// errors on `streams`, where those are open, a session of its own, and the user, folder, environment and limits that it
// is configured with.  Its pid, or -1 with errno.  A failure in the new process itself is one line on the standard error
// stream and status 127.  The kernel kills the process when the calling thread ends, so that is the loader's only one.
pid_t startProcess(const ServiceConfiguration& service, int connection, const Streams& streams = {});

}  // namespace loader

#pragma once
// kl/utilities.h: small facts about the system that services and tools ask for.

#include <string>

#include "kl/export.h"

namespace kl {

// The places that every program of the system must agree on.  They are fixed when the library is built, so
// ask the library instead of writing them down again.  Constant for the life of the process; any thread may
// ask.

// The socket that services connect to: "/ram/kelosock".
KL_API std::string loaderSocketPath();

// The socket that log lines go to: "/kelo/logs/logsocket".
KL_API std::string logSocketPath();

// The folder of the first-start markers, without a slash at its end: "/kelo/run".
KL_API std::string runFolderPath();

}  // namespace kl

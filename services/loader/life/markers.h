#pragma once
// markers.h: the first-start markers of services, and who may have made them.

#include <string>

#include "config/configuration.h"
#include "logging/log.h"

namespace loader {

// Removes from the folder of markers what has the name of a configured service, or of its program, and belongs to
// another user than root, the loader's own user and the service's.  Links are removed themselves and never followed.
//
// Errors:    what cannot be removed costs a line on the log, as does what is.
// Cost:      two system calls a service, at the start of the loader.
void removeStrangeMarkers(const Configuration& configuration, const std::string& folder, Log& log);

}  // namespace loader

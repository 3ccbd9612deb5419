#pragma once
// missing_programs.h: what a configuration would have the loader start that is not there.

#include "config/configuration.h"

namespace loader {

// Adds a mistake for each service whose program this machine does not have, or has as a file that nobody may execute.  It
// is searched as the new process would: in the PATH and the folder that the service has.
void addMissingPrograms(const Configuration& configuration, common::Mistakes& mistakes);

}  // namespace loader

#pragma once
// speaks_for.h: the users whom the requests of a service may name.

#include "config/configuration.h"
#include "services/common/section.h"

namespace loader {

// Reads `speaks_for`, a list of users and "@group"s, after everything that gives the service its own rights.  A service
// that could do everything itself, or whose requests pass unchanged anyway, has no use for it: that is a mistake.  A
// user who may do everything is never spoken for, the service's own user needs nobody for that, and an unknown user
// cannot be: these are warnings.
void readSpeaksFor(common::Section& section, ServiceConfiguration& service, Configuration& whole);

// False for root, the loader's own user, whom [rights] gives "all", and the user of the service: what comes in his name
// is its own.
bool maySpeakFor(const Configuration& configuration, const ServiceConfiguration& service, uid_t uid);

}  // namespace loader

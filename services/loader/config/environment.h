#pragma once
// environment.h: the environment of a service.

#include <map>
#include <string>

#include "config/configuration.h"

namespace loader {

using Environment = std::map<std::string, std::string>;

// What the process of a service has in its environment, and nothing else: what the system and its language need of the
// loader's own, who its user is, and the `environment` of the service, which counts first.
Environment environmentOf(const ServiceConfiguration& service);

}  // namespace loader

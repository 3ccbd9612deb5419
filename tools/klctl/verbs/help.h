#pragma once
// help.h: the verb that shows a description.

#include <string>

#include "services/describe/description.h"
#include "verbs/verb.h"

namespace klctl {

// A page for a terminal: the objects with their fields and commands, settings and topics; with the name of an object
// only that.  `service` is what paths begin with.
std::string helpText(const describe::Description& description, const std::string& service,
                     const std::string& objectName);

// Shows what the installed description of a service says.  No loader is needed, unless the service is a number.
void helpService(const CommandLine& line, const Channels& channels);

}  // namespace klctl

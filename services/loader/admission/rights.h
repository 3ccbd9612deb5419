#pragma once
// rights.h: what a sender may do, in the form in which the router appends it.

#include <string>

#include "routing/access.h"

namespace loader {

// The records that replace SYS_USER and SYS_POLICY in the requests of a sender.
RightsRecords rightsRecords(const std::string& user, const Rights& rights);

// The rights of root and of the loader's own user.
SenderRights trustedRights(const std::string& user);
// The same rights everywhere.
SenderRights equalRights(const std::string& user, const Rights& rights);

}  // namespace loader

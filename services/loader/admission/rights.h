#pragma once
// rights.h: what a sender may do, in the form in which the router appends it.

#include <string>

#include "config/decision.h"
#include "routing/access.h"

namespace loader {

// The records that replace SYS_USER and SYS_POLICY in the requests of a sender.
RightsRecords rightsRecords(const std::string& user, const Rights& rights);

// The rights of a sender at each destination; its grants are in the order of the access lists.
SenderRights senderRights(const Configuration& configuration, const Sender& sender);

// The rules that requests to a service are measured by.
DestinationRules rulesFor(const Configuration& configuration, unsigned int id);

// The rights of root and of the loader's own user.
SenderRights trustedRights(const std::string& user);
// The same rights everywhere.
SenderRights equalRights(const std::string& user, const Rights& rights);

}  // namespace loader

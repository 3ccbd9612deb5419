#pragma once
// rights.h: what a sender may do, in the form in which the router appends it.

#include <string>

#include "config/configuration.h"
#include "routing/rewrite.h"

namespace loader {

// The records that replace SYS_USER and SYS_POLICY in the commands of a sender; none for one with all rights.
RightsRecords rightsRecords(const std::string& user, const Rights& rights);

}  // namespace loader

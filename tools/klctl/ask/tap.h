#pragma once
// tap.h: the job of the courier that asks the loader for a tap.

#include "ask/courier.h"

namespace klctl {

// Sends `request` as CMD_TAP.  Emits kComplete as soon as the tap is there, or kLost with the reason why there
// is none; then each object that the loader shows (services/common/tap.h) as kObject.
Job tapJob(const kl::message& request, int timeoutTicks);

}  // namespace klctl

#pragma once
// log_follow.h: the log as it grows.

#include "ask/courier.h"
#include "verbs/log.h"

namespace klctl {

// The courier's part: emits an event for each line that is in the log and for each new one, a kObject without a STD_ID
// when lines were left out, and kLost whenever the service is gone.
Job logJob(const kl::message& request, int timeoutTicks);

// Follows the log until the user interrupts.
void followLog(const CommandLine& line, const Channels& channels);

}  // namespace klctl

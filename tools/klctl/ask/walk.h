#pragma once
// walk.h: a service's whole table of objects, with a look at the clock.

#include <chrono>
#include <string>
#include <vector>

#include "ask/courier.h"
#include "kl/message.h"

namespace klctl {

// Reads the table that the request names, over a connection of its own, and shows on the terminal how far it is when
// that takes longer than a second.  `path` is what the user called the service; each reply may take `timeout`.
// Throws Failure: kRefused for an error reply and for a table that does not end, kTimeout, kNoLoader, kUsage for a
// request that no frame can carry.
std::vector<kl::message::flat_message> walk(const kl::message& request, const std::string& path,
                                            std::chrono::milliseconds timeout);

// The courier's part: emits an event for each object, and one for the end.
Job walkJob(const kl::message& request, int timeoutTicks);

}  // namespace klctl

#pragma once
// action.h: the verbs that order the loader to start or end a service.

#include "verbs/verb.h"

namespace klctl {

void startService(const CommandLine& line, const Channels& channels);
void stopService(const CommandLine& line, const Channels& channels);
void restartService(const CommandLine& line, const Channels& channels);

// Returns when the service has left.  Throws Failure(kStays) when it refuses.
void leaveService(const CommandLine& line, const Channels& channels);

}  // namespace klctl

#pragma once
// graph.h: the verbs about who talks to whom.

#include "verbs/verb.h"

namespace klctl {

void showGraph(const CommandLine& line, const Channels& channels);

// Of `services --subscriptions`.
void listSubscriptions(const CommandLine& line, const Channels& channels);

}  // namespace klctl

#pragma once
// metrics.h: the figures of the whole bus, for programs that watch many machines.

#include "verbs/verb.h"

namespace klctl {

// Prints the loader's table of services as OpenMetrics text, as the loader's own socket gives it.
void showMetrics(const CommandLine& line, const Channels& channels);

}  // namespace klctl

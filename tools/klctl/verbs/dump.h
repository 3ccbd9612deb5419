#pragma once
// dump.h: prints the messages in a file.  No loader is needed.

#include "verbs/verb.h"

namespace klctl {

void dumpFile(const CommandLine& line, const Channels& channels);

}  // namespace klctl

#pragma once
// store.h: looks into the files of a store.  No loader is needed.

#include "verbs/commands.h"

namespace klctl {

// Does what `klctl store` is asked for: the text, and what is wrong with the store, empty when nothing is.  Only
// compact changes files.  Throws Failure.
Dumped runStore(const CommandLine& line);

}  // namespace klctl

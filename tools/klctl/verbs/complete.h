#pragma once
// complete.h: what may stand at the cursor of a shell.

#include "verbs/verb.h"

namespace klctl {

// Prints, a line each, what the unfinished word may become: the word, a tab, what is said of it.  The names are those of
// the installed descriptions, and of the services that the loader knows if it says so at once.  A file may stand where
// the only line is ":files".  A name that means something to a shell is left out.
void completeWords(const CommandLine& line, const Channels& channels);

}  // namespace klctl

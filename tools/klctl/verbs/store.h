#pragma once
// store.h: the verbs that look into the files of a store.  No loader is needed.  Each prints what could be read and then
// fails with what is wrong with the files.

#include "verbs/verb.h"

namespace klctl {

void listStore(const CommandLine& line, const Channels& channels);
void showEntry(const CommandLine& line, const Channels& channels);
void checkStore(const CommandLine& line, const Channels& channels);
void compactStore(const CommandLine& line, const Channels& channels);  // the only one that changes files

}  // namespace klctl

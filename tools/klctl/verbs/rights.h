#pragma once
// rights.h: what a user may do, and which line of the loader's configuration says so.

#include "verbs/verb.h"

namespace klctl {

void explainRights(const CommandLine& line, const Channels& channels);
void listRights(const CommandLine& line, const Channels& channels);

}  // namespace klctl

#pragma once
// crashes.h: the crashes of services that the loader has kept.

#include "verbs/verb.h"

namespace klctl {

void listCrashes(const CommandLine& line, const Channels& channels);
void showCrash(const CommandLine& line, const Channels& channels);

}  // namespace klctl

#pragma once
// reload.h: the verb that makes the loader read its configuration anew.

#include "verbs/verb.h"

namespace klctl {

void reloadConfiguration(const CommandLine& line, const Channels& channels);

}  // namespace klctl

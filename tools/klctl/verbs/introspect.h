#pragma once
// introspect.h: the verb that asks a service what it says of itself.

#include "verbs/verb.h"

namespace klctl {

// Shows the installed description of a service with what its process names beyond it, and remarks where both differ; the
// installed one alone where the process says nothing.  Throws Failure when there is neither.
void introspectService(const CommandLine& line, const Channels& channels);

}  // namespace klctl

#pragma once
// problems.h: whether an object keeps to its description.

#include "kl/described.h"
#include "kl/message.h"
#include "kl/table.h"

namespace kl {

// Adds what is wrong: required fields that the object lacks, and what the request gives beyond its bounds.  Fields that
// the request does not have were there before, and are not looked at.
void findProblems(const ObjectRules& rules, const message& object, const message& request,
                  Problems& problems);

}  // namespace kl

#pragma once
// description.h: the requests for what the process says of itself.

#include "kl/looper.h"

namespace kl {

// Is this a request for HANDLER_DESCRIPTION, at which no handler is, and is there a description?
bool asksForDescription(const message& m);

// The body of its reply.
message describeProcess(const message& request, const policies& rights);

}  // namespace kl

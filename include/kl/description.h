#pragma once
// kl/description.h: what a process says of itself.
//
// A service may carry the description of its messages (docs/descriptions.md), which klgen puts into its header:
//
//     #include "leases.kl.h"
//
//     int main() {
//       Leases leases;                              // a kl::Looper
//       kl::setDescription(leases::kDescription);   // this line, and no other
//       leases.run();
//     }
//
// Whoever may read at the service can then ask for it: CMD_GET to [service, HANDLER_DESCRIPTION] gives the text as
// STD_DESCR.  klctl introspect does.  A description proves nothing about its process: it names things, and decides
// about no right and no secret.

#include "kl/export.h"

namespace kl {

// The handler that gives the description.  A process that adds a handler of its own under this number has that, and
// gives no description.
inline constexpr unsigned int HANDLER_DESCRIPTION = 0xff0010;

// A longer text is not given.
inline constexpr unsigned int kMostDescriptionBytes = 4096;

// Gives the text from now on; null gives none, as at first.  False, and none is given, when the text is too long.
//
// Errors:    none; a process without one answers as if the handler did not exist.
// Ownership: the text is borrowed until another one is given; it is usually a constant.
// Threads:   the thread of the Looper.
// Cost:      none but the text.
KL_API bool setDescription(const char* text);

}  // namespace kl

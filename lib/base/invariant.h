#pragma once
// invariant.h: promises that the container's own code must keep, checked in debug builds.  Bytes from
// outside never reach one.

#include <cassert>

#ifdef NDEBUG
// Not evaluated, but seen: what only an invariant uses is no unused variable.
#define KL_INVARIANT(holds) static_cast<void>(sizeof(!(holds)))
#else
#define KL_INVARIANT(holds) assert(holds)
#endif

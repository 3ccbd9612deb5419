#pragma once
// invariant.h: promises that the container's own code must keep, checked in debug builds.  Bytes from
// outside never reach one.

#include <cassert>

#define KL_INVARIANT(holds) assert(holds)

#pragma once
// seconds.h: a clock for what takes seconds or longer.

#include <time.h>

namespace common {

// Seconds of the monotonic clock, some milliseconds behind at most.  Read from a page that the kernel shares: no system
// call.
inline unsigned int secondsNow() {
  timespec now{};
  ::clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
  return static_cast<unsigned int>(now.tv_sec);
}

}  // namespace common

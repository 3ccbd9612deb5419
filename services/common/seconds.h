#pragma once
// seconds.h: a clock for what takes long enough to be waited for.

#include <time.h>

namespace common {

// Seconds of the monotonic clock, some milliseconds behind at most.  Read from a page that the kernel shares: no system
// call.
inline unsigned int secondsNow() {
  timespec now{};
  ::clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
  return static_cast<unsigned int>(now.tv_sec);
}

// A moment of that clock.
struct Moment {
  // Seconds alone do where nothing finer is told.
  constexpr Moment(unsigned int secondsPassed = 0,
                   unsigned int millisecondsInIt = 0)  // NOLINT: a number of seconds
      : seconds(secondsPassed), milliseconds(millisecondsInIt) {}

  // Needs: `earlier` is no later than this one.
  unsigned long long millisecondsSince(Moment earlier) const {
    return (seconds - earlier.seconds) * 1000ULL + milliseconds - earlier.milliseconds;
  }

  unsigned int seconds;
  unsigned int milliseconds;  // below 1,000
};

inline Moment momentNow() {
  constexpr long kNanosecondsPerMillisecond = 1'000'000;
  timespec now{};
  ::clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
  return {static_cast<unsigned int>(now.tv_sec),
          static_cast<unsigned int>(now.tv_nsec / kNanosecondsPerMillisecond)};
}

}  // namespace common

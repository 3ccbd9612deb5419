#pragma once
// restart_delay.h: how long a service waits until it is started again.

#include <algorithm>

namespace loader {

// 0.1 s after the first crash, twice as long after each further one, up to 10 s.  A service that lived for 10 s has
// proved itself and begins anew.
class RestartDelay {
 public:
  static constexpr unsigned int kFirstTicks = 10;
  static constexpr unsigned int kLongestTicks = 1000;
  static constexpr unsigned int kProvedTicks = 1000;

  // The delay in ticks after a life of so many ticks.
  unsigned int next(unsigned int livedTicks) {
    if (livedTicks >= kProvedTicks) reset();
    const unsigned int delay = next_;
    next_ = std::min(2 * next_, kLongestTicks);
    return delay;
  }

  void reset() { next_ = kFirstTicks; }

 private:
  unsigned int next_ = kFirstTicks;
};

}  // namespace loader

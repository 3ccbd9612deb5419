#pragma once
// rate_limit.h: how many lines a client may write.

#include <algorithm>

#include "keeping/line.h"

namespace logd {

// A bucket that fills with the right to so many lines a second, up to a burst, and starts full.  Once it is empty
// it gives nothing until a tenth of a second's lines have gathered, so that who floods hears of it in runs and not
// with every line.  Time is what the caller says it is.
//
//     RateLimit limit(10, 100);       // 100 at once, then 10 a second
//     if (limit.allows(now)) ...
//
// Errors:    none; a clock that goes back earns nothing.
// Ownership: a value.
// Threads:   as any value.
// Cost:      constant.
class RateLimit {
 public:
  // 0 lines a second is no limit.
  RateLimit(unsigned int linesPerSecond, unsigned int burst)
      : perLine_(linesPerSecond == 0 ? 0 : kSecond / linesPerSecond),
        most_(perLine_ * burst),
        toOpen_(perLine_ * std::clamp(linesPerSecond / 10, 1u, burst)),
        credit_(most_) {}

  // One line, now.
  bool allows(Nanoseconds now) {
    if (!wouldAllow(now)) return false;
    credit_ -= perLine_;
    return true;
  }

  // The same without taking it.
  bool wouldAllow(Nanoseconds now) {
    if (now > last_) credit_ = std::min(most_, credit_ + std::min(most_, now - last_));
    last_ = now;
    isEmpty_ = isEmpty_ ? credit_ < toOpen_ : credit_ < perLine_;
    return !isEmpty_;
  }

 private:
  static constexpr Nanoseconds kSecond = 1'000'000'000;

  Nanoseconds perLine_;
  Nanoseconds most_;
  Nanoseconds toOpen_;  // an empty one gives again from here on
  Nanoseconds credit_;
  Nanoseconds last_ = 0;
  bool isEmpty_ = false;
};

}  // namespace logd

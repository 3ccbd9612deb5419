#pragma once
// rate_limit.h: how much may come in a time.

#include <algorithm>

#include "keeping/line.h"

namespace logd {

// A token bucket: it fills with so many tokens a second, up to a burst, and starts full.  Once empty it reopens with
// a tenth of a second's tokens, so that drops are reported in groups.  The caller passes the time.
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
  // 0 a second is no limit.
  RateLimit(unsigned int perSecond, unsigned int burst)
      : perToken_(perSecond == 0 ? 0 : kSecond / perSecond),
        most_(perToken_ * burst),
        toOpen_(perToken_ * std::clamp(perSecond / 10, 1u, burst)),
        credit_(most_) {}

  // Takes the tokens; false, and nothing is taken, where there are too few.  More than a burst count as a burst.
  bool allows(Nanoseconds now, unsigned int tokens = 1) {
    if (!wouldAllow(now, tokens)) return false;
    credit_ -= costOf(tokens);
    return true;
  }

  // The same without taking them.
  bool wouldAllow(Nanoseconds now, unsigned int tokens = 1) {
    fill(now);
    const Nanoseconds needed = isEmpty_ ? std::max(toOpen_, costOf(tokens)) : costOf(tokens);
    isEmpty_ = credit_ < needed;
    return !isEmpty_;
  }

  // Nothing was taken that has not come back.
  bool isFull(Nanoseconds now) {
    fill(now);
    return credit_ == most_;
  }

 private:
  static constexpr Nanoseconds kSecond = 1'000'000'000;

  Nanoseconds costOf(unsigned int tokens) const { return std::min(most_, perToken_ * tokens); }
  void fill(Nanoseconds now) {
    if (now > last_) credit_ = std::min(most_, credit_ + std::min(most_, now - last_));
    last_ = now;
  }

  Nanoseconds perToken_;
  Nanoseconds most_;
  Nanoseconds toOpen_;  // an empty one reopens from here on
  Nanoseconds credit_;
  Nanoseconds last_ = 0;
  bool isEmpty_ = false;
};

}  // namespace logd

#pragma once
// kl/ticks.h: spans of time of the standard library where the loop and the handlers count in ticks.

#include <chrono>
#include <concepts>
#include <limits>

namespace kl {

// A number of ticks, 100 a second, as the operations take it: a delay is an unsigned int and a time-out an int.
// kl::inTicks makes it of a duration:
//
//     using namespace std::chrono_literals;
//     loop.addTimer(this, kl::bind<Netif, &Netif::onTick>(), kl::inTicks(3s));
//     const kl::message reply = handler.exchangeCmd(m, kl::CMD_GET, kl::inTicks(1500ms));    // 150 ticks
//     fetch.setTimeout(kl::inTicks(1min));
//
// Errors:    none.  A span that is no whole number of ticks becomes the next longer one, one below 0 becomes 0.  One
//            that is too long becomes the longest: 4294607296 ticks (497 days) as a delay, 2147483647 (248 days) as a
//            time-out.  No limit, which is -1 as a time-out, is no span and stays a plain -1.
// Ownership: a number.
// Threads:   any.
// Cost:      none for a constant; else a comparison and a division.
class TickCount {
 public:
  constexpr operator unsigned int() const { return count_; }
  constexpr operator int() const {
    constexpr unsigned int longest = std::numeric_limits<int>::max();
    return static_cast<int>(count_ < longest ? count_ : longest);
  }

  friend constexpr bool operator==(TickCount, TickCount) = default;
  friend constexpr bool operator==(TickCount a, std::integral auto b) {
    return a.count_ == static_cast<unsigned long long>(b);
  }

 private:
  template <class Rep, class Period>
  friend constexpr TickCount inTicks(std::chrono::duration<Rep, Period> span);

  static constexpr unsigned int kLongest = 4294607296u;

  explicit constexpr TickCount(unsigned int count) : count_(count) {}

  unsigned int count_;
};

template <class Rep, class Period>
constexpr TickCount inTicks(std::chrono::duration<Rep, Period> span) {
  using Span = std::chrono::duration<Rep, Period>;
  using Tick = std::chrono::duration<long long, std::centi>;
  if (!(span > Span::zero())) return TickCount(0);  // nor is what is no number
  if (std::chrono::duration<double, Period>(span) >=
      std::chrono::duration<double, std::centi>(TickCount::kLongest))
    return TickCount(TickCount::kLongest);
  return TickCount(static_cast<unsigned int>(std::chrono::ceil<Tick>(span).count()));
}

}  // namespace kl

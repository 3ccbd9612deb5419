#pragma once
// kl/wall_timer.h: a timer at a time of day.

#include <sys/timerfd.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <limits>
#include <utility>

#include "kl/timer.h"

namespace kl {

// A timer that calls a lambda, a function or any other callable once, when the clock of the system shows a time:
//
//     kl::WallTimer alarm_{loop};                                             // a member
//     const auto midnight = std::chrono::ceil<std::chrono::days>(std::chrono::system_clock::now());
//     if (!alarm_.start(midnight, [this] { newDay(); })) complain();
//
// The clock decides, not the time that passes.  Set forward, beyond the time or onto it, it makes the call; set back, it
// delays it; time in which the machine slept counts.  A time in the past is now.  For a span, as a time-out is one, take
// kl::Timer: it does not know that clock.
//
// Errors:    start() is false where the kernel has no descriptor left: then nothing is started.
// Ownership: owns what it calls, and what that has captured, and a descriptor; borrows the loop, which outlives it.
//            Its destruction stops it.  A resource, so it is not copied.
// Threads:   belongs to the thread of the loop.  Its callback may stop, start or destroy it, and runs with those of the
//            descriptors, after the timers of its pass.
// Cost:      one descriptor while it runs, three system calls to start it and three to end it.
class WallTimer {
 public:
  using Clock = std::chrono::system_clock;

  explicit WallTimer(ThinRunner& loop) : watch_(loop) {}
  WallTimer(const WallTimer&) = delete;
  WallTimer& operator=(const WallTimer&) = delete;
  ~WallTimer() { stop(); }

  // Ends what was started before.
  bool start(Clock::time_point when, Callable<void()> function) {
    stop();
    const int timer = ::timerfd_create(CLOCK_REALTIME, TFD_CLOEXEC | TFD_NONBLOCK);
    if (timer < 0) return false;
    timer_ = timer;
    const itimerspec expiry{{}, momentOf(when)};
    (void)::timerfd_settime(timer_, TFD_TIMER_ABSTIME, &expiry, nullptr);
    watch_.start(timer_, POLLIN, [this](int, unsigned int) { fire(); });
    function_ = std::move(function);
    return true;
  }

  void stop() {
    watch_.stop();
    if (timer_ >= 0) ::close(std::exchange(timer_, -1));
    const Callable<void()> old = std::move(function_);
  }

  // Is there a call to come?
  bool isRunning() const { return timer_ >= 0; }

 private:
  // A timer of 0 would be none.
  static timespec momentOf(Clock::time_point when) {
    using namespace std::chrono;
    const auto since =
        std::max<nanoseconds>(duration_cast<nanoseconds>(when.time_since_epoch()), nanoseconds(1));
    const auto whole = floor<seconds>(since);
    constexpr long long kLast = std::numeric_limits<time_t>::max();
    timespec moment{};
    moment.tv_sec = static_cast<time_t>(std::min<long long>(whole.count(), kLast));
    moment.tv_nsec = static_cast<long>((since - whole).count());
    return moment;
  }

  // The function lies on the stack: it may start this anew or destroy it.
  void fire() {
    std::uint64_t count;
    if (::read(timer_, &count, sizeof count) != sizeof count) return;
    Callable<void()> function = std::move(function_);
    stop();
    function();
  }

  Watch watch_;
  int timer_ = -1;  // none
  Callable<void()> function_;
};

}  // namespace kl

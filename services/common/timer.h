#pragma once
// timer.h: the owner of one timer of the loop.

#include <utility>

#include "kl/runner.h"

namespace common {

template <auto kFire>
class Timer;

// Calls kFire of its owner once, so many ticks after the start.  It does not run any more while it calls, so the owner
// may start it again from there.
//
//     common::Timer<&Listener::resume> pause_{runner_, *this};
//     pause_.start(kPauseTicks);
//
// Errors:    memory that cannot be had ends the process.
// Ownership: borrows the loop and its owner; the timer ends with it.
// Threads:   belongs to the loop's thread.
// Cost:      that of the loop's timers, and no allocation.
template <class Owner, void (Owner::*kFire)()>
class Timer<kFire> {
 public:
  Timer(kl::ThinRunner& runner, Owner& owner) : runner_(runner), owner_(owner) {}
  Timer(const Timer&) = delete;
  Timer& operator=(const Timer&) = delete;
  ~Timer() { cancel(); }

  bool isRunning() const { return static_cast<bool>(handle_); }

  // Begins anew when it runs.
  void start(unsigned int ticks) {
    cancel();
    handle_ = runner_.addTimer(this, kl::bind<Timer, &Timer::fire>(), ticks);
  }
  void cancel() {
    if (isRunning()) (void)runner_.removeTimer(std::exchange(handle_, kl::TimerPtr()));
  }

 private:
  void fire() {
    handle_ = {};
    (owner_.*kFire)();  // the owner may be gone afterwards
  }

  kl::ThinRunner& runner_;
  Owner& owner_;
  kl::TimerPtr handle_;
};

}  // namespace common

#pragma once
// kl/timer.h: timers and watched descriptors that call whatever can be called, and end with the object.

#include <algorithm>
#include <chrono>
#include <utility>

#include "kl/callable.h"
#include "kl/runner.h"
#include "kl/ticks.h"

namespace kl {
namespace detail {

// The function that a timer or a watch calls.  Meanwhile it lies on the stack, so that the callback may give its owner
// another one or destroy it: the owner's part is told by a flag.
template <class Signature>
class Call;

template <class... Args>
class Call<void(Args...)> {
 public:
  using Function = Callable<void(Args...)>;

  Call() = default;
  Call(const Call&) = delete;
  Call& operator=(const Call&) = delete;
  ~Call() { replace(nullptr); }

  // Returns the one before, whose end may be the end of the owner.
  Function replace(Function function) {
    if (isReplaced_ != nullptr) *isReplaced_ = true;
    isReplaced_ = nullptr;
    return std::exchange(function_, std::move(function));
  }

  // Calls it unless it is being called, and keeps it for the next time if there is one.
  void call(bool isKept, Args... args) {
    if (!function_) return;
    Function function = std::move(function_);
    bool isReplaced = false;
    isReplaced_ = &isReplaced;
    function(args...);
    if (isReplaced) return;
    isReplaced_ = nullptr;
    if (isKept) function_ = std::move(function);
  }

 private:
  Function function_;
  bool* isReplaced_ = nullptr;  // of the call that runs
};

}  // namespace detail

// A timer that calls a lambda, a function or any other callable, once or again and again:
//
//     using namespace std::chrono_literals;
//     kl::Timer timeout_{loop};                           // a member
//     timeout_.start(3s, [this] { giveUp(); });           // once, in 3 seconds
//     kl::Timer poll_{loop};
//     poll_.repeat(500ms, [this, port] { look(port); });  // from now on every half second
//     poll_.stop();
//
// A repeated timer does not drift: its calls are due at the multiples of its period.  Those that passed while the loop
// was busy are left out, so that two calls never follow each other at once.
//
// Errors:    as ThinRunner.
// Ownership: owns what it calls, and what that has captured; borrows the loop, which outlives it.  Its destruction
//            stops it.  A resource, so it is not copied.
// Threads:   belongs to the thread of the loop.  Its callback may stop, start or destroy it.
// Cost:      one timer of the loop, and what Callable says: no allocation for what has captured up to two words.  A
//            repeated one reads the clock twice a call.
class Timer {
 public:
  explicit Timer(ThinRunner& loop) : loop_(loop) {}
  Timer(const Timer&) = delete;
  Timer& operator=(const Timer&) = delete;
  ~Timer() { stop(); }

  // Each ends what was started before.

  // Calls it once, after so many ticks or a duration.
  void start(unsigned int delay, Callable<void()> function) { begin(delay, 0, std::move(function)); }
  template <class Rep, class Period>
  void start(std::chrono::duration<Rep, Period> delay, Callable<void()> function) {
    start(static_cast<unsigned int>(inTicks(delay)), std::move(function));
  }

  // Calls it again and again, first after one period.  A period of 0 is one tick.
  void repeat(unsigned int period, Callable<void()> function) {
    begin(std::max(period, 1u), std::max(period, 1u), std::move(function));
  }
  template <class Rep, class Period>
  void repeat(std::chrono::duration<Rep, Period> period, Callable<void()> function) {
    repeat(static_cast<unsigned int>(inTicks(period)), std::move(function));
  }

  void stop() {
    loop_.removeTimer(timer_);
    timer_ = TimerPtr();
    call_.replace(nullptr);
  }

  // Is there a call to come?
  bool isRunning() const { return static_cast<bool>(timer_); }

 private:
  void begin(unsigned int delay, unsigned int period, Callable<void()> function) {
    const Callable<void()> old = call_.replace(std::move(function));
    loop_.removeTimer(timer_);
    period_ = period;
    if (period_ != 0) due_ = getJiffies() + delay;
    timer_ = loop_.addTimer(this, fire, delay);
  }

  // The next call stands before this one runs, which may stop it.
  static void fire(void* data) {
    auto* self = static_cast<Timer*>(data);
    const bool again = self->period_ != 0;
    self->timer_ = again ? self->loop_.addTimer(self, fire, self->untilNext()) : TimerPtr();
    self->call_.call(again);
  }

  unsigned int untilNext() {
    const unsigned int now = getJiffies();
    due_ += ((now - due_) / period_ + 1) * period_;  // it fires at due_ or later
    return due_ - now;
  }

  ThinRunner& loop_;
  TimerPtr timer_;
  unsigned int period_ = 0;  // 0: once
  unsigned int due_ = 0;     // the tick of the next call of a repeated one
  detail::Call<void()> call_;
};

// A descriptor that the loop watches for a callable:
//
//     kl::Watch input_{loop};                                                           // a member
//     input_.start(fd, POLLIN, [this](int fd, unsigned int revents) { take(fd); });
//     input_.change(POLLIN | POLLOUT);
//
// Errors:    as ThinRunner.
// Ownership: owns what it calls, and what that has captured; borrows the loop, which outlives it.  Its destruction ends
//            it; the descriptor is never closed, and is closed after that.  A resource, so it is not copied.
// Threads:   belongs to the thread of the loop.  Its callback may stop, start or destroy it.
// Cost:      one watched descriptor of the loop, and what Callable says.
class Watch {
 public:
  using Function = Callable<void(int fd, unsigned int revents)>;

  explicit Watch(ThinRunner& loop) : loop_(loop) {}
  Watch(const Watch&) = delete;
  Watch& operator=(const Watch&) = delete;
  ~Watch() { stop(); }

  // Calls it whenever one of `events`, POLLERR or POLLHUP holds.  Ends what was started before.  Needs: nothing else
  // has the loop watch fd.
  void start(int fd, unsigned int events, Function function) {
    const Function old = call_.replace(std::move(function));
    if (fd_ >= 0) loop_.removeSocket(fd_);
    loop_.addSocket(fd, this, fire, events);
    fd_ = fd;
  }

  // Replaces the events; false if nothing is watched.
  bool change(unsigned int events) { return fd_ >= 0 && loop_.changeSocket(fd_, events); }

  void stop() {
    if (fd_ >= 0) loop_.removeSocket(std::exchange(fd_, -1));
    call_.replace(nullptr);
  }

  bool isRunning() const { return fd_ >= 0; }

 private:
  static void fire(void* data, int fd, unsigned int revents) {
    static_cast<Watch*>(data)->call_.call(true, fd, revents);
  }

  ThinRunner& loop_;
  int fd_ = -1;  // none
  detail::Call<void(int, unsigned int)> call_;
};

}  // namespace kl

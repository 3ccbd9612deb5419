// libev.  Its clock is read once in a pass, and a timer that is added counts from there.

#include <ev.h>

#include <deque>
#include <memory>

#include "bench/loop/peer.h"

namespace bench {
namespace {

struct FreeLoop {
  void operator()(struct ev_loop* loop) const { ev_loop_destroy(loop); }
};
using Loop = std::unique_ptr<struct ev_loop, FreeLoop>;
Loop makeLoop() { return Loop(ev_loop_new(EVFLAG_AUTO)); }

// Half a tick early: seconds in floating point do not meet the tick itself.
double secondsOf(unsigned int delay) { return (delay - 0.5) / 100; }

class Timers {
 public:
  explicit Timers(unsigned long long* fired) : fired_(fired), timers_(kTimers) {
    const StandingClock clock;
    loop_ = makeLoop();
    for (ev_timer& timer : timers_) {
      ev_init(&timer, onTimer);
      timer.data = this;
      start(timer);
    }
  }
  ~Timers() {
    for (ev_timer& timer : timers_) ev_timer_stop(loop_.get(), &timer);
    if (ev_is_active(&socket_)) ev_io_stop(loop_.get(), &socket_);
  }
  Timers(const Timers&) = delete;
  Timers& operator=(const Timers&) = delete;

  void watch(int fd) {
    ev_io_init(
        &socket_, [](struct ev_loop*, ev_io*, int) {}, fd, EV_READ);
    ev_io_start(loop_.get(), &socket_);
  }
  void exchange() {
    ev_timer& timer = timers_[at_++ % kTimers];
    ev_timer_stop(loop_.get(), &timer);
    start(timer);
  }
  void tick() {
    ++loopTicks;
    ev_run(loop_.get(), EVRUN_NOWAIT);
  }

 private:
  static void onTimer(struct ev_loop* /*loop*/, ev_timer* timer, int /*events*/) {
    auto* timers = static_cast<Timers*>(timer->data);
    ++*timers->fired_;
    timers->start(*timer);
  }
  void start(ev_timer& timer) {
    ev_timer_set(&timer, secondsOf(delays_.next()), 0.);
    ev_timer_start(loop_.get(), &timer);
  }

  unsigned long long* fired_;
  Delays delays_;
  std::vector<ev_timer> timers_;
  ev_io socket_{};
  std::size_t at_ = 0;
  Loop loop_;
};

class Sockets {
 public:
  Sockets(const std::vector<int>& fds, unsigned long long* calls) : loop_(makeLoop()) {
    for (const int fd : fds) {
      watchers_.emplace_back();
      ev_io_init(&watchers_.back(), onReady, fd, EV_READ);
      watchers_.back().data = calls;
      ev_io_start(loop_.get(), &watchers_.back());
    }
  }
  void pass() { ev_run(loop_.get(), EVRUN_NOWAIT); }

 private:
  static void onReady(struct ev_loop* /*loop*/, ev_io* watcher, int /*events*/) {
    ++*static_cast<unsigned long long*>(watcher->data);
  }
  std::deque<ev_io> watchers_;
  Loop loop_;
};

unsigned long long nobodyCounts = 0;

class LibEv : public LoopPeer {
 public:
  std::string name() const override { return "libev"; }
  std::string version() const override {
    return std::to_string(ev_version_major()) + "." + std::to_string(ev_version_minor());
  }
  Batch exchange() const override {
    return repeated([timers = std::make_shared<Timers>(&nobodyCounts)] { timers->exchange(); });
  }
  Batch tick(int ready, unsigned long long* fired) const override {
    const auto timers = std::make_shared<Timers>(fired);
    timers->watch(ready);
    return [timers](unsigned times) {
      const StandingClock clock;
      for (unsigned i = 0; i < times; ++i) timers->tick();
    };
  }
  Batch pass(const std::vector<int>& fds, unsigned long long* calls) const override {
    return repeated([sockets = std::make_shared<Sockets>(fds, calls)] { sockets->pass(); });
  }
};

const LibEv libEv;
[[maybe_unused]] const bool added = addLoopPeer(libEv);

}  // namespace
}  // namespace bench

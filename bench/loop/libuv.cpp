// libuv.  Its clock is read once in a pass, and a timer that is added counts from there.

#include <uv.h>

#include <deque>
#include <memory>

#include "bench/loop/peer.h"

namespace bench {
namespace {

constexpr unsigned int kTickMs = 10;

// With everything that it watches; what is left is closed with it.
class Loop {
 public:
  Loop() { uv_loop_init(&loop_); }
  ~Loop() {
    uv_walk(
        &loop_, [](uv_handle_t* handle, void*) { uv_close(handle, nullptr); }, nullptr);
    uv_run(&loop_, UV_RUN_DEFAULT);
    uv_loop_close(&loop_);
  }
  Loop(const Loop&) = delete;
  Loop& operator=(const Loop&) = delete;

  uv_loop_t* get() { return &loop_; }
  void watch(uv_poll_t& watcher, int fd, uv_poll_cb callback) {
    uv_poll_init(&loop_, &watcher, fd);
    uv_poll_start(&watcher, UV_READABLE, callback);
  }
  void pass() { uv_run(&loop_, UV_RUN_NOWAIT); }

 private:
  uv_loop_t loop_{};
};

class Timers {
 public:
  explicit Timers(unsigned long long* fired) : fired_(fired), timers_(kTimers) {
    const StandingClock clock;
    uv_update_time(loop_.get());
    for (uv_timer_t& timer : timers_) {
      uv_timer_init(loop_.get(), &timer);
      timer.data = this;
      start(timer);
    }
  }
  void watch(int fd) {
    loop_.watch(socket_, fd, [](uv_poll_t*, int, int) {});
  }
  void exchange() {
    uv_timer_t& timer = timers_[at_++ % kTimers];
    uv_timer_stop(&timer);
    start(timer);
  }
  void tick() {
    ++loopTicks;
    loop_.pass();
  }

 private:
  static void onTimer(uv_timer_t* timer) {
    auto* timers = static_cast<Timers*>(timer->data);
    ++*timers->fired_;
    timers->start(*timer);
  }
  void start(uv_timer_t& timer) {
    uv_timer_start(&timer, onTimer, std::uint64_t{delays_.next()} * kTickMs, 0);
  }

  unsigned long long* fired_;
  Delays delays_;
  std::vector<uv_timer_t> timers_;
  uv_poll_t socket_{};
  std::size_t at_ = 0;
  Loop loop_;
};

class Sockets {
 public:
  Sockets(const std::vector<int>& fds, unsigned long long* calls) {
    for (const int fd : fds) {
      watchers_.emplace_back();
      loop_.watch(watchers_.back(), fd, onReady);
      watchers_.back().data = calls;
    }
  }
  void pass() { loop_.pass(); }

 private:
  static void onReady(uv_poll_t* watcher, int /*status*/, int /*events*/) {
    ++*static_cast<unsigned long long*>(watcher->data);
  }
  std::deque<uv_poll_t> watchers_;
  Loop loop_;
};

unsigned long long nobodyCounts = 0;

class LibUv : public LoopPeer {
 public:
  std::string name() const override { return "libuv"; }
  std::string version() const override { return uv_version_string(); }
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

const LibUv libUv;
[[maybe_unused]] const bool added = addLoopPeer(libUv);

}  // namespace
}  // namespace bench

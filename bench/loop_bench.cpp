// The event loop beside a hand-written limit: a bare binary heap with its keys inline, and bare poll.
//
// Reading the clock is a system call that costs more than a timer does.  The rules of the loop ask for it once for
// each timer added and once for each firing, so both sides read it the same number of times; where a case does not say
// "kernel's clock", it is a variable, and the figure is the heap's alone.

#include <benchmark/benchmark.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/times.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "bench/loop/peer.h"
#include "bench/support/paired.h"
#include "kl/runner.h"

namespace {

using bench::Delays;
using bench::kTimers;
using Ticks = unsigned int;

bool kernelClock = false;
Ticks scriptedTicks = 100000;

}  // namespace

// Stands before the C library's, also for libkl.so.
extern "C" clock_t times(struct tms* buffer) noexcept {
  return kernelClock ? static_cast<clock_t>(::syscall(SYS_times, buffer))
                     : static_cast<clock_t>(scriptedTicks);
}

namespace {

// A binary heap of (key, number of a timer); where each timer stands is kept in a table, for cancelling.
class BareHeap {
 public:
  explicit BareHeap(std::size_t timers) : positions_(timers) { heap_.reserve(timers); }

  void add(Ticks key, unsigned int timer) {
    heap_.push_back({key, timer});
    rise(heap_.size() - 1, {key, timer});
  }

  void cancel(unsigned int timer) {
    const std::size_t hole = positions_[timer];
    const Entry last = heap_.back();
    heap_.pop_back();
    if (hole == heap_.size()) return;
    if (hole > 0 && last.key < heap_[(hole - 1) / 2].key) rise(hole, last);
    else sink(hole, last);
  }

  bool isDue(Ticks now) const { return !heap_.empty() && heap_[0].key <= now; }

  unsigned int takeFirst() {
    const unsigned int timer = heap_[0].timer;
    const Entry last = heap_.back();
    heap_.pop_back();
    if (!heap_.empty()) sink(0, last);
    return timer;
  }

 private:
  struct Entry {
    Ticks key;
    unsigned int timer;
  };

  void put(std::size_t at, Entry entry) {
    heap_[at] = entry;
    positions_[entry.timer] = static_cast<unsigned int>(at);
  }

  void rise(std::size_t hole, Entry entry) {
    for (std::size_t parent = 0; hole > 0 && entry.key < heap_[parent = (hole - 1) / 2].key; hole = parent)
      put(hole, heap_[parent]);
    put(hole, entry);
  }

  void sink(std::size_t hole, Entry entry) {
    for (std::size_t child = 2 * hole + 1; child < heap_.size(); child = 2 * hole + 1) {
      if (child + 1 < heap_.size() && heap_[child + 1].key < heap_[child].key) ++child;
      if (entry.key <= heap_[child].key) break;
      put(hole, heap_[child]);
      hole = child;
    }
    put(hole, entry);
  }

  std::vector<Entry> heap_;
  std::vector<unsigned int> positions_;
};

// --- One of a thousand waiting timers is cancelled and a new one added.

class LoopExchange {
 public:
  LoopExchange() {
    for (std::size_t i = 0; i < kTimers; ++i) handles_.push_back(add());
  }
  void operator()() {
    kl::TimerPtr& handle = handles_[at_++ % kTimers];
    loop_->removeTimer(handle);
    handle = add();
  }

 private:
  kl::TimerPtr add() {
    return loop_->addTimer(
        nullptr, [](void*) {}, delays_.next());
  }
  std::shared_ptr<kl::ThinRunner> loop_ = std::make_shared<kl::ThinRunner>();
  Delays delays_;
  std::vector<kl::TimerPtr> handles_;
  std::size_t at_ = 0;
};

class HeapExchange {
 public:
  HeapExchange() : heap_(kTimers) {
    for (unsigned int i = 0; i < kTimers; ++i) add(i);
  }
  void operator()() {
    const auto timer = static_cast<unsigned int>(at_++ % kTimers);
    heap_.cancel(timer);
    add(timer);
  }

 private:
  void add(unsigned int timer) { heap_.add(static_cast<Ticks>(::times(nullptr)) + delays_.next(), timer); }
  BareHeap heap_;
  Delays delays_;
  std::size_t at_ = 0;
};

// --- A tick passes and those of a thousand timers that are due fire; each starts again.  Two on average.

class LoopTick {
 public:
  LoopTick() : state_(std::make_shared<State>()) {
    for (std::size_t i = 0; i < kTimers; ++i) start(state_.get());
  }
  void operator()() {
    scriptedTicks = ++now_;
    state_->loop.runTimers();
  }

 private:
  struct State {
    kl::ThinRunner loop;
    Delays delays;
  };
  static void start(void* data) {
    auto* state = static_cast<State*>(data);
    state->loop.addTimer(data, start, state->delays.next());
  }
  std::shared_ptr<State> state_;
  Ticks now_ = scriptedTicks;
};

class HeapTick {
 public:
  HeapTick() : heap_(kTimers) {
    for (unsigned int i = 0; i < kTimers; ++i) start(i);
  }
  void operator()() {
    scriptedTicks = ++now_;
    const auto now = static_cast<Ticks>(::times(nullptr));
    while (heap_.isDue(now)) start(heap_.takeFirst());
  }

 private:
  void start(unsigned int timer) { heap_.add(static_cast<Ticks>(::times(nullptr)) + delays_.next(), timer); }
  BareHeap heap_;
  Delays delays_;
  Ticks now_ = scriptedTicks;
};

// --- A whole pass: a tick passes, timers fire and start again, and a socket is ready.

class LoopTickAndPoll {
 public:
  LoopTickAndPoll(int ready, unsigned long long* fired) : state_(std::make_shared<State>()) {
    state_->fired = fired;
    state_->loop.addSocket(
        ready, nullptr, [](void*, int, unsigned int) {}, POLLIN);
    for (std::size_t i = 0; i < kTimers; ++i) start(state_.get());
  }
  void operator()() {
    scriptedTicks = ++now_;
    state_->loop.runSocks(now_);
  }

 private:
  struct State {
    kl::ThinRunner loop;
    Delays delays;
    unsigned long long* fired = nullptr;
  };
  static void onTimer(void* data) {
    ++*static_cast<State*>(data)->fired;
    start(data);
  }
  static void start(void* data) {
    auto* state = static_cast<State*>(data);
    state->loop.addTimer(data, onTimer, state->delays.next());
  }
  std::shared_ptr<State> state_;
  Ticks now_ = scriptedTicks;
};

class HeapTickAndPoll {
 public:
  HeapTickAndPoll(int ready, unsigned long long* fired) : heap_(kTimers), ready_(ready), fired_(fired) {
    for (unsigned int i = 0; i < kTimers; ++i) start(i);
  }
  void operator()() {
    scriptedTicks = ++now_;
    const auto now = static_cast<Ticks>(::times(nullptr));
    while (heap_.isDue(now)) {
      ++*fired_;
      start(heap_.takeFirst());
    }
    pollfd ready{ready_, POLLIN, 0};
    benchmark::DoNotOptimize(::poll(&ready, 1, -1));
  }

 private:
  void start(unsigned int timer) { heap_.add(static_cast<Ticks>(::times(nullptr)) + delays_.next(), timer); }
  BareHeap heap_;
  Delays delays_;
  int ready_;
  unsigned long long* fired_;
  Ticks now_ = scriptedTicks;
};

// --- A pass over watched descriptors, of which some are ready.

std::vector<int> openDescriptors(std::size_t count, std::size_t ready) {
  std::vector<int> fds;
  for (std::size_t i = 0; i < count; ++i) fds.push_back(::eventfd(i < ready ? 1 : 0, EFD_CLOEXEC));
  if (fds.back() >= 0) return fds;
  std::perror("loop_bench: eventfd");
  std::exit(1);
}

void countCall(void* data, int, unsigned int) { ++*static_cast<unsigned long long*>(data); }

class LoopPass {
 public:
  explicit LoopPass(const std::vector<int>& fds) : state_(std::make_shared<State>()) {
    for (const int fd : fds) state_->loop.addSocket(fd, &state_->calls, countCall, POLLIN);
  }
  void operator()() { state_->loop.runSocks(0); }

 private:
  struct State {
    kl::ThinRunner loop;
    unsigned long long calls = 0;
  };
  std::shared_ptr<State> state_;
};

class BarePass {
 public:
  explicit BarePass(const std::vector<int>& fds) {
    for (const int fd : fds) polls_.push_back({fd, POLLIN, 0});
  }
  void operator()() {
    int ready = ::poll(polls_.data(), polls_.size(), -1);
    for (std::size_t i = polls_.size(); ready > 0 && i-- > 0;) {
      if (polls_[i].revents == 0) continue;
      callback_(&calls_, polls_[i].fd, static_cast<unsigned short>(polls_[i].revents));
      --ready;
    }
    benchmark::DoNotOptimize(calls_);
  }

 private:
  std::vector<pollfd> polls_;
  void (*volatile callback_)(void*, int, unsigned int) = countCall;
  unsigned long long calls_ = 0;
};

template <class Operation>
bench::Batch withKernelClock(Operation operation) {
  return [operation](unsigned count) mutable {
    kernelClock = true;
    for (unsigned i = 0; i < count; ++i) operation();
    kernelClock = false;
  };
}

void require(bool holds, const std::string& what) {
  if (holds) return;
  (void)std::fprintf(stderr, "loop_bench: %s differs\n", what.c_str());
  std::exit(1);
}

// The loops of a thousand sockets are several, and each has descriptors of its own.
void allowDescriptors() {
  rlimit limit{};
  if (::getrlimit(RLIMIT_NOFILE, &limit) != 0) return;
  limit.rlim_cur = std::min<rlim_t>(limit.rlim_max, 8192);
  ::setrlimit(RLIMIT_NOFILE, &limit);
}

void addPass(std::size_t count, std::size_t ready) {
  const std::vector<int> fds = openDescriptors(count, ready);
  const std::string name = "pass/" + std::to_string(count) + " sockets, " + std::to_string(ready) + " ready";
  bench::addPair(name, bench::repeated(LoopPass(fds)), bench::repeated(BarePass(fds)));
  for (const bench::LoopPeer* peer : bench::loopPeers()) {
    auto& calls = *new unsigned long long(0);  // as long as the case
    const bench::Batch pass = peer->pass(fds, &calls);
    pass(10);  // some learn how many events there may be
    calls = 0;
    pass(1);
    require(calls == ready, name + ": the number of calls by " + peer->name());
    bench::addPair(name + ": " + peer->name(), pass, bench::repeated(BarePass(fds)));
  }
}

// The number of timers that fire in a thousand ticks, which is a matter of the delays alone.
unsigned long long firedBy(const bench::Batch& ticks, const unsigned long long& fired) {
  const unsigned long long before = fired;
  ticks(1000);
  return fired - before;
}

void addExchange() {
  const std::string name = "timer/cancel and add";
  bench::addPair(name, bench::repeated(LoopExchange()), bench::repeated(HeapExchange()));
  for (const bench::LoopPeer* peer : bench::loopPeers())
    bench::addPair(name + ": " + peer->name(), peer->exchange(), bench::repeated(HeapExchange()));
}

void addTickAndPoll() {
  const std::string name = "pass/a tick: timers fire and start again, a socket is ready";
  const int ready = openDescriptors(1, 1).front();
  static unsigned long long fired = 0;
  const bench::Batch product = bench::repeated(LoopTickAndPoll(ready, &fired));
  const bench::Batch limit = bench::repeated(HeapTickAndPoll(ready, &fired));
  const unsigned long long expected = firedBy(limit, fired);
  require(firedBy(product, fired) == expected, name + ": the number of timers that fire");
  bench::addPair(name, product, limit);
  for (const bench::LoopPeer* peer : bench::loopPeers()) {
    const bench::Batch ticks = peer->tick(ready, &fired);
    require(firedBy(ticks, fired) == expected, name + ": the number of timers that fire by " + peer->name());
    bench::addPair(name + ": " + peer->name(), ticks, limit);
  }
}

}  // namespace

int main(int argc, char** argv) {
  allowDescriptors();
  addExchange();
  bench::addPair("timer/cancel and add, kernel's clock", withKernelClock(LoopExchange()),
                 withKernelClock(HeapExchange()));
  bench::addPair("timer/a tick: fire and add", bench::repeated(LoopTick()), bench::repeated(HeapTick()));
  addTickAndPoll();
  addPass(10, 1);
  addPass(100, 100);
  addPass(1000, 1);
  addPass(1000, 1000);
  for (const bench::LoopPeer* peer : bench::loopPeers()) bench::notePeer(peer->name(), peer->version());
  return bench::run(argc, argv);
}

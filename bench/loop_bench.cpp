// The event loop beside a hand-written limit: a bare binary heap with its keys inline, and bare poll.
//
// Reading the clock is a system call that costs more than a timer does.  The rules of the loop ask for it once for
// each timer added and once for each firing, so both sides read it the same number of times; where a case does not say
// "kernel's clock", it is a variable, and the figure is the heap's alone.

#include <benchmark/benchmark.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/syscall.h>
#include <sys/times.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "bench/support/paired.h"
#include "kl/runner.h"

namespace {

using Ticks = unsigned int;

constexpr std::size_t kTimers = 1000;
constexpr Ticks kLongestDelay = 1000;

bool kernelClock = false;
Ticks scriptedTicks = 100000;

}  // namespace

// Stands before the C library's, also for libkl.so.
extern "C" clock_t times(struct tms* buffer) noexcept {
  return kernelClock ? static_cast<clock_t>(::syscall(SYS_times, buffer))
                     : static_cast<clock_t>(scriptedTicks);
}

namespace {

// The same delays for both sides.
class Delays {
 public:
  Delays() : delays_(4096) {
    std::mt19937 random(4711);
    for (Ticks& delay : delays_) delay = 1 + static_cast<Ticks>(random() % kLongestDelay);
  }
  Ticks next() { return delays_[at_++ % delays_.size()]; }

 private:
  std::vector<Ticks> delays_;
  std::size_t at_ = 0;
};

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

void addPass(std::size_t count, std::size_t ready) {
  const std::vector<int> fds = openDescriptors(count, ready);
  bench::addPair("pass/" + std::to_string(count) + " sockets, " + std::to_string(ready) + " ready",
                 bench::repeated(LoopPass(fds)), bench::repeated(BarePass(fds)));
}

}  // namespace

int main(int argc, char** argv) {
  bench::addPair("timer/cancel and add", bench::repeated(LoopExchange()), bench::repeated(HeapExchange()));
  bench::addPair("timer/cancel and add, kernel's clock", withKernelClock(LoopExchange()),
                 withKernelClock(HeapExchange()));
  bench::addPair("timer/a tick: fire and add", bench::repeated(LoopTick()), bench::repeated(HeapTick()));
  addPass(10, 1);
  addPass(100, 100);
  return bench::run(argc, argv);
}

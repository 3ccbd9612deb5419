// The timers against a model that follows the rules of the heap word by word, over random steps.

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <memory>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "kl/runner.h"
#include "tests/lib/loop/probe.h"
#include "tests/support/calls/scripted_calls.h"

namespace kl {
namespace {

// No free list, no keys beside the pointers, no shortcuts.
class ModelTimers {
 public:
  struct Info {
    void* data;
    void (*callback)(void*);
    unsigned int expiry;
    unsigned int index;
    bool firing;
  };
  using Handle = Info*;

  Handle addTimer(void* data, void (*cb)(void*), unsigned int delay) {
    const unsigned int now = getJiffies();
    Info* t = make(data, cb, now + delay);
    if (inRunTimers) {
      pending.push_back(t);
    } else {
      heapTime = now;
      heap.push_back(t);
      place(t, heap.size() - 1, now);
    }
    return t;
  }

  Handle addDelayedTimer(void* data, void (*cb)(void*), unsigned int delay) {
    delayed.push_back(make(data, cb, delay));
    return delayed.back();
  }

  void addDelayedTimers() {
    const unsigned int now = getJiffies();
    for (Info* t : delayed) {
      if (t->callback == nullptr) continue;
      t->expiry += now;
      heapTime = now;
      heap.push_back(t);
      place(t, heap.size() - 1, now);
    }
    delayed.clear();
  }

  bool removeTimer(Handle t) {
    if (t == nullptr) return false;
    if (t->firing) return true;
    if (t->index != 0xFFFFFFFFu) {
      takeOut(t);
      t->firing = true;  // gone: a handle to it stays harmless
    } else {
      t->callback = nullptr;
    }
    return true;
  }

  bool removeTimer(void* data, void (*cb)(void*)) {
    for (const auto* list : {&heap, &pending, &delayed})
      for (Info* t : *list)
        if (t->data == data && t->callback == cb) return removeTimer(t);
    return false;
  }

  void runTimers() {
    const unsigned int now = getJiffies();
    inRunTimers = true;
    while (!heap.empty() && due(heap[0]->expiry, now)) {
      Info* t = heap[0];
      takeOut(t);
      t->firing = true;
      t->callback(t->data);
    }
    inRunTimers = false;
    for (Info* t : pending) {
      if (t->callback == nullptr) continue;
      heapTime = now;
      heap.push_back(t);
      place(t, heap.size() - 1, now);
    }
    pending.clear();
    addDelayedTimers();
  }

  int sleepTime(unsigned int now) const {
    if (heap.empty()) return -1;
    if (due(heap[0]->expiry, now)) return 0;
    return static_cast<int>(std::min(heap[0]->expiry - now, 1000u)) * 10;
  }

  std::vector<ThinRunnerProbe::Place> layout() const {
    std::vector<ThinRunnerProbe::Place> places;
    for (const Info* t : heap) places.emplace_back(t->data, t->expiry);
    return places;
  }

 private:
  static bool later(unsigned int a, unsigned int b, unsigned int time) {
    const unsigned int r = time - 359999;
    return a != b && a - r > b - r;
  }

  static bool due(unsigned int expiry, unsigned int now) {
    return expiry == now || expiry - (now - 359999) < 359999;
  }

  Info* make(void* data, void (*cb)(void*), unsigned int expiry) {
    records.push_back(std::make_unique<Info>(Info{data, cb, expiry, 0xFFFFFFFFu, false}));
    return records.back().get();
  }

  void set(std::size_t i, Info* t) {
    heap[i] = t;
    t->index = static_cast<unsigned int>(i);
  }

  void place(Info* t, std::size_t i, unsigned int now) {
    if (i > 0 && later(heap[(i - 1) / 2]->expiry, t->expiry, now)) {
      do {
        set(i, heap[(i - 1) / 2]);
        i = (i - 1) / 2;
      } while (i != 0 && later(heap[(i - 1) / 2]->expiry, t->expiry, now));
      set(i, t);
      return;
    }
    const std::size_t n = heap.size();
    std::size_t c = 2 * i + 2;
    bool stopped = false;
    while (c < n) {
      if (later(heap[c]->expiry, heap[c - 1]->expiry, now)) c = c - 1;
      if (t->expiry != heap[c]->expiry && !later(t->expiry, heap[c]->expiry, now)) {
        stopped = true;
        break;
      }
      set(i, heap[c]);
      i = c;
      c = 2 * c + 2;
    }
    if (!stopped && c == n && later(t->expiry, heap[n - 1]->expiry, now)) {
      set(i, heap[n - 1]);
      i = n - 1;
    }
    set(i, t);
  }

  void takeOut(Info* t) {
    Info* last = heap.back();
    heap.pop_back();
    if (!heap.empty() && t != last) place(last, t->index, heapTime);
  }

  std::vector<std::unique_ptr<Info>> records;
  std::vector<Info*> heap, pending, delayed;
  bool inRunTimers = false;
  unsigned int heapTime = 0;
};

class RealTimers : public ThinRunner {
 public:
  using Handle = TimerPtr;
  std::vector<ThinRunnerProbe::Place> layout() const {
    ThinRunnerProbe::checkHeap(*this, false);
    return ThinRunnerProbe::heap(*this);
  }
};

struct Step {
  unsigned int kind;
  unsigned int choice;
  unsigned int amount;
};

// The action of a timer that fires is drawn from its own number, so both sides do the same.
template <class Timers>
class Player {
 public:
  explicit Player(unsigned int startTicks) : clock_(startTicks) {}

  std::string play(const std::vector<Step>& steps) {
    for (const Step& step : steps) {
      take(step);
      note('=');
      for (const auto& [data, expiry] : timers_.layout())
        out_ << static_cast<Item*>(data)->number << '@' << expiry << ' ';
      out_ << timers_.sleepTime(clock_.now()) << '\n';
    }
    return out_.str();
  }

 private:
  struct Item {
    Player* player;
    std::size_t number;
    typename Timers::Handle handle;
  };

  static void fire(void* data) {
    auto* item = static_cast<Item*>(data);
    item->player->onFire(*item);
  }

  void note(char what) { out_ << what; }

  void add(unsigned int delay, bool delayed) {
    items_.push_back(std::make_unique<Item>(Item{this, items_.size(), {}}));
    Item* item = items_.back().get();
    item->handle = delayed ? timers_.addDelayedTimer(item, fire, delay) : timers_.addTimer(item, fire, delay);
  }

  void cancel(std::size_t number, bool byPair) {
    if (items_.empty()) return;
    Item& item = *items_[number % items_.size()];
    out_ << (byPair ? timers_.removeTimer(&item, fire) : timers_.removeTimer(item.handle));
  }

  void onFire(Item& item) {
    out_ << '!' << item.number << ' ';
    switch (item.number % 7) {
      case 0: add(static_cast<unsigned int>(item.number % 3), false); break;
      case 1: add(static_cast<unsigned int>(item.number % 4), true); break;
      case 2: cancel(item.number * 31, false); break;
      case 3: cancel(item.number * 17, true); break;
      case 4: timers_.removeTimer(item.handle); break;
      case 5: clock_.advance(1); break;
      default: break;
    }
  }

  void take(const Step& step) {
    switch (step.kind) {
      case 0: add(step.amount % 8, false); break;            // many of one tick
      case 1: add(step.amount % 400000, false); break;       // some beyond the hour
      case 2: add(step.amount % 4294607297u, false); break;  // up to the longest
      case 3: add(step.amount % 8, true); break;
      case 4: cancel(step.choice, false); break;
      case 5: cancel(step.choice, true); break;
      case 6: clock_.advance(step.amount % 6); break;
      case 7: clock_.advance(step.choice % 50 == 0 ? step.amount : 0); break;  // far ahead
      default: timers_.runTimers(); break;
    }
  }

  test::ScriptedClock clock_;
  Timers timers_;
  std::vector<std::unique_ptr<Item>> items_;
  std::ostringstream out_;
};

std::vector<Step> randomSteps(unsigned int seed, std::size_t count) {
  std::mt19937 random(seed);
  std::vector<Step> steps;
  for (std::size_t i = 0; i < count; ++i)
    steps.push_back({static_cast<unsigned int>(random() % 9), static_cast<unsigned int>(random()),
                     static_cast<unsigned int>(random())});
  return steps;
}

TEST(TimersModel, RandomStepsGiveTheSameHeapAndTheSameFirings) {
  const unsigned int base = std::random_device{}();
  for (unsigned int run = 0; run < 100; ++run) {
    const unsigned int seed = base + run;
    const auto steps = randomSteps(seed, 400);
    const unsigned int start = run % 2 == 0 ? 1000000 : 0xFFFFFFF0u;
    ASSERT_EQ(Player<ModelTimers>(start).play(steps), Player<RealTimers>(start).play(steps))
        << "seed " << seed;
  }
}

TEST(TimersModel, TheHeapStaysInOrderWhileNoTimerIsForgotten) {
  const unsigned int seed = std::random_device{}();
  SCOPED_TRACE("seed " + std::to_string(seed));
  std::mt19937 random(seed);
  test::ScriptedClock clock(0xFFFFFF00u);
  ThinRunner loop;
  std::vector<TimerPtr> handles;
  for (int step = 0; step < 20000; ++step) {
    if (random() % 3 != 0)
      handles.push_back(loop.addTimer(
          nullptr, [](void*) {}, static_cast<unsigned int>(random() % 1000)));
    if (random() % 4 == 0 && !handles.empty()) loop.removeTimer(handles[random() % handles.size()]);
    clock.advance(static_cast<unsigned int>(random() % 10));
    loop.runTimers();
    ThinRunnerProbe::checkHeap(loop, true);
    if (HasFatalFailure()) return;
  }
}

}  // namespace
}  // namespace kl

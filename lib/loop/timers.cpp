// Timers of the event loop: a binary heap of one-shot timers, ordered by the tick at which they are due.
//
// A timer is in exactly one place:
//     delayed --addDelayedTimers--> heap --due--> firing --> free
//     pending --end of the firing pass--^
// T1  a timer in the heap knows its position: heap_[t->heapIndex].timer == t
// T2  no parent is due after its child, seen from the tick that the heap was last ordered by
// T3  a timer made by a timer's callback never fires in the same pass
// T4  an entry of the heap repeats its timer's expiry, so that comparing two does not follow their pointers
// T5  a record's generation grows whenever it is freed, so a handle to an earlier use is recognised
//
// Ticks wrap around after 497 days.  Two of them are compared by their distance from a point an hour before
// "now": what fell due within the last hour is early, everything else lies ahead.

#include <algorithm>

#include "base/report.h"
#include "kl/runner.h"
#include "loop/clock.h"

namespace kl {
namespace {

using Ticks = unsigned int;

constexpr Ticks kOverdueWindow = 359999;      // how long after its tick a timer still counts as due
constexpr Ticks kLongestDelay = 4294607296u;  // what leaves the overdue window free before wrapping around
constexpr Ticks kLongestSleepTicks = 1000;    // 10 s
constexpr int kMsPerTick = 10;
constexpr unsigned int kListed = 0xFFFFFFFFu;  // heap index of a timer in the pending or the delayed list
constexpr unsigned int kFiring = 0xFFFFFFFEu;  // heap index of a timer whose callback runs
constexpr std::size_t kTimersPerBlock = 32;

static_assert(kLongestDelay + kOverdueWindow == 0xFFFFFFFFu, "a delay and the window share the 32 bits");

Ticks referenceAt(Ticks now) { return now - kOverdueWindow; }

bool isLater(Ticks a, Ticks b, Ticks reference) { return a - reference > b - reference; }

bool isDue(Ticks expiry, Ticks now) { return expiry - referenceAt(now) <= kOverdueWindow; }

std::size_t parentOf(std::size_t position) { return (position - 1) / 2; }

std::size_t rightChildOf(std::size_t position) { return 2 * position + 2; }

[[gnu::cold]] Ticks longestDelay() {
  printLine("WARNING: limiting timer timeout to ", kLongestDelay, "cs");
  return kLongestDelay;
}

Ticks limitedDelay(Ticks delay) { return delay <= kLongestDelay ? delay : longestDelay(); }

// One function for both lists.
template <class List, class Timer>
[[gnu::noinline]] void append(List& list, Timer* timer) {
  list.push_back(timer);
}

}  // namespace

int ThinRunner::sleepTime(unsigned int now) {
  if (heap_.empty()) return -1;
  const Ticks expiry = heap_.front().expiry;
  if (isDue(expiry, now)) return 0;
  return static_cast<int>(std::min(expiry - now, kLongestSleepTicks)) * kMsPerTick;
}

ThinRunner::TimerPtr ThinRunner::addTimer(void* data, TimerCallback cb, unsigned int delay) {
  const Ticks now = readTick();
  TimerInfo* timer = newTimer(data, cb, now + limitedDelay(delay));
  if (inRunTimers_) append(pending_, timer);  // T3
  else pushTimer(timer, now);
  return TimerPtr(timer);
}

[[gnu::cold]] ThinRunner::TimerPtr ThinRunner::addDelayedTimer(void* data, TimerCallback cb,
                                                               unsigned int delay) {
  TimerInfo* timer = newTimer(data, cb, limitedDelay(delay));
  append(delayed_, timer);
  return TimerPtr(timer);
}

void ThinRunner::addDelayedTimers() {
  if (!delayed_.empty()) adoptDelayedTimers(readTick());
}

bool ThinRunner::removeTimer(TimerPtr timer) {
  if (!timer) return false;
  if (timer.info_->generation == timer.generation_) cancelTimer(timer.info_);  // T5
  return true;
}

bool ThinRunner::removeTimer(void* data, TimerCallback cb) {
  TimerInfo* timer = findTimer(data, cb);
  if (timer == nullptr) return false;
  cancelTimer(timer);
  return true;
}

void ThinRunner::runTimers() {
  // With nothing to fire and nothing to adopt, the clock is not asked.
  if (!heap_.empty() || !pending_.empty()) {
    const Ticks now = readTick();
    fireDueTimers(now);
    adoptPendingTimers(now);
  }
  addDelayedTimers();
}

ThinRunner::TimerInfo* ThinRunner::newTimer(void* data, TimerCallback cb, unsigned int expiry) {
  if (freeTimers_ == nullptr) addTimerBlock();
  TimerInfo* timer = freeTimers_;
  freeTimers_ = static_cast<TimerInfo*>(timer->data);
  timer->data = data;
  timer->callback = cb;
  timer->expiry = expiry;
  timer->heapIndex = kListed;
  return timer;
}

// Records are kept for the next timers until the loop ends: a handle may always look at its record, and
// adding a timer does not call malloc.
[[gnu::cold]] void ThinRunner::addTimerBlock() {
  timerBlocks_.push_back(std::make_unique<TimerInfo[]>(kTimersPerBlock));
  TimerInfo* block = timerBlocks_.back().get();
  for (std::size_t i = kTimersPerBlock; i-- > 0;) {
    block[i].data = freeTimers_;
    freeTimers_ = &block[i];
  }
}

void ThinRunner::freeTimer(TimerInfo* timer) {
  ++timer->generation;  // T5
  timer->data = freeTimers_;
  freeTimers_ = timer;
}

[[gnu::noinline]] void ThinRunner::pushTimer(TimerInfo* timer, unsigned int now) {
  heapTime_ = now;
  heap_.push_back({timer, timer->expiry});
  placeTimerInHeap(timer, static_cast<unsigned int>(heap_.size() - 1), now);
}

void ThinRunner::placeTimerInHeap(TimerInfo* timer, unsigned int index, unsigned int now) {
  const HeapEntry entry{timer, timer->expiry};
  const Ticks reference = referenceAt(now);
  const std::size_t risen = siftUp(entry, index, reference);
  put(entry, risen != index ? risen : siftDown(entry, index, reference));
}

// A parent that is due at the same tick is not later, so a timer never rises above it.
std::size_t ThinRunner::siftUp(const HeapEntry& entry, std::size_t hole, unsigned int reference) {
  while (hole > 0 && isLater(heap_[parentOf(hole)].expiry, entry.expiry, reference)) {
    put(heap_[parentOf(hole)], hole);
    hole = parentOf(hole);
  }
  return hole;
}

// Kept on purpose: a timer sinks past a child that is due at the same tick where both children exist, and
// stays above it where only the left one does; of two equal children the right one rises.  The order in which
// timers of one tick fire follows from it. Held by Timers.SinksPastAnEqualChildOnlyWhereBothChildrenExist.
std::size_t ThinRunner::siftDown(const HeapEntry& entry, std::size_t hole, unsigned int reference) {
  const std::size_t size = heap_.size();
  std::size_t child = rightChildOf(hole);
  for (; child < size; child = rightChildOf(child)) {
    // Either of the two may be earlier, like a coin's throw, so that is computed and not branched on.
    child -= static_cast<std::size_t>(isLater(heap_[child].expiry, heap_[child - 1].expiry, reference));
    if (isLater(heap_[child].expiry, entry.expiry, reference)) return hole;
    put(heap_[child], hole);
    hole = child;
  }
  if (child != size || !isLater(entry.expiry, heap_[size - 1].expiry, reference)) return hole;
  put(heap_[size - 1], hole);
  return size - 1;
}

// T1: a move and the record of it are one step.
void ThinRunner::put(const HeapEntry& entry, std::size_t position) {
  heap_[position] = entry;
  entry.timer->heapIndex = static_cast<unsigned int>(position);
}

void ThinRunner::removeTimer(TimerInfo* timer) {
  TimerInfo* last = heap_.back().timer;
  heap_.pop_back();
  if (timer != last) placeTimerInHeap(last, timer->heapIndex, heapTime_);
}

void ThinRunner::cancelTimer(TimerInfo* timer) {
  if (timer->heapIndex == kFiring) return;  // it is freed when its callback returns
  if (timer->heapIndex == kListed) {
    timer->callback = nullptr;  // it is freed when its list is drained
    return;
  }
  removeTimer(timer);
  freeTimer(timer);
}

[[gnu::cold]] ThinRunner::TimerInfo* ThinRunner::findTimer(void* data, TimerCallback cb) const {
  const auto matches = [=](const TimerInfo* t) { return t->data == data && t->callback == cb; };
  for (const HeapEntry& entry : heap_)
    if (matches(entry.timer)) return entry.timer;
  for (const auto* list : {&pending_, &delayed_}) {
    const auto found = std::find_if(list->begin(), list->end(), matches);
    if (found != list->end()) return *found;
  }
  return nullptr;
}

void ThinRunner::fireDueTimers(unsigned int now) {
  inRunTimers_ = true;
  while (!heap_.empty() && isDue(heap_.front().expiry, now)) {
    TimerInfo* timer = heap_.front().timer;
    removeTimer(timer);
    timer->heapIndex = kFiring;
    timer->callback(timer->data);
    freeTimer(timer);
  }
  inRunTimers_ = false;
}

// The expiry of a pending timer was fixed when it was made.
void ThinRunner::adoptPendingTimers(unsigned int now) {
  for (TimerInfo* timer : pending_) {
    if (timer->callback == nullptr) freeTimer(timer);
    else pushTimer(timer, now);
  }
  pending_.clear();
}

void ThinRunner::adoptDelayedTimers(unsigned int now) {
  for (TimerInfo* timer : delayed_) {
    if (timer->callback == nullptr) {
      freeTimer(timer);
      continue;
    }
    timer->expiry += now;
    pushTimer(timer, now);
  }
  delayed_.clear();
}

[[gnu::cold]] void ThinRunner::dropTimers() {
  for (const HeapEntry& entry : heap_) freeTimer(entry.timer);
  for (TimerInfo* timer : pending_) freeTimer(timer);
  for (TimerInfo* timer : delayed_) freeTimer(timer);
  heap_.clear();
  pending_.clear();
  delayed_.clear();
}

}  // namespace kl

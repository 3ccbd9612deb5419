// What a store does later: making its files durable, and compacting them.
//
//     first change since the last flush --50 ticks--> both files are synced
//     bloat is seen --6000 ticks--> compaction, if the store is still bloated
//
// Without a Runner both happen at once.

#include <unistd.h>

#include "kl/bind.h"
#include "kl/store.h"
#include "store/core.h"

namespace kl {
namespace {

constexpr unsigned int kFlushDelayTicks = 50;
constexpr unsigned int kCompactionDelayTicks = 6000;
constexpr unsigned int kBloatedSlots = 9;
constexpr unsigned int kBloatedShareShift = 3;  // an eighth

}  // namespace

void Store::flush() {
  if (isPending(flushTimer_)) return;
  if (getRunner() == nullptr && internals_->changes > 0) {
    internals_->isFlushWanted = true;
    return;
  }
  if (getRunner() == nullptr) return doFlush();
  startTimer(flushTimer_, bind<Store, &Store::doFlush>(), kFlushDelayTicks);
}

void Store::doFlush() {
  cancelTimer(flushTimer_);
  if (internals_->durability == Durability::kPowerLoss) return flushUnderLock();
  Internals::sync(*this);
}

void Store::Internals::sync(const Store& store) {
  (void)::fsync(store.idxFd_);
  (void)::fsync(heldData(store));
}

// The durable record goes when the files' lengths are durable themselves, before anybody appends again.
void Store::flushUnderLock() {
  const LockHold hold(internals_->lock);
  Internals::sync(*this);
  internals_->areLengthsDurable = true;
  if (!internals_->lock.isHeld()) return;
  internals_->lock.dropRecords(0);
  (void)::fsync(internals_->lock.fd());
}

void Store::checkForBloat() {
  if (isPending(compactTimer_) || !isBloated()) return;
  if (getRunner() == nullptr) return compact(false);
  startTimer(compactTimer_, bind<Store, &Store::doCompaction>(), kCompactionDelayTicks);
}

void Store::doCompaction() {
  cancelTimer(compactTimer_);
  if (isBloated()) compact(false);
}

bool Store::isBloated() const {
  return freeBytes_ > dataSize_ >> kBloatedShareShift && freeCount_ >= kBloatedSlots;
}

// A timer that a Runner took with it when it ended is not pending.  The next Runner may lie where that one lay.
bool Store::isPending(TimerPtr timer) const { return timer && internals_->timerRunner == getRunnerNumber(); }

// Those of an earlier Runner went with it.
void Store::startTimer(TimerPtr& timer, ThinRunner::TimerCallback callback, unsigned int ticks) {
  if (internals_->timerRunner != getRunnerNumber()) compactTimer_ = flushTimer_ = TimerPtr();
  internals_->timerRunner = getRunnerNumber();
  timer = getRunner()->addTimer(this, callback, ticks);
}

void Store::cancelTimers() {
  cancelTimer(compactTimer_);
  cancelTimer(flushTimer_);
}

// Of a timer that fires at this moment nothing is left to remove.
void Store::cancelTimer(TimerPtr& timer) {
  if (isPending(timer)) getRunner()->removeTimer(timer);
  timer = TimerPtr();
}

}  // namespace kl

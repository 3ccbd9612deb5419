// A store flushes and compacts its files later than it changes them.
//
//     first change since the last flush --50 ticks--> both files are synced
//     bloat is seen --6000 ticks--> compaction, if the store is still bloated
//
// Without a Runner both happen at once.
//
// A compaction rewrites both files without their free slots.  The new pair grows beside the old one and is renamed
// over it when it is whole.  A failure before the copying, or in replacing the data file, leaves the store as it was;
// one in the copying empties it.  Held by StoreScheduleWithRunner.CompactionWaitsAMinute,
// StoreCompactionRoom.WithoutItForTheDataTheOldFilesStay and StoreCompaction.ADataFileThatIsTooShortEmptiesTheStore.

#include "base/report.h"
#include "kl/bind.h"
#include "store/change.h"
#include "store/core.h"
#include "store/space/compaction.h"
#include "store/space/new_files.h"

namespace kl {
namespace {

constexpr unsigned int kFlushDelayTicks = 50;
constexpr unsigned int kCompactionDelayTicks = 6000;

}  // namespace

void Store::Core::flush() {
  if (isPending(flushTimer_)) return;
  if (getRunner() == nullptr && changes_ > 0) {
    isFlushWanted_ = true;
    return;
  }
  if (getRunner() == nullptr) return doFlush();
  startTimer(flushTimer_, bind<Core, &Core::doFlush>(), kFlushDelayTicks);
}

void Store::Core::doFlush() {
  cancelTimer(flushTimer_);
  if (!journal_.survivesPowerLoss()) return files_.sync();
  const QuietLockGuard guard(journal_.lock());
  journal_.recover(guard);
  files_.sync();
  journal_.dropLengths();
}

void Store::Core::checkForBloat() {
  if (isPending(compactTimer_) || !slots_.areBloated()) return;
  if (getRunner() == nullptr) return compact(false);
  startTimer(compactTimer_, bind<Core, &Core::doCompaction>(), kCompactionDelayTicks);
}

void Store::Core::doCompaction() {
  cancelTimer(compactTimer_);
  if (slots_.areBloated()) compact(false);
}

void Store::Core::compact(bool convert) {
  cancelTimers();
  const ReportingLockGuard guard(journal_.lock());
  journal_.recover(guard);
  if (!openIdx() || !openData()) {
    closeIdx();
    closeData();
    return;
  }
  Change::freeUnfreedSlots(*this);
  NewFiles fresh(files_.path());
  if (!fresh.create(slots_.lengthsWithoutFree())) return;
  const ByteOrder order = convert || isOlderLayout_ ? ByteOrder::kBig : ByteOrder::kLittle;
  Compaction compaction(files_, slots_, fresh, order);
  if (!compaction.copyEntries()) return restart();
  const Journal::Replaced replaced = fresh.commit(journal_);
  if (replaced == Journal::Replaced::kNone) return;
  if (replaced == Journal::Replaced::kInPart) return restart();
  files_.replace(fresh.takeIdx(), fresh.takeData());
  slots_.rearrange(compaction.copied(), compaction.dataBytes());
  isOlderLayout_ = false;
}

// A timer dies with its Runner.  Runners are distinguished by number, since a new one may reuse the address.
bool Store::Core::isPending(TimerPtr timer) const { return timer && timerRunner_ == getRunnerNumber(); }

void Store::Core::startTimer(TimerPtr& timer, ThinRunner::TimerCallback callback, unsigned int ticks) {
  if (timerRunner_ != getRunnerNumber()) compactTimer_ = flushTimer_ = TimerPtr();
  timerRunner_ = getRunnerNumber();
  timer = getRunner()->addTimer(this, callback, ticks);
}

void Store::Core::cancelTimers() {
  cancelTimer(compactTimer_);
  cancelTimer(flushTimer_);
}

// A timer whose callback is running needs no removal.
void Store::Core::cancelTimer(TimerPtr& timer) {
  if (isPending(timer)) getRunner()->removeTimer(timer);
  timer = TimerPtr();
}

}  // namespace kl

// One change of a store's files, whole or not at all.
//
//     lock -- look for a left-over record -- intent record -- the writes -- empty the lock file -- unlock
//
// Killed before the record is whole, the change did not happen; killed after that, the next one to take the lock
// or to open the store makes it happen.
//
// On a full disk there may be no room for the record.  A change that makes the files longer then makes the lock file
// longer, which takes no room: it says how many slots there were, and those behind them are cut off if the change was not
// completed.  A change of bytes that are there goes on without.
// Held by StoreKillsOnFullDisk.CostsNothingButWhatFailedAndTheEntryInFlight.

#include "store/change.h"

#include <unistd.h>

#include <utility>

namespace kl {
namespace {

constexpr std::size_t kSectorBytes = 512;
constexpr std::size_t kIdBytes = 4;

}  // namespace

Store::Change::Change(Store& store) : store_(store) {
  Internals& internals = *store.internals_;
  ++internals.changes;
  hold_.emplace(internals.lock);
  if (!Internals::openIdx(store) || !Internals::openData(store)) return;
  writeMissingSlots();
  catchUp(store);
  if (internals.lock.isHeld()) intent_.emplace(internals.ids);
}

Store::Change::~Change() {
  withdraw();
  hold_.reset();
  Internals& internals = *store_.internals_;
  --internals.changes;
  if (internals.changes == 0 && std::exchange(internals.isFlushWanted, false)) store_.doFlush();
}

void Store::Change::willWriteSlot(unsigned int id, const Entry& entry) {
  if (intent_) intent_->writeSlot(entry.slot, {id, entry.size, entry.lifetime});
}

void Store::Change::willFreeSlot(unsigned int id, const Entry& entry) {
  if (!intent_) return;
  intent_->restoreSlot(entry.slot, {id, entry.size, entry.lifetime});
  intent_->writeSlot(entry.slot, {kFreeId, entry.size, entry.lifetime});
}

void Store::Change::willFill(const Entry& hole) {
  if (intent_) intent_->restoreSlot(hole.slot, {kFreeId, hole.size, hole.lifetime});
}

void Store::Change::willAppend(const Entry& entry) {
  const FileLengths before{static_cast<unsigned long long>(entry.slot) * kSlotRecordBytes, entry.offset};
  if (!intent_) return;
  before_ = before;
  intent_->cutBackTo(before);
  keepDurableLengths(before);
}

void Store::Change::willWriteRecord(unsigned int offset, Bytes record) {
  if (intent_) intent_->writeRecord(offset, record);
}

void Store::Change::announce() {
  if (!intent_) return;
  const FileLock& lock = store_.internals_->lock;
  isAnnounced_ = true;
  isWhole_ = intent_->write(lock.fd(), lock.durableBytes());
  if (!isWhole_) markEnd();
}

void Store::Change::prepareSlot(unsigned int id, const Entry& entry, Bytes record) {
  if (!intent_ || isWhole_ || store_.internals_->isUnwritten(entry.slot)) return;
  const SlotBytes slot = encodeSlot({id, entry.size, entry.lifetime});
  const off_t place = static_cast<off_t>(entry.slot) * static_cast<off_t>(kSlotRecordBytes);
  const auto offset = static_cast<off_t>(entry.offset);
  if (hasWritten(writeAt(store_.dataFd_, record, offset), record.size) &&
      hasWritten(writeAt(store_.idxFd_, {slot.data(), slot.size()}, place), slot.size()))
    return;
  if (!before_) return;
  (void)::ftruncate(store_.idxFd_, place);
  (void)::ftruncate(store_.dataFd_, offset);
}

// Where the id lies in one sector and the size in the next, the second may be all that is on disk when power goes: a slot
// of entry 0, as long as the data file says.  The data file cannot say so yet.
// Held by StorePowerLoss.CostsAtMostWhatWasChangedSinceTheLastFlush.
void Store::Change::keepSlotWhole(const Entry& entry) {
  const bool isSplit = (entry.slot * kSlotRecordBytes + kIdBytes) % kSectorBytes == 0;
  if (isSplit && store_.internals_->durability == Durability::kPowerLoss) (void)::fsync(store_.idxFd_);
}

void Store::Change::freeSlot(Entry& entry) {
  if (store_.writeIndexent(kFreeId, entry)) return;
  Internals& internals = *store_.internals_;
  if (internals.isUnwritten(entry.slot)) return;  // it is written as a free one, or not at all
  std::erase_if(internals.unfreedSlots, [&entry](const Entry& slot) { return slot.slot == entry.slot; });
  internals.unfreedSlots.push_back(entry);
}

void Store::Change::catchUp(Store& store) {
  std::erase_if(store.internals_->unfreedSlots, [&store](const Entry& slot) {
    const SlotBytes bytes = encodeSlot({kFreeId, slot.size, slot.lifetime});
    const off_t place = static_cast<off_t>(slot.slot) * static_cast<off_t>(kSlotRecordBytes);
    return hasWritten(writeAt(store.idxFd_, {bytes.data(), bytes.size()}, place), bytes.size());
  });
}

void Store::Change::withdraw() {
  if (std::exchange(isAnnounced_, false))
    store_.internals_->lock.dropRecords(store_.internals_->lock.durableBytes());
}

void Store::Change::markEnd() {
  FileLock& lock = store_.internals_->lock;
  lock.dropRecords(lock.durableBytes());
  if (before_) (void)::ftruncate(lock.fd(), static_cast<off_t>(lock.durableBytes() + endMarkBytes(*before_)));
}

// The slots that the index file took no record of: now, before anything is written behind them.
void Store::Change::writeMissingSlots() {
  std::vector<Entry>& slots = store_.internals_->unwrittenSlots;
  if (slots.empty()) return;
  const Entry first = slots.front();
  {
    Intent intent(store_.internals_->ids);
    const FileLengths before{static_cast<unsigned long long>(first.slot) * kSlotRecordBytes, first.offset};
    intent.cutBackTo(before);
    before_ = before;
    if (store_.internals_->lock.isHeld()) keepDurableLengths(before);
    for (const Entry& slot : slots) intent.writeSlot(slot.slot, {kFreeId, slot.size, slot.lifetime});
    intent.extendData(store_.dataSize_);
    intent_ = std::move(intent);
  }
  if (store_.internals_->lock.isHeld()) announce();
  if (extendFiles(slots)) slots.clear();
  withdraw();
  intent_.reset();
  before_.reset();
}

bool Store::Change::extendFiles(const std::vector<Entry>& slots) {
  std::vector<unsigned char> records;
  for (const Entry& slot : slots) {
    const SlotBytes bytes = encodeSlot({kFreeId, slot.size, slot.lifetime});
    records.insert(records.end(), bytes.begin(), bytes.end());
  }
  const off_t end = static_cast<off_t>(slots.front().slot) * static_cast<off_t>(kSlotRecordBytes);
  if (hasWritten(writeAt(store_.idxFd_, {records.data(), records.size()}, end), records.size()) &&
      (store_.internals_->durability != Durability::kPowerLoss || ::fsync(store_.idxFd_) == 0) &&
      ::ftruncate(store_.dataFd_, static_cast<off_t>(store_.dataSize_)) == 0)
    return true;
  (void)::ftruncate(store_.idxFd_, end);
  return false;
}

// With the first append after a flush, the lengths that the flush made durable.  If there was no room for them then, the
// files are synced before the next append tries again.
void Store::Change::keepDurableLengths(const FileLengths& lengths) {
  Internals& internals = *store_.internals_;
  if (internals.durability != Durability::kPowerLoss || internals.lock.durableBytes() > 0) return;
  if (!std::exchange(internals.areLengthsDurable, false)) Internals::sync(store_);
  const DurableBytes record = encodeDurable(internals.ids, lengths);
  if (!hasWritten(writeAt(internals.lock.fd(), {record.data(), record.size()}, 0), record.size()))
    return internals.lock.dropRecords(0);
  internals.lock.setDurableBytes(record.size());
  internals.areLengthsDurable = true;
  (void)::fsync(internals.lock.fd());
}

}  // namespace kl

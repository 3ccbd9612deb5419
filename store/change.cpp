// One change of a store's files, whole or not at all.
//
//     lock -- look for a left-over record -- intent record -- the writes -- empty the lock file -- unlock
//
// Killed before the record is whole, the change did not happen; killed after that, the next one to take the lock
// or to open the store makes it happen.
// Held by StoreKills.WhereverAWriterIsKilledOnlyTheEntryInFlightMayBeOldOrNew.

#include "store/change.h"

#include <unistd.h>

#include <utility>

namespace kl {

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

void Store::Change::willAppend(const Entry& entry) {
  const FileLengths before{static_cast<unsigned long long>(entry.slot) * kSlotRecordBytes, entry.offset};
  if (!intent_) return;
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
  if (!intent_->write(lock.fd(), lock.durableBytes())) withdraw();
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

// The slots that the index file took no record of: now, before anything is written behind them.
void Store::Change::writeMissingSlots() {
  std::vector<Entry>& slots = store_.internals_->unwrittenSlots;
  if (slots.empty()) return;
  const Entry first = slots.front();
  {
    Intent intent(store_.internals_->ids);
    const FileLengths before{static_cast<unsigned long long>(first.slot) * kSlotRecordBytes, first.offset};
    intent.cutBackTo(before);
    if (store_.internals_->lock.isHeld()) keepDurableLengths(before);
    for (const Entry& slot : slots) intent.writeSlot(slot.slot, {kFreeId, slot.size, slot.lifetime});
    intent.extendData(store_.dataSize_);
    intent_ = std::move(intent);
  }
  if (store_.internals_->lock.isHeld()) announce();
  if (extendFiles(slots)) slots.clear();
  withdraw();
  intent_.reset();
}

bool Store::Change::extendFiles(const std::vector<Entry>& slots) {
  std::vector<unsigned char> records;
  for (const Entry& slot : slots) {
    const SlotBytes bytes = encodeSlot({kFreeId, slot.size, slot.lifetime});
    records.insert(records.end(), bytes.begin(), bytes.end());
  }
  const off_t end = static_cast<off_t>(slots.front().slot) * static_cast<off_t>(kSlotRecordBytes);
  if (hasWritten(writeAt(store_.idxFd_, {records.data(), records.size()}, end), records.size()) &&
      ::ftruncate(store_.dataFd_, static_cast<off_t>(store_.dataSize_)) == 0)
    return true;
  (void)::ftruncate(store_.idxFd_, end);
  return false;
}

// With the first append after a flush, the lengths that the flush made durable.
void Store::Change::keepDurableLengths(const FileLengths& lengths) {
  Internals& internals = *store_.internals_;
  if (internals.durability != Durability::kPowerLoss || internals.lock.durableBytes() > 0) return;
  const DurableBytes record = encodeDurable(internals.ids, lengths);
  if (!hasWritten(writeAt(internals.lock.fd(), {record.data(), record.size()}, 0), record.size())) return;
  internals.lock.setDurableBytes(record.size());
  (void)::fsync(internals.lock.fd());
}

}  // namespace kl

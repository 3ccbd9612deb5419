// All slots of a store in memory.
//
//     index (P.idx)   | 17, 40 bytes | free, 24 bytes | 9, 32 bytes |
//     data  (P.dat)   | blob of 17   | left over      | blob of 9   |
//
// Every slot of the index has an entry or is free.  A slot keeps its size until a compaction, so its offset follows
// from the sizes of those before it, and the length of the data file shows whether both files belong together.
//
// SS1  slots lie in the data file in the order of the index, without gaps
// SS2  dataBytes_ is the sum of all sizes, count_ the number of slots
// SS3  freeBytes_ and freeCount_ belong to the free slots that are marked as counted
// SS4  of two slots with one id the first one counts
//
// Held by StoreModel.HoldsWhatAPlainMapHoldsAndTheSameSeedGivesTheSameFiles, StoreLoading.OffsetsFollowFromTheSizes,
// StoreBloat.ASlotThatIsUsedAgainCountsNoMore and StoreLoading.TheFirstOfTwoSlotsWithOneIdCounts.

#include "store/space/slots.h"

#include <algorithm>

namespace kl {
namespace {

constexpr unsigned int kBloatedSlots = 9;
constexpr unsigned int kBloatedShareShift = 3;  // an eighth

}  // namespace

void Backlog::addUnfreed(const Store::Entry& entry) {
  if (isUnwritten(entry.slot)) return;  // it is written as a free one, or not at all
  noteWritten(entry.slot);
  unfreed.push_back(entry);
}

void Backlog::forgetUnfreed(unsigned int slot) {
  std::erase_if(unfreed, [slot](const Store::Entry& entry) { return entry.slot == slot; });
}

void Backlog::clear() {
  unwritten.clear();
  unfreed.clear();
}

Store::Entry* Slots::entryOf(unsigned int id) {
  const auto found = entries_.find(id);
  return found == entries_.end() ? nullptr : &found->second;
}

bool Slots::addUpTo(long long dataBytes) const {
  return !exceedsFile_ && dataBytes == static_cast<long long>(dataBytes_);
}

bool Slots::areBloated() const {
  return freeBytes_ > dataBytes_ >> kBloatedShareShift && freeCount_ >= kBloatedSlots;
}

FileLengths Slots::lengthsWithoutFree() const {
  return {static_cast<unsigned long long>(count_ - free_.count()) * kSlotBytes, dataBytes_ - free_.bytes()};
}

void Slots::clear() {
  entries_.clear();
  table_.clear();
  free_.clear();
  backlog_.clear();
  exceedsFile_ = false;
  dataBytes_ = count_ = freeBytes_ = freeCount_ = 0;
}

void Slots::append(const IndexSlot& slot) {
  const Entry entry{dataBytes_, slot.size, count_, slot.lifetime};
  dataBytes_ += slot.size;
  if (dataBytes_ < slot.size) exceedsFile_ = true;
  ++count_;
  if (slot.isFree()) {
    free_.pushBack(entry, true);
    countFreed(entry);
  } else {
    // Kept on purpose: of two slots with one id the first one counts, the other one is neither free nor found.
    // Held by StoreLoading.TheFirstOfTwoSlotsWithOneIdCounts.
    const std::size_t before = entries_.size();
    entries_.try_emplace(entries_.end(), slot.id, entry);
    if (entries_.size() > before) table_.put({slot.id, entry.offset, entry.size});
  }
}

Slots::Move Slots::move(unsigned int id, unsigned int lifetime, unsigned int needBytes) {
  const auto [at, isNew] = entries_.try_emplace(id, Entry{0, 0, 0, lifetime});
  Move move{at->second, std::nullopt, std::nullopt};
  if (!isNew) move.left = move.entry;
  move.hole = allocate(move.entry, needBytes);
  table_.put({id, move.entry.offset, move.entry.size});
  return move;
}

void Slots::freeLeft(const Move& move) {
  if (!move.left) return;
  free_.pushBack(*move.left, true);
  countFreed(*move.left);
}

// Kept on purpose: a removed entry's slot goes to the front, one that an entry grew out of or that was free in the
// index to the back; the next search for room meets the newest hole first.  Held by
// StoreTest.ARemovedSlotIsTheFirstCandidate.
void Slots::remove(Store::Entries::iterator entry) {
  free_.pushFront(entry->second, true);
  countFreed(entry->second);
  table_.erase(entry->first);
  entries_.erase(entry);
}

// Kept on purpose: a slot that could not be filled is free, but does not count towards bloat; the entry is
// gone, and so is what it held before.  Held by StoreFaults.ASetThatFailsLeavesAFreeSlotThatDoesNotCount.
void Slots::drop(unsigned int id) {
  const auto found = entries_.find(id);
  free_.pushBack(found->second, false);
  table_.erase(id);
  entries_.erase(found);
}

// Slots are taken from the end, so that the first of two with one id counts (SS4).
void Slots::rearrange(const std::vector<CopiedSlot>& copied, unsigned int dataBytes) {
  free_.clear();
  backlog_.clear();
  freeBytes_ = freeCount_ = 0;
  dataBytes_ = dataBytes;
  count_ = static_cast<unsigned int>(copied.size());
  for (unsigned int slot = count_; slot-- > 0;) {
    Entry& entry = entries_.at(copied[slot].id);
    entry.offset = copied[slot].offset;
    entry.slot = slot;
    table_.put({copied[slot].id, entry.offset, entry.size});
  }
}

std::optional<Store::Entry> Slots::allocate(Entry& entry, unsigned int needBytes) {
  FreeSlots::Slot found;
  if (!free_.takeFirstFit(needBytes, found)) {
    entry = {dataBytes_, needBytes, count_, entry.lifetime};
    dataBytes_ += needBytes;
    ++count_;
    return std::nullopt;
  }
  entry = {found.entry.offset, found.entry.size, found.entry.slot, entry.lifetime};
  if (found.counted) {  // SS3
    --freeCount_;
    freeBytes_ -= entry.size;
  }
  return found.entry;
}

void Slots::countFreed(const Entry& entry) {
  ++freeCount_;
  freeBytes_ += entry.size;
}

}  // namespace kl

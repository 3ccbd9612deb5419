// Messages kept on disk, each under a number.
//
//     index (P.idx)   | 17, 40 bytes | free, 24 bytes | 9, 32 bytes |
//     data  (P.dat)   | record of 17 | left over      | record of 9 |
//
// Every slot of the index is either in entries_ or among the free slots.  A slot keeps its size until a
// compaction, so the place of each one follows from the sizes of those before it, and the length of the data
// file tells whether both files belong together.
//
// S1  slots lie in the data file in the order of the index, without gaps
// S2  dataSize_ is the sum of all sizes, slotCount_ the number of slots
// S3  freeBytes_ and freeCount_ belong to the free slots that are marked as counted
// S4  no record is read or written while the files are in the older layout: first they are converted

#include "kl/store.h"

#include <sys/stat.h>
#include <unistd.h>

#include "store/files/format.h"
#include "store/core.h"
#include "store/change.h"
#include "store/files/blob.h"
#include "store/report.h"

namespace kl {
namespace {

constexpr mode_t kOwnersFolder = 0700;

void makeParentFolders(const std::string& path) {
  for (std::size_t slash = path.find('/', 1); slash != std::string::npos; slash = path.find('/', slash + 1))
    (void)::mkdir(path.substr(0, slash).c_str(), kOwnersFolder);
}

}  // namespace

Store::Store(const std::string& path, unsigned int lifetime, Durability durability)
    : path_(path), defaultLifetime_(lifetime), internals_(std::make_unique<Internals>(path, durability)) {
  makeParentFolders(path);
  if (!Internals::looksWhole(*this)) {
    closeIdx();  // it may be replaced while this waits for the lock
    const LockHold hold(internals_->lock);
    if (!readIndex(false)) restart();
  }
  if (durability == Durability::kPowerLoss) Internals::sync(*this);
  checkForBloat();
}

Store::~Store() {
  closeIdx();
  closeData();
  cancelTimers();
}

void Store::set(unsigned int id, const message& m) {
  if (id == kFreeId) return reportStore("STORE: set: id 0xffffffff is reserved");
  const Record record(m);
  if (!Internals::isConverted(*this)) return;
  const RecordPlaces::Place* known = internals_->places.find(id);
  if (known != nullptr && known->size >= record.size()) return rewrite(known->offset, record);
  const auto [entry, isNew] = entries_.try_emplace(id);
  if (isNew) entry->second.lifetime = defaultLifetime_;
  if (moveAndWrite(entry, isNew, record)) checkForBloat();
}

message Store::get(unsigned int id) {
  if (!Internals::isConverted(*this)) return message();
  const RecordPlaces::Place* known = internals_->places.find(id);
  return known == nullptr ? message() : readRecord(known->offset, known->size);
}

bool Store::remove(unsigned int id) {
  if (!Internals::isConverted(*this)) return false;
  const auto found = entries_.find(id);
  if (found == entries_.end()) return false;
  freeOnDisk(id, found->second);
  // Kept on purpose: remove() frees to the front, set() and readIndex() to the back; the next search for a
  // place meets the newest hole first.  Held by StoreTest.ARemovedSlotIsTheFirstCandidate.
  internals_->freeSlots.pushFront(found->second, true);
  countFreed(found->second);
  internals_->places.erase(id);
  entries_.erase(found);
  checkForBloat();
  return true;
}

void Store::touch(unsigned int id, unsigned int lifetime) {
  if (!Internals::isConverted(*this)) return;
  const auto found = entries_.find(id);
  if (found == entries_.end()) return;
  found->second.lifetime = lifetime;
  Change change(*this);
  change.willWriteSlot(id, found->second);
  change.announce();
  (void)writeIndexent(id, found->second);
}

void Store::age() {
  // Each step starts from the id, because removing may compact, and a compaction may empty the store.
  for (auto at = entries_.begin(); at != entries_.end();) {
    const unsigned int id = at->first;
    const unsigned int lifetime = at->second.lifetime;
    if (lifetime > 1) touch(id, lifetime - 1);
    else remove(id);
    at = entries_.upper_bound(id);
  }
}

void Store::cleanup() {
  entries_.clear();
  internals_->places.clear();
  internals_->freeSlots.clear();
  internals_->unwrittenSlots.clear();
  internals_->unfreedSlots.clear();
  internals_->isOlderLayout = false;
  internals_->exceedsFile = false;
  dataSize_ = slotCount_ = freeBytes_ = freeCount_ = 0;
}

void Store::countFreed(const Entry& entry) {
  ++freeCount_;
  freeBytes_ += entry.size;
}

void Store::rewrite(unsigned int offset, const Record& record) {
  Change change(*this);
  change.willWriteRecord(offset, record.bytes());
  change.announce();
  (void)Internals::writeRecord(*this, offset, record.bytes(), {});
}

void Store::freeOnDisk(unsigned int id, Entry& entry) {
  Change change(*this);
  change.willFreeSlot(id, entry);
  change.announce();
  change.freeSlot(entry);
}

// Gives the entry a place, leaving the old one if it has one, and writes it there.
bool Store::moveAndWrite(Entries::iterator at, bool isNew, const Record& record) {
  const unsigned int id = at->first;
  Entry& entry = at->second;
  Entry left = entry;
  Change change(*this);
  if (!isNew) {
    internals_->freeSlots.pushBack(left, true);
    countFreed(left);
    change.willFreeSlot(id, left);
  }
  const std::optional<Entry> hole = placeEntry(entry, record.size());
  const bool isAppended = !hole;
  internals_->places.put({id, entry.offset, entry.size});
  if (isAppended) change.willAppend(entry);
  else change.willFill(*hole);
  change.willWriteSlot(id, entry);
  change.willWriteRecord(entry.offset, record.bytes());
  change.announce();
  if (!isNew || !isAppended) change.prepareSlot(id, entry, record.bytes());

  if (!isNew) change.freeSlot(left);
  const bool isIndexed = writeIndexent(id, entry);
  if (isAppended) change.keepSlotWhole(entry);
  if (isIndexed && Internals::writeRecord(*this, entry.offset, record.bytes(), {})) return true;
  if (isAppended) dropAppended(entry, isIndexed);
  else change.freeSlot(entry);
  dropUnwritten(at);
  return false;
}

// First fit among the free slots, else a new slot behind the last one.  Gives the free slot as it was.
std::optional<Store::Entry> Store::placeEntry(Entry& entry, unsigned int needBytes) {
  FreeSlots::Slot found;
  if (!internals_->freeSlots.takeFirstFit(needBytes, found)) {
    entry = {dataSize_, needBytes, slotCount_, entry.lifetime};
    dataSize_ += needBytes;
    ++slotCount_;
    return std::nullopt;
  }
  entry = {found.entry.offset, found.entry.size, found.entry.slot, entry.lifetime};
  if (found.counted) {  // S3
    --freeCount_;
    freeBytes_ -= entry.size;
  }
  return found.entry;
}

// Kept on purpose: a slot that could not be filled is free, but does not count towards bloat; the entry is
// gone, and so is what it held before.  Held by StoreFaults.ASetThatFailsLeavesAFreeSlotThatDoesNotCount.
void Store::dropUnwritten(Entries::iterator at) {
  internals_->freeSlots.pushBack(at->second, false);
  internals_->places.erase(at->first);
  entries_.erase(at);
}

// Frees the last slot, which could not be filled.  The data file is as long as the index says all the same; where that
// fails, the files have nothing of the slot until the next change.
void Store::dropAppended(Entry& last, bool isIndexed) {
  const bool isFreed = writeIndexent(kFreeId, last);
  if (isFreed && dataFd_ >= 0 && ::ftruncate(dataFd_, static_cast<off_t>(dataSize_)) == 0) return;
  if (isFreed || isIndexed) {
    (void)::ftruncate(idxFd_, static_cast<off_t>(last.slot) * static_cast<off_t>(kSlotRecordBytes));
    (void)::ftruncate(dataFd_, static_cast<off_t>(last.offset));
  }
  internals_->unwrittenSlots.push_back(last);
}

}  // namespace kl

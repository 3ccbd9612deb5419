// Messages kept on disk, each under a number: what an owner does with entries.
//
//     set     in place if the slot is large enough, else the slot is left, and the first free one that fits is taken
//     remove  the slot becomes free, and the first candidate for the next entry
//     touch   writes the slot of the index alone
//
// Each of them is one Change of the files (change.h): the journal has it first.  README.md describes the whole way.
//
// SO1  no blob is read or written while the files are in the older layout: first they are converted
// Held by StoreLoading.AStoreThatCouldNotBeConvertedIsConvertedBeforeItIsUsed.

#include "kl/store.h"

#include "base/report.h"
#include "store/change.h"
#include "store/core.h"

namespace kl {
namespace {

bool reportUnless(bool succeeded, const char* failure) {
  if (!succeeded) printLine(failure);
  return succeeded;
}

}  // namespace

void Store::Core::set(unsigned int id, const message& m) {
  if (id == kFreeId) return printLine("STORE: set: id 0xffffffff is reserved");
  const Blob blob(m);
  if (!ensureConverted()) return;
  const EntryTable::Row* const known = slots_.find(id);
  if (known != nullptr && known->size >= blob.size()) return rewrite(known->offset, blob);
  if (moveAndWrite(id, blob)) checkForBloat();
}

message Store::Core::get(unsigned int id) {
  if (!ensureConverted()) return message();
  const EntryTable::Row* const known = slots_.find(id);
  return known == nullptr ? message() : readBlob(known->offset, known->size);
}

bool Store::Core::remove(unsigned int id) {
  if (!ensureConverted()) return false;
  const auto entry = slots_.seek(id);
  if (entry == entries().end()) return false;
  {
    Change change(*this);
    change.willFreeSlot(id, entry->second);
    change.noteIntent();
    change.freeSlot(entry->second);
  }
  slots_.remove(entry);
  checkForBloat();
  return true;
}

void Store::Core::touch(unsigned int id, unsigned int lifetime) {
  if (!ensureConverted()) return;
  Entry* const entry = slots_.entryOf(id);
  if (entry == nullptr) return;
  entry->lifetime = lifetime;
  Change change(*this);
  change.willWriteSlot(id, *entry);
  change.noteIntent();
  (void)writeSlot(entry->slot, slotWith(id, *entry));
}

// A loss of power that costs earlier changes could cost a part of this one with them, so they are synced first.
[[gnu::cold]] bool Store::Core::batch(const Messages& set, const std::vector<unsigned int>& removed) {
  if (set.empty() && removed.empty()) return true;
  const bool isAllowed = set.empty() || set.rbegin()->first != kFreeId;
  if (isAllowed && journal_.survivesPowerLoss()) doFlush();
  const bool isDone = isAllowed && ensureConverted() && writeBatch(set, removed);
  if (isDone) checkForBloat();
  return reportUnless(isDone, "STORE: batch failed");
}

void Store::Core::age() {
  // Each step starts from the id, because removing may compact, and a compaction may empty the store.
  for (auto at = entries().begin(); at != entries().end();) {
    const unsigned int id = at->first;
    const unsigned int lifetime = at->second.lifetime;
    if (lifetime > 1) touch(id, lifetime - 1);
    else remove(id);
    at = entries().upper_bound(id);
  }
}

// False if the files are still in the older layout because their conversion failed, now once more; the reason has
// been printed.
bool Store::Core::ensureConverted() {
  if (isOlderLayout_) compact(true);
  return !isOlderLayout_;
}

void Store::Core::rewrite(unsigned int offset, const Blob& blob) {
  Change change(*this);
  change.willWriteBlob(offset, blob.bytes());
  change.noteIntent();
  (void)writeBlob(offset, blob.bytes(), {});
}

// Gives the entry a slot, leaving the old one if it has one, and writes it there.
bool Store::Core::moveAndWrite(unsigned int id, const Blob& blob) {
  Change change(*this);
  const Slots::Move move = slots_.move(id, defaultLifetime_, blob.size());
  slots_.freeLeft(move);
  const auto& [entry, left, hole] = move;
  if (left) change.willFreeSlot(id, *left);
  if (hole) change.willFill(*hole);
  else change.willAppend(entry);
  change.willWriteSlot(id, entry);
  change.willWriteBlob(entry.offset, blob.bytes());
  change.noteIntent();
  if (left || hole) change.writeFirstUnlessNoted(id, entry, blob.bytes());

  if (left) change.freeSlot(*left);
  const bool isIndexed = writeSlot(entry.slot, slotWith(id, entry));
  if (!hole) change.keepSlotWhole(entry);
  if (isIndexed && writeBlob(entry.offset, blob.bytes(), {})) return true;
  if (hole) change.freeSlot(entry);
  else takeBackAppended(entry, isIndexed);
  slots_.drop(id);
  return false;
}

// No slot is used that has an entry, not even one that leaves it now: until the end every old value is there.
[[gnu::cold]] bool Store::Core::writeBatch(const Messages& set, const std::vector<unsigned int>& removed) {
  Change change(*this);
  if (!change.isWholeOrNothing()) return false;
  std::vector<Slots::Move> moves;
  for (const auto& [id, m] : set) {
    const Blob blob(m);
    const Slots::Move& move = moves.emplace_back(slots_.move(id, defaultLifetime_, blob.size()));
    if (move.left) change.willFreeSlot(id, *move.left);
    if (move.hole) change.willFill(*move.hole);
    else change.willAppend(move.entry);
    change.willWriteSlot(id, move.entry);
    change.willWriteOneBlob(move.entry.offset, blob.bytes());
  }
  for (const Slots::Move& move : moves) slots_.freeLeft(move);
  for (const unsigned int id : removed) {
    const auto entry = slots_.seek(id);
    if (entry == entries().end() || set.contains(id)) continue;
    change.willFreeSlot(id, entry->second);
    slots_.remove(entry);
  }
  if (change.carryOut()) {
    flush();
    return true;
  }
  slots_.clear();
  (void)decodeIndex(false);
  return false;
}

// Frees the last slot, which could not be filled.  The data file is made as long as the index requires all the same;
// if that fails, the files have nothing of the slot until the next change.
[[gnu::cold]] void Store::Core::takeBackAppended(const Entry& last, bool isIndexed) {
  const bool isFreed = writeSlot(last.slot, vacantSlot(last));
  if (isFreed && files_.data() >= 0 && files_.setDataLength(slots_.dataBytes())) return;
  if (isFreed || isIndexed) {
    (void)files_.setIdxLength(last.slot);
    (void)files_.setDataLength(last.offset);
  }
  slots_.backlog().unwritten.push_back(last);
}

bool Store::Core::openIdx() { return reportUnless(files_.openIdx(), "STORE: openIdx failed"); }
bool Store::Core::openData() { return reportUnless(files_.openData(), "STORE: openData failed"); }

bool Store::Core::writeSlot(unsigned int slot, const IndexSlot& content) {
  const ReportingLockGuard guard(journal_.lock());
  journal_.recover(guard);
  (void)openIdx();
  const bool wouldLeaveGap = files_.idx() >= 0 && slots_.backlog().isUnwritten(slot);
  if (wouldLeaveGap) return reportUnless(false, "STORE: writeIndexent write failed");
  if (!files_.writeSlot(slot, content)) return false;
  slots_.backlog().noteWritten(slot);
  flush();
  return true;
}

bool Store::Core::writeBlob(unsigned int offset, Bytes first, Bytes second) {
  const ReportingLockGuard guard(journal_.lock());
  journal_.recover(guard);
  if (!openData() || !files_.writeBlob(offset, first, second)) return false;
  flush();
  return true;
}

message Store::Core::readBlob(unsigned int offset, unsigned int expectedBytes) {
  (void)openData();
  return files_.readBlob(offset, expectedBytes);
}

// --- The public face

[[gnu::cold]] Store::Store(const std::string& path, unsigned int lifetime, Durability durability)
    : core_(std::make_unique<Core>(path, lifetime, durability)) {}
Store::~Store() = default;

const Store::Entries& Store::entries() const { return core_->entries(); }
void Store::set(unsigned int id, const message& m) { core_->set(id, m); }
message Store::get(unsigned int id) { return core_->get(id); }
bool Store::remove(unsigned int id) { return core_->remove(id); }
void Store::touch(unsigned int id, unsigned int lifetime) { core_->touch(id, lifetime); }
bool Store::batch(const Messages& set, const std::vector<unsigned int>& removed) {
  return core_->batch(set, removed);
}
void Store::age() { core_->age(); }
void Store::deleteFiles() { core_->deleteFiles(); }
void Store::restart() { core_->restart(); }

void Store::flush() { core_->flush(); }
void Store::doFlush() { core_->doFlush(); }
void Store::checkForBloat() { core_->checkForBloat(); }
void Store::doCompaction() { core_->doCompaction(); }
void Store::compact(bool convert) { core_->compact(convert); }
bool Store::readIndex(bool convert) { return core_->readIndex(convert); }

message Store::readMsg(unsigned int offset) { return core_->readBlob(offset, 0); }
bool Store::writeMsg(unsigned int offset, const std::vector<unsigned char>& bytes) {
  const LengthBytes length = encodeLength(bytes.size());
  return core_->writeBlob(offset, {length.data(), length.size()}, {bytes.data(), bytes.size()});
}
bool Store::writeIndexent(unsigned int id, Entry& e) { return core_->writeSlot(e.slot, slotWith(id, e)); }

bool Store::openIdx() { return core_->openIdx(); }
bool Store::openData() { return core_->openData(); }
void Store::closeIdx() { core_->closeIdx(); }
void Store::closeData() { core_->closeData(); }
void Store::cleanup() { core_->cleanup(); }

}  // namespace kl

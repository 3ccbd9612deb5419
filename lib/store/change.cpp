// One change of a store's files, whole or not at all.
//
//     lock -- recover -- note in the journal -- the writes -- drop the note -- unlock
//
// Killed before the note is whole, the change did not happen; killed after that, the next one to take the lock
// or to open the store makes it happen.
//
// On a full disk there may be no room for the note.  A change that makes the files longer then makes the lock file
// longer, which takes no room: its length counts the slots that there were, and those behind them are cut off if the
// change was not completed.  A change of bytes that are there goes on without.
//
// SC1  slots that the index had no room for are written before anything is written behind them
// SC2  a slot that could not be freed in the index is freed with the next change
//
// Held by StoreKillsOnFullDisk.CostsNothingButWhatFailedAndTheEntryInFlight,
// StoreFaults.ASlotThatTheIndexHadNoRoomForIsWrittenBeforeTheNext and
// StoreFaults.ASlotThatFailsAgainAndAgainIsCaughtUpWithOnce.

#include "store/change.h"

#include <utility>

namespace kl {
namespace {

constexpr std::size_t kSectorBytes = 512;
constexpr std::size_t kIdBytes = 4;

// The lengths of the files before they grew by the slot of this entry.
FileLengths lengthsBefore(const Store::Entry& entry) {
  return {static_cast<unsigned long long>(offsetInIndex(entry.slot)), entry.offset};
}

}  // namespace

Store::Core::Change::Change(Core& core) : core_(core) {
  ++core.changes_;
  guard_.emplace(core.journal_.lock());
  core.journal_.recover(*guard_);
  if (!core.files_.openIdx() || !core.files_.openData()) return;
  if (!core.slots_.backlog().unwritten.empty()) writeUnwrittenSlots();
  if (!core.slots_.backlog().unfreed.empty()) freeUnfreedSlots(core);
  if (core.journal_.lock().isHeld()) intent_.emplace(core.files_.ids());
}

Store::Core::Change::~Change() {
  withdraw();
  guard_.reset();
  --core_.changes_;
  if (core_.changes_ == 0 && std::exchange(core_.isFlushWanted_, false)) core_.doFlush();
}

void Store::Core::Change::willWriteSlot(unsigned int id, const Entry& entry) {
  if (intent_) intent_->willWriteSlot(entry.slot, slotWith(id, entry));
}

void Store::Core::Change::willFreeSlot(unsigned int id, const Entry& entry) {
  if (!intent_) return;
  intent_->willRestoreSlot(entry.slot, slotWith(id, entry));
  intent_->willWriteSlot(entry.slot, vacantSlot(entry));
}

void Store::Core::Change::willFill(const Entry& hole) {
  if (intent_) intent_->willRestoreSlot(hole.slot, vacantSlot(hole));
}

void Store::Core::Change::willAppend(const Entry& entry) {
  if (!intent_ || before_) return;
  before_ = lengthsBefore(entry);
  intent_->setLengthsBefore(*before_);
  core_.journal_.noteLengths(core_.files_, *before_);
}

void Store::Core::Change::willWriteBlob(unsigned int offset, Bytes blob) {
  if (intent_) intent_->willWriteBlob(offset, blob);
}

[[gnu::cold]] void Store::Core::Change::willWriteOneBlob(unsigned int offset, Bytes blob) {
  if (intent_) intent_->willWriteOneBlob(offset, blob);
}

[[gnu::cold]] bool Store::Core::Change::isWholeOrNothing() const {
  return intent_ && core_.slots_.backlog().unwritten.empty() && core_.slots_.backlog().unfreed.empty();
}

[[gnu::cold]] bool Store::Core::Change::carryOut() {
  isNoted_ = !core_.journal_.note(*intent_);
  return !isNoted_ && core_.journal_.carryOut(*intent_, core_.files_);
}

void Store::Core::Change::noteIntent() {
  if (!intent_) return;
  isNoted_ = true;
  isWhole_ = core_.journal_.note(*intent_);
  if (isWhole_) return;
  if (before_) core_.journal_.markEnd(*before_);
  else core_.journal_.withdraw();
}

void Store::Core::Change::writeFirstUnlessNoted(unsigned int id, const Entry& entry, Bytes blob) {
  if (!intent_ || isWhole_ || core_.slots_.backlog().isUnwritten(entry.slot)) return;
  if (core_.files_.tryWriteBlob(entry.offset, blob) &&
      core_.files_.tryWriteSlot(entry.slot, slotWith(id, entry)))
    return;
  if (!before_) return;
  (void)core_.files_.setIdxLength(entry.slot);
  (void)core_.files_.setDataLength(entry.offset);
}

// If the id lies in one sector and the size in the next, a loss of power may leave the size alone, which reads as
// entry 0.  So the index is synced before the data file grows.  Held by
// StorePowerLoss.CostsAtMostWhatWasChangedSinceTheLastFlush.
void Store::Core::Change::keepSlotWhole(const Entry& entry) {
  const bool isSplit = (entry.slot * kSlotBytes + kIdBytes) % kSectorBytes == 0;
  if (isSplit && core_.journal_.survivesPowerLoss()) (void)core_.files_.syncIdx();
}

void Store::Core::Change::freeSlot(const Entry& entry) {
  if (!core_.writeSlot(entry.slot, vacantSlot(entry))) core_.slots_.backlog().addUnfreed(entry);
}

void Store::Core::Change::freeUnfreedSlots(Core& core) {
  std::erase_if(core.slots_.backlog().unfreed, [&core](const Entry& entry) {
    return core.files_.tryWriteSlot(entry.slot, vacantSlot(entry));
  });
}

void Store::Core::Change::withdraw() {
  if (std::exchange(isNoted_, false)) core_.journal_.withdraw();
}

void Store::Core::Change::writeUnwrittenSlots() {
  std::vector<Entry>& slots = core_.slots_.backlog().unwritten;
  const bool isHeld = core_.journal_.lock().isHeld();
  before_ = lengthsBefore(slots.front());
  intent_.emplace(core_.files_.ids());
  intent_->setLengthsBefore(*before_);
  if (isHeld) core_.journal_.noteLengths(core_.files_, *before_);
  for (const Entry& slot : slots) intent_->willWriteSlot(slot.slot, vacantSlot(slot));
  intent_->willExtendData(core_.slots_.dataBytes());
  if (isHeld) noteIntent();
  if (extendFiles(slots)) slots.clear();
  withdraw();
  intent_.reset();
  before_.reset();
}

bool Store::Core::Change::extendFiles(const std::vector<Entry>& slots) {
  std::vector<unsigned char> bytes;
  for (const Entry& slot : slots) {
    const SlotBytes one = encodeSlot(vacantSlot(slot));
    bytes.insert(bytes.end(), one.begin(), one.end());
  }
  const unsigned int first = slots.front().slot;
  if (hasWritten(writeAt(core_.files_.idx(), {bytes.data(), bytes.size()}, offsetInIndex(first)),
                 bytes.size()) &&
      (!core_.journal_.survivesPowerLoss() || core_.files_.syncIdx()) &&
      core_.files_.setDataLength(core_.slots_.dataBytes()))
    return true;
  (void)core_.files_.setIdxLength(first);
  return false;
}

}  // namespace kl

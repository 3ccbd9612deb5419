// Rewrites both files without their free slots, in one pass over the old index.
//
// The new pair grows beside the old one and takes its place when it is whole.  A fault before the copying
// begins leaves the store as it was; a fault in the copying empties it.

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <utility>
#include <vector>

#include "base/descriptor.h"
#include "base/file_io.h"
#include "kl/store.h"
#include "store/files/format.h"
#include "store/files/index_reader.h"
#include "store/core.h"
#include "store/change.h"
#include "store/report.h"
#include "store/space/new_files.h"

namespace kl {
namespace {

constexpr std::size_t kCopyBytes = 65536;

bool report(const char* failure) {
  reportStore(failure);
  return false;
}

bool reportRead(ssize_t got) {
  return report(got < 0 && isSeekError(errno) ? "STORE: compact lseek failed" : "STORE: compact read failed");
}

bool writeAll(int fd, const void* data, std::size_t size, unsigned long long offset) {
  if (hasWritten(writeAt(fd, {data, size}, static_cast<off_t>(offset)), size)) return true;
  return report("STORE: compact write failed");
}

}  // namespace

// One pass from the old files to the new ones.
class __attribute__((visibility("hidden"))) Store::Compaction {
 public:
  Compaction(Store& store, const NewFiles& fresh, bool convert)
      : store_(store),
        fresh_(fresh),
        order_(convert ? ByteOrder::kBig : ByteOrder::kLittle),
        buffer_(kCopyBytes) {}

  bool copyLiveSlots();

 private:
  bool isLeft(unsigned int slot, unsigned int id) const;
  bool copySlot(const SlotRecord& record);
  bool copyRecord(const Entry& entry, const SlotRecord& record);
  bool repeatRecord(const Entry& entry, const SlotRecord& record);
  bool isCopied(unsigned int id, const Entry& entry) const;
  void turnLength();

  Store& store_;
  const NewFiles& fresh_;
  ByteOrder order_;
  std::vector<unsigned char> buffer_;
  std::vector<unsigned int> copiedIds_;  // by their new slots
};

void Store::compact(bool convert) {
  cancelTimers();
  const LockBracket bracket(internals_->lock);
  if (!openIdx() || !openData()) {
    closeIdx();
    closeData();
    return;
  }
  Change::catchUp(*this);
  NewFiles fresh(path_);
  if (!fresh.create()) return;
  if (!Compaction(*this, fresh, convert || internals_->isOlderLayout).copyLiveSlots()) return restart();
  if (!fresh.commit(internals_->lock, internals_->durability == Durability::kPowerLoss)) {
    reportStore("STORE: compact write failed");
    return restart();
  }
  closeIdx();
  closeData();
  internals_->isOlderLayout = false;
  internals_->unfreedSlots.clear();
  idxFd_ = fresh.takeIdx();
  dataFd_ = fresh.takeData();
  internals_->ids = {inodeOf(idxFd_), inodeOf(dataFd_)};
}

bool Store::Compaction::copyLiveSlots() {
  store_.freeBytes_ = store_.slotCount_ = store_.dataSize_ = store_.freeCount_ = 0;
  store_.internals_->freeSlots.clear();
  store_.internals_->unwrittenSlots.clear();
  IndexReader index(store_.idxFd_);
  for (unsigned int slot = 0; const unsigned char* bytes = index.next(); ++slot) {
    const SlotRecord record = decodeSlot(bytes, order_);
    if (!record.isFree() && !isLeft(slot, record.id) && !copySlot(record)) return false;
  }
  if (index.end() == IndexReader::End::kSeekFailed)
    return report("STORE: compact: could not seek to start in index");
  return index.end() == IndexReader::End::kReached || report("STORE: compact read failed");
}

// A slot that the entry has left, though the index file took no word of that.
bool Store::Compaction::isLeft(unsigned int slot, unsigned int id) const {
  const std::vector<Entry>& unfreed = store_.internals_->unfreedSlots;
  return store_.entries_.contains(id) &&
         std::any_of(unfreed.begin(), unfreed.end(),
                     [slot](const Entry& entry) { return entry.slot == slot; });
}

bool Store::Compaction::copySlot(const SlotRecord& record) {
  const auto found = store_.entries_.find(record.id);
  if (found == store_.entries_.end()) {
    reportStore("STORE: entry in file but not in map!!");
    return true;
  }
  Entry& entry = found->second;
  const SlotBytes bytes = encodeSlot(record);
  if (!writeAll(fresh_.idxFd(), bytes.data(), bytes.size(), copiedIds_.size() * kSlotRecordBytes))
    return false;
  if (isCopied(record.id, entry)) {
    if (!repeatRecord(entry, record)) return false;
  } else {
    if (!copyRecord(entry, record)) return false;
    entry.offset = store_.dataSize_;
    entry.slot = store_.slotCount_;
    store_.internals_->places.put({record.id, entry.offset, entry.size});
  }
  copiedIds_.push_back(record.id);
  store_.dataSize_ += record.size;
  ++store_.slotCount_;
  return true;
}

// The whole slot, slack included, from the old data file to the end of the new one.
bool Store::Compaction::copyRecord(const Entry& entry, const SlotRecord& record) {
  for (unsigned int done = 0; done < record.size;) {
    const std::size_t part = std::min<std::size_t>(record.size - done, buffer_.size());
    const ssize_t got = readAt(store_.dataFd_, buffer_.data(), part, static_cast<off_t>(entry.offset) + done);
    if (!hasWritten(got, part)) return reportRead(got);
    if (done == 0 && part >= kLengthBytes && order_ == ByteOrder::kBig) turnLength();
    if (!writeAll(fresh_.dataFd(), buffer_.data(), part, 0ULL + store_.dataSize_ + done)) return false;
    done += static_cast<unsigned int>(part);
  }
  return true;
}

// A second slot with the id of an earlier one gets the bytes that the earlier one got, as many as fit; what
// it is longer is zero.
bool Store::Compaction::repeatRecord(const Entry& entry, const SlotRecord& record) {
  const unsigned int shared = std::min(entry.size, record.size);
  for (unsigned int done = 0; done < shared;) {
    const std::size_t part = std::min<std::size_t>(shared - done, buffer_.size());
    const ssize_t got =
        readAt(fresh_.dataFd(), buffer_.data(), part, static_cast<off_t>(entry.offset) + done);
    if (!hasWritten(got, part)) return reportRead(got);
    if (!writeAll(fresh_.dataFd(), buffer_.data(), part, 0ULL + store_.dataSize_ + done)) return false;
    done += static_cast<unsigned int>(part);
  }
  return ::ftruncate(fresh_.dataFd(), static_cast<off_t>(store_.dataSize_) + record.size) == 0 ||
         report("STORE: compact write failed");
}

bool Store::Compaction::isCopied(unsigned int id, const Entry& entry) const {
  return entry.slot < copiedIds_.size() && copiedIds_[entry.slot] == id;
}

void Store::Compaction::turnLength() { std::swap(buffer_[0], buffer_[1]); }

}  // namespace kl

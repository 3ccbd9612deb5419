// Copies the slots that have an entry, in one pass over the old index.

#include "store/space/compaction.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <utility>

#include "base/file_io.h"
#include "base/report.h"
#include "store/files/index_reader.h"

namespace kl {
namespace {

bool report(const char* failure) {
  printLine(failure);
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

bool Compaction::copyEntries() {
  IndexReader index(old_.idx());
  for (unsigned int number = 0; const unsigned char* bytes = index.next(); ++number) {
    const IndexSlot slot = decodeSlot(bytes, order_);
    if (!slot.isFree() && !isLeft(number, slot.id) && !copySlot(slot)) return false;
  }
  if (index.end() == IndexReader::End::kSeekFailed)
    return report("STORE: compact: could not seek to start in index");
  if (index.end() != IndexReader::End::kReached) return report("STORE: compact read failed");
  return fresh_.trim({copied_.size() * kSlotBytes, dataBytes_}) || report("STORE: compact write failed");
}

// A slot that the entry has left, though the index file took no word of that.
bool Compaction::isLeft(unsigned int slot, unsigned int id) const {
  const std::vector<Store::Entry>& unfreed = slots_.backlog().unfreed;
  return slots_.entryOf(id) != nullptr &&
         std::any_of(unfreed.begin(), unfreed.end(),
                     [slot](const Store::Entry& entry) { return entry.slot == slot; });
}

bool Compaction::copySlot(const IndexSlot& slot) {
  const Store::Entry* const entry = slots_.entryOf(slot.id);
  if (entry == nullptr) {
    printLine("STORE: entry in file but not in map!!");
    return true;
  }
  const SlotBytes bytes = encodeSlot(slot);
  if (!writeAll(fresh_.idxFd(), bytes.data(), bytes.size(), copied_.size() * kSlotBytes)) return false;
  const EntryTable::Row* const first = firsts_.find(slot.id);
  if (first != nullptr ? !repeatBlob(*first, slot.size) : !copyBlob(*entry, slot.size)) return false;
  if (first == nullptr) firsts_.put({slot.id, dataBytes_, entry->size});
  copied_.push_back({slot.id, dataBytes_});
  dataBytes_ += slot.size;
  return true;
}

// The whole slot, slack included, from the old data file to the end of the new one.
bool Compaction::copyBlob(const Store::Entry& entry, unsigned int size) {
  for (unsigned int done = 0; done < size;) {
    const std::size_t part = std::min<std::size_t>(size - done, buffer_.size());
    const ssize_t got = readAt(old_.data(), buffer_.data(), part, static_cast<off_t>(entry.offset) + done);
    if (!hasWritten(got, part)) return reportRead(got);
    if (done == 0 && part >= kLengthBytes && order_ == ByteOrder::kBig) turnLength();
    if (!writeAll(fresh_.dataFd(), buffer_.data(), part, 0ULL + dataBytes_ + done)) return false;
    done += static_cast<unsigned int>(part);
  }
  return true;
}

// A second slot with the id of an earlier one gets the bytes that the earlier one got, as many as fit; what
// it is longer is zero.
bool Compaction::repeatBlob(const EntryTable::Row& first, unsigned int size) {
  const unsigned int shared = std::min(first.size, size);
  for (unsigned int done = 0; done < shared;) {
    const std::size_t part = std::min<std::size_t>(shared - done, buffer_.size());
    const ssize_t got =
        readAt(fresh_.dataFd(), buffer_.data(), part, static_cast<off_t>(first.offset) + done);
    if (!hasWritten(got, part)) return reportRead(got);
    if (!writeAll(fresh_.dataFd(), buffer_.data(), part, 0ULL + dataBytes_ + done)) return false;
    done += static_cast<unsigned int>(part);
  }
  return fillTo(0ULL + dataBytes_ + size) || report("STORE: compact write failed");
}

// Reserved bytes that were not written are zero already.
bool Compaction::fillTo(unsigned long long end) const {
  return lengthOf(fresh_.dataFd()) >= static_cast<long long>(end) ||
         ::ftruncate(fresh_.dataFd(), static_cast<off_t>(end)) == 0;
}

void Compaction::turnLength() { std::swap(buffer_[0], buffer_[1]); }

}  // namespace kl

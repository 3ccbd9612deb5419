// The entries that the journal of a store holds while something is under way, as bytes.
//
//     every entry               | intent, from 12 on          | each of its steps
//     offset size               | offset size                 | size
//          0    4  magic        |     12    8  inode of P.idx |    4  what to do (Kind)
//          4    4  length       |     20    8  inode of P.dat |    8  offset in the file, or a length
//          8    4  checksum     |     28    8  length of P.idx|    4  number of bytes
//         12       body         |     36    8  length of P.dat|       the bytes
//                               |     44       steps          |
//
// A commit's body is the two inodes; that of durable lengths the two inodes and the two lengths.  The length counts the
// whole entry, the checksum its body.  Little-endian.
//
// The checksum takes the body as numbers of 64 bits, the last one filled up with zeros, and deals them to four sums in
// turn, so that a processor works on four at a time.  All sums begin as 0; a number n makes a sum s into
// t = (s ^ n) * 9e3779b97f4a7c15 and that into t ^ t >> 32.  A fifth sum takes the four and the body's length in the
// same way; its low 32 bits count.
// Held by StoreIntent.AnIntentInBytes.

#include "store/journal/journal_entries.h"

#include <algorithm>
#include <cstdint>
#include <cstring>

#include "base/byte_order.h"

namespace kl {
namespace {

constexpr std::size_t kHeaderBytes = 12;
constexpr std::size_t kBodyBytes = 32;
constexpr std::size_t kStepBytes = 16;
// Four slots and the step of a blob: no change of one store entry has more.
constexpr std::size_t kUsualHeadBytes = kHeaderBytes + kBodyBytes + 5 * kStepBytes + 4 * kSlotBytes;
constexpr unsigned int kIntentMagic = 0x4e494c4b;   // "KLIN"
constexpr unsigned int kCommitMagic = 0x4f434c4b;   // "KLCO"
constexpr unsigned int kDurableMagic = 0x55444c4b;  // "KLDU"

constexpr unsigned long long kAnyLength = ~0ULL >> 1;  // no file is cut back to it

using Sum = std::uint64_t;

Sum mixed(Sum sum, std::uint64_t number) {
  sum = (sum ^ number) * 0x9e3779b97f4a7c15;
  return sum ^ sum >> 32;
}

// Takes bytes 32 at a time, wherever one piece ends and the next begins.
class Checksum {
 public:
  void add(const void* data, std::size_t size) {
    const auto* bytes = static_cast<const unsigned char*>(data);
    if (size == 0) return;
    length_ += size;
    if (rest_ > 0) {
      const std::size_t part = completeBlock(bytes, size);
      bytes += part;
      size -= part;
    }
    for (; size >= kBlock; size -= kBlock, bytes += kBlock) addBlock(bytes);
    keep(bytes, size);
  }

  // Ends it.
  unsigned int value() {
    std::memset(begun_ + rest_, 0, kBlock - rest_);
    for (std::size_t at = 0; at < rest_; at += kLane)
      sums_[at / kLane] = mixed(sums_[at / kLane], loadLe64(begun_ + at));
    Sum all = 0;
    for (const Sum sum : sums_) all = mixed(all, sum);
    return static_cast<unsigned int>(mixed(all, length_));
  }

 private:
  static constexpr std::size_t kLane = 8;
  static constexpr std::size_t kBlock = 4 * kLane;

  // Fills up the block that has begun, and returns how many of the bytes that took.
  std::size_t completeBlock(const unsigned char* bytes, std::size_t size) {
    const std::size_t part = std::min(size, kBlock - rest_);
    keep(bytes, part);
    if (rest_ == kBlock) {
      addBlock(begun_);
      rest_ = 0;
    }
    return part;
  }

  void keep(const unsigned char* bytes, std::size_t size) {
    std::memcpy(begun_ + rest_, bytes, size);
    rest_ += size;
  }

  void addBlock(const unsigned char* bytes) {
    for (std::size_t i = 0; i < 4; ++i) sums_[i] = mixed(sums_[i], loadLe64(bytes + i * kLane));
  }

  Sum sums_[4] = {};
  std::uint64_t length_ = 0;
  std::size_t rest_ = 0;  // bytes of a block that has begun
  unsigned char begun_[kBlock];
};

[[gnu::cold]] unsigned int checksum(const void* data, std::size_t size) {
  Checksum sum;
  sum.add(data, size);
  return sum.value();
}

void putBody(unsigned char* to, const FileIds& ids, const FileLengths& lengths) {
  storeLe64(to, ids.idx);
  storeLe64(to + 8, ids.data);
  storeLe64(to + 16, lengths.idx);
  storeLe64(to + 24, lengths.data);
}

void getBody(const unsigned char* from, FileIds& ids, FileLengths& lengths) {
  ids = {loadLe64(from), loadLe64(from + 8)};
  lengths = {loadLe64(from + 16), loadLe64(from + 24)};
}

void putHeader(unsigned char* to, unsigned int magic, std::size_t length, unsigned int sum) {
  storeLe32(to, magic);
  storeLe32(to + 4, static_cast<std::uint32_t>(length));
  storeLe32(to + 8, sum);
}

// The length of the whole entry that the bytes begin with; 0 if there is none.
[[gnu::cold]] std::size_t wholeEntry(const unsigned char* bytes, std::size_t size, unsigned int magic) {
  if (size < kHeaderBytes || loadLe32(bytes) != magic) return 0;
  const std::size_t length = loadLe32(bytes + 4);
  if (length < kHeaderBytes || length > size) return 0;
  return checksum(bytes + kHeaderBytes, length - kHeaderBytes) == loadLe32(bytes + 8) ? length : 0;
}

}  // namespace

Intent::Intent(const FileIds& ids) : ids_(ids) {
  head_.reserve(kUsualHeadBytes);
  head_.resize(kHeaderBytes + kBodyBytes);
  setLengthsBefore({kAnyLength, kAnyLength});
}

void Intent::setLengthsBefore(const FileLengths& before) { putBody(&head_[kHeaderBytes], ids_, before); }

void Intent::willExtendData(unsigned long long length) { addStep(Kind::kExtend, length, 0); }

void Intent::willWriteBlob(unsigned int offset, Bytes blob) {
  addStep(Kind::kWriteData, offset, blob.size);
  blob_ = blob;
}

[[gnu::cold]] void Intent::willWriteOneBlob(unsigned int offset, Bytes blob) {
  addStep(Kind::kWriteData, offset, blob.size);
  const std::size_t start = head_.size();
  head_.resize(start + blob.size);
  std::memcpy(&head_[start], blob.data, blob.size);
}

bool Intent::write(int lockFd, std::size_t offset) {
  Checksum sum;
  sum.add(&head_[kHeaderBytes], head_.size() - kHeaderBytes);
  sum.add(blob_.data, blob_.size);
  const std::size_t length = head_.size() + blob_.size;
  putHeader(head_.data(), kIntentMagic, length, sum.value());
  return hasWritten(writeAt(lockFd, {head_.data(), head_.size()}, blob_, static_cast<off_t>(offset)), length);
}

void Intent::addSlot(Kind kind, unsigned int slot, const IndexSlot& content) {
  const SlotBytes bytes = encodeSlot(content);
  addStep(kind, static_cast<unsigned long long>(offsetInIndex(slot)), bytes.size());
  head_.insert(head_.end(), bytes.begin(), bytes.end());
}

void Intent::addStep(Kind kind, unsigned long long offset, std::size_t size) {
  const std::size_t start = head_.size();
  head_.resize(start + kStepBytes);
  storeLe32(&head_[start], static_cast<std::uint32_t>(kind));
  storeLe64(&head_[start + 4], offset);
  storeLe32(&head_[start + 12], static_cast<std::uint32_t>(size));
}

[[gnu::cold]] bool IntentReader::read(const unsigned char* bytes, std::size_t size) {
  const std::size_t length = wholeEntry(bytes, size, kIntentMagic);
  if (length < kHeaderBytes + kBodyBytes) return false;
  getBody(bytes + kHeaderBytes, ids_, before_);
  steps_.clear();
  for (std::size_t at = kHeaderBytes + kBodyBytes; at < length;) {
    if (length - at < kStepBytes) return false;
    const std::size_t count = loadLe32(bytes + at + 12);
    if (count > length - at - kStepBytes ||
        loadLe32(bytes + at) > static_cast<unsigned int>(Intent::Kind::kRestore))
      return false;
    steps_.push_back({static_cast<Intent::Kind>(loadLe32(bytes + at)),
                      loadLe64(bytes + at + 4),
                      {bytes + at + kStepBytes, count}});
    at += kStepBytes + count;
  }
  return true;
}

[[gnu::cold]] long long decodeEndMark(const unsigned char* bytes, std::size_t size) {
  const bool isMark =
      size > 0 && std::all_of(bytes, bytes + size, [](unsigned char byte) { return byte == 0; });
  return isMark ? static_cast<long long>(size) - 1 : -1;
}

[[gnu::cold]] CommitBytes encodeCommit(const FileIds& fresh) {
  CommitBytes bytes;
  storeLe64(&bytes[kHeaderBytes], fresh.idx);
  storeLe64(&bytes[kHeaderBytes + 8], fresh.data);
  putHeader(bytes.data(), kCommitMagic, bytes.size(), checksum(&bytes[kHeaderBytes], 16));
  return bytes;
}

[[gnu::cold]] bool decodeCommit(const unsigned char* bytes, std::size_t size, FileIds& fresh) {
  if (wholeEntry(bytes, size, kCommitMagic) != CommitBytes().size()) return false;
  fresh = {loadLe64(bytes + kHeaderBytes), loadLe64(bytes + kHeaderBytes + 8)};
  return true;
}

[[gnu::cold]] DurableBytes encodeDurable(const FileIds& ids, const FileLengths& lengths) {
  DurableBytes bytes;
  putBody(&bytes[kHeaderBytes], ids, lengths);
  putHeader(bytes.data(), kDurableMagic, bytes.size(), checksum(&bytes[kHeaderBytes], kBodyBytes));
  return bytes;
}

[[gnu::cold]] bool decodeDurable(const unsigned char* bytes, std::size_t size, FileIds& ids,
                                 FileLengths& lengths) {
  if (wholeEntry(bytes, size, kDurableMagic) != kDurableBytes) return false;
  getBody(bytes + kHeaderBytes, ids, lengths);
  return true;
}

[[gnu::cold]] std::size_t durableBytesClaimed(const unsigned char* bytes, std::size_t size) {
  return size >= kHeaderBytes && loadLe32(bytes) == kDurableMagic ? loadLe32(bytes + 4) : 0;
}

}  // namespace kl

// The records that the lock file holds while something is under way.
//
//     every record              | intent, from 12 on          | each of its steps
//     offset size               | offset size                 | size
//          0    4  magic        |     12    8  inode of P.idx |    4  what to do (Step)
//          4    4  length       |     20    8  inode of P.dat |    8  place in the file, or a length
//          8    4  checksum     |     28    8  length of P.idx|    4  number of bytes
//         12       body         |     36    8  length of P.dat|       the bytes
//                               |     44       steps          |
//
// A commit's body is the two inodes; a durable record's the two inodes and the two lengths.  The length counts the
// whole record, the checksum its body.  Little-endian.
//
// The checksum takes numbers of 64 bits: the body's, the last one filled up with zeros, and the body's length.  From
// 0 on, each one n makes s into t = (s ^ n) * 9e3779b97f4a7c15 and that into t ^ t >> 32; the low 32 bits of the end
// count.
// Held by StoreIntent.AnIntentInBytes.

#include "store/intent.h"

namespace kl {
namespace {

constexpr std::size_t kHeaderBytes = 12;
constexpr std::size_t kBodyBytes = 32;
constexpr std::size_t kStepBytes = 16;
constexpr unsigned int kIntentMagic = 0x4e494c4b;   // "KLIN"
constexpr unsigned int kCommitMagic = 0x4f434c4b;   // "KLCO"
constexpr unsigned int kDurableMagic = 0x55444c4b;  // "KLDU"

constexpr unsigned long long kAnyLength = ~0ULL >> 1;  // no file is cut back to it

// Eight bytes, the first one the lowest.
unsigned long long lane(const unsigned char* from) {
  const auto at = [from](unsigned int i) { return static_cast<unsigned long long>(from[i]) << (8 * i); };
  return at(0) | at(1) | at(2) | at(3) | at(4) | at(5) | at(6) | at(7);
}

// Takes bytes eight at a time, wherever one piece ends and the next begins.
class Checksum {
 public:
  void add(const void* data, std::size_t size) {
    const auto* bytes = static_cast<const unsigned char*>(data);
    length_ += size;
    for (; size > 0 && rest_ > 0; --size) addByte(*bytes++);
    for (; size >= kLane; size -= kLane, bytes += kLane) mix(lane(bytes));
    for (; size > 0; --size) addByte(*bytes++);
  }

  // Ends it.
  unsigned int value() {
    while (rest_ > 0) addByte(0);
    mix(length_);
    return static_cast<unsigned int>(sum_);
  }

 private:
  static constexpr unsigned int kLane = 8;

  void addByte(unsigned char byte) {
    begun_[rest_++] = byte;
    if (rest_ < kLane) return;
    rest_ = 0;
    mix(lane(begun_));
  }

  void mix(unsigned long long number) {
    sum_ = (sum_ ^ number) * 0x9e3779b97f4a7c15;
    sum_ ^= sum_ >> 32;
  }

  unsigned long long sum_ = 0;
  unsigned long long length_ = 0;
  unsigned int rest_ = 0;  // bytes of a lane that has begun
  unsigned char begun_[kLane];
};

unsigned int checksum(const void* data, std::size_t size) {
  Checksum sum;
  sum.add(data, size);
  return sum.value();
}

void put(unsigned char* to, unsigned long long number, unsigned int bytes) {
  for (unsigned int i = 0; i < bytes; ++i) to[i] = static_cast<unsigned char>(number >> (8 * i));
}

unsigned long long get(const unsigned char* from, unsigned int bytes) {
  unsigned long long number = 0;
  for (unsigned int i = bytes; i > 0; --i) number = number << 8 | from[i - 1];
  return number;
}

unsigned int word(const unsigned char* from) { return static_cast<unsigned int>(get(from, 4)); }

void putBody(unsigned char* to, const FileIds& ids, const FileLengths& lengths) {
  put(to, ids.idx, 8);
  put(to + 8, ids.data, 8);
  put(to + 16, lengths.idx, 8);
  put(to + 24, lengths.data, 8);
}

void getBody(const unsigned char* from, FileIds& ids, FileLengths& lengths) {
  ids = {get(from, 8), get(from + 8, 8)};
  lengths = {get(from + 16, 8), get(from + 24, 8)};
}

void putHeader(unsigned char* to, unsigned int magic, std::size_t length, unsigned int sum) {
  put(to, magic, 4);
  put(to + 4, length, 4);
  put(to + 8, sum, 4);
}

// The length of the whole record that the bytes begin with; 0 if there is none.
std::size_t wholeRecord(const unsigned char* bytes, std::size_t size, unsigned int magic) {
  if (size < kHeaderBytes || word(bytes) != magic) return 0;
  const std::size_t length = word(bytes + 4);
  if (length < kHeaderBytes || length > size) return 0;
  return checksum(bytes + kHeaderBytes, length - kHeaderBytes) == word(bytes + 8) ? length : 0;
}

}  // namespace

Intent::Intent(const FileIds& ids) : ids_(ids), head_(kHeaderBytes + kBodyBytes) {
  cutBackTo({kAnyLength, kAnyLength});
}

void Intent::cutBackTo(const FileLengths& before) { putBody(&head_[kHeaderBytes], ids_, before); }

void Intent::extendData(unsigned long long length) { addStep(Step::kExtend, length, 0); }

void Intent::writeRecord(unsigned int offset, const std::vector<unsigned char>& payload) {
  const LengthBytes length = encodeLength(payload.size());
  addStep(Step::kWriteData, offset, length.size() + payload.size());
  head_.insert(head_.end(), length.begin(), length.end());
  payload_ = {payload.data(), payload.size()};
}

bool Intent::write(int lockFd, std::size_t place) {
  Checksum sum;
  sum.add(&head_[kHeaderBytes], head_.size() - kHeaderBytes);
  sum.add(payload_.data, payload_.size);
  const std::size_t length = head_.size() + payload_.size;
  putHeader(head_.data(), kIntentMagic, length, sum.value());
  return hasWritten(writeAt(lockFd, {head_.data(), head_.size()}, payload_, static_cast<off_t>(place)),
                    length);
}

void Intent::addSlot(Step step, unsigned int slot, const SlotRecord& record) {
  const SlotBytes bytes = encodeSlot(record);
  addStep(step, static_cast<unsigned long long>(slot) * kSlotRecordBytes, bytes.size());
  head_.insert(head_.end(), bytes.begin(), bytes.end());
}

void Intent::addStep(Step step, unsigned long long place, std::size_t size) {
  const std::size_t start = head_.size();
  head_.resize(start + kStepBytes);
  put(&head_[start], static_cast<unsigned int>(step), 4);
  put(&head_[start + 4], place, 8);
  put(&head_[start + 12], size, 4);
}

bool IntentReader::read(const unsigned char* bytes, std::size_t size) {
  const std::size_t length = wholeRecord(bytes, size, kIntentMagic);
  if (length < kHeaderBytes + kBodyBytes) return false;
  getBody(bytes + kHeaderBytes, ids_, before_);
  items_.clear();
  for (std::size_t at = kHeaderBytes + kBodyBytes; at < length;) {
    if (length - at < kStepBytes) return false;
    const std::size_t count = word(bytes + at + 12);
    if (count > length - at - kStepBytes || word(bytes + at) > static_cast<unsigned int>(Step::kRestore))
      return false;
    items_.push_back(
        {static_cast<Step>(word(bytes + at)), get(bytes + at + 4, 8), {bytes + at + kStepBytes, count}});
    at += kStepBytes + count;
  }
  return true;
}

CommitBytes encodeCommit(const FileIds& fresh) {
  CommitBytes bytes;
  put(&bytes[kHeaderBytes], fresh.idx, 8);
  put(&bytes[kHeaderBytes + 8], fresh.data, 8);
  putHeader(bytes.data(), kCommitMagic, bytes.size(), checksum(&bytes[kHeaderBytes], 16));
  return bytes;
}

bool decodeCommit(const unsigned char* bytes, std::size_t size, FileIds& fresh) {
  if (wholeRecord(bytes, size, kCommitMagic) != CommitBytes().size()) return false;
  fresh = {get(bytes + kHeaderBytes, 8), get(bytes + kHeaderBytes + 8, 8)};
  return true;
}

DurableBytes encodeDurable(const FileIds& ids, const FileLengths& lengths) {
  DurableBytes bytes;
  putBody(&bytes[kHeaderBytes], ids, lengths);
  putHeader(bytes.data(), kDurableMagic, bytes.size(), checksum(&bytes[kHeaderBytes], kBodyBytes));
  return bytes;
}

bool decodeDurable(const unsigned char* bytes, std::size_t size, FileIds& ids, FileLengths& lengths) {
  if (wholeRecord(bytes, size, kDurableMagic) != kDurableBytes) return false;
  getBody(bytes + kHeaderBytes, ids, lengths);
  return true;
}

}  // namespace kl

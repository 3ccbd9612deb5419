#pragma once
// kl/records.h: a read-only walk over the records of a flattened message, without building the message.
//
// A flattened message is the two bytes "M2" and then one record per field, back to back: a 32-bit
// little-endian id and a payload whose shape follows from the id's type bits.  A program that routes, prints or
// counts messages needs a few of their fields and none of their tables; this walk gives them where they lie:
//
//     kl::RecordWalk walk(bytes);
//     for (kl::Record record; walk.next(record);)
//       if (record.id() == kl::SYS_CMD) command = record.u32();
//     if (!walk.ok()) return refuse();        // the bytes did not end where a record ends
//
// The walk accepts exactly what kl::message::unflatten accepts of this format; the older format is not
// walked.  kl/message_view.h finds fields by their ids.

#include <cstddef>
#include <span>
#include <string_view>

namespace kl {

// The kinds of values that fields hold.
enum class RecordKind : unsigned char { kBool, kU32, kU64, kAddr6, kString, kMessage, kRaw };

// The bit of an id as written that belongs to the format: it says which of two shapes the payload has, and no field's id
// has it.
inline constexpr unsigned int kRecordFlag = 0x01000000;

// Numbers of the format on a host of any byte order.  Needs: so many bytes at `at`.  They stand here, and not with the
// library's own, because a public header includes no internal one and its constants are computed while compiling.
constexpr unsigned int readLe16(const unsigned char* at) {
  return static_cast<unsigned int>(at[0]) | static_cast<unsigned int>(at[1]) << 8;
}
constexpr unsigned int readLe32(const unsigned char* at) { return readLe16(at) | readLe16(at + 2) << 16; }
constexpr unsigned long long readLe64(const unsigned char* at) {
  return readLe32(at) | static_cast<unsigned long long>(readLe32(at + 4)) << 32;
}

// The payload behind the id of a record, by the last byte of the id as written, in which bits 31..27 tell the type and
// bit 24 is the flag: so many bytes; a length of one byte or of two, and so many bytes; a count of two bytes and
// elements of one size, or elements with a length each.
struct RecordShapes {
  static constexpr unsigned char kMostBytes = 16, kShortLength = 17, kLongLength = 18, kElements = 19,
                                 kPrefixedElements = 64, kUnknown = 65;
  unsigned char codes[256];
};
constexpr unsigned char recordShape(unsigned int last) {
  const bool isArray = last >= 128;
  const bool flag = (last & 1) != 0;
  switch (last >> 3 & 15) {
    case 0: return isArray ? RecordShapes::kElements + 1 : 0;
    case 1: return isArray ? RecordShapes::kElements + 4 : flag ? 1 : 4;
    case 2: return isArray ? RecordShapes::kElements + 8 : 8;
    case 3: return isArray ? RecordShapes::kElements + 16 : 16;
    case 4:
    case 5:
    case 6:
      return isArray ? RecordShapes::kPrefixedElements
             : flag  ? RecordShapes::kShortLength
                     : RecordShapes::kLongLength;
    default: return RecordShapes::kUnknown;
  }
}
constexpr RecordShapes recordShapes() {
  RecordShapes shapes{};
  for (unsigned int last = 0; last < 256; ++last) shapes.codes[last] = recordShape(last);
  return shapes;
}
inline constexpr RecordShapes kRecordShapes = recordShapes();

// Bytes of the array record at `at`, as recordBytes().
inline std::size_t arrayBytes(const unsigned char* at, std::size_t left) {
  const unsigned int code = kRecordShapes.codes[at[3]];
  if (code == RecordShapes::kUnknown || left < 6) return 0;
  unsigned int count = readLe16(at + 4);
  std::size_t bytes = 6;
  if (code != RecordShapes::kPrefixedElements) {
    bytes += std::size_t{count} * (code - RecordShapes::kElements);
    return left < bytes ? 0 : bytes;
  }
  for (; count > 0; --count) {
    if (left - bytes < 2 || left - bytes - 2 < readLe16(at + bytes)) return 0;
    bytes += 2 + readLe16(at + bytes);
  }
  return bytes;
}

// Bytes of the record at `at`, of which `left` are there; 0 if its type is unknown or it is not all there.
inline std::size_t recordBytes(const unsigned char* at, std::size_t left) {
  if (left < 4) return 0;
  const std::size_t code = kRecordShapes.codes[at[3]];
  std::size_t bytes = 4 + code;
  if (code > RecordShapes::kMostBytes) {
    if (code > RecordShapes::kLongLength) return arrayBytes(at, left);
    const std::size_t header = code == RecordShapes::kShortLength ? 5 : 6;
    if (left < header) return 0;
    bytes = header + (header == 5 ? at[4] : readLe16(at + 4));
  }
  return left < bytes ? 0 : bytes;
}

// One record, as a view of the bytes that it was found in.
//
// Errors:    asking for a value of another kind gives 0, false or an empty text, never a read outside the record.
// Ownership: borrows the walked bytes; a record is of use as long as they are.
// Threads:   a value; any number of threads may read one.
// Cost:      every operation takes constant time, and none allocates.
class Record {
 public:
  // The field id, with bit 24 (which belongs to the format) cleared.
  unsigned int id() const { return id_; }
  RecordKind kind() const { return static_cast<RecordKind>(id_ >> 27 & 15); }
  bool isArray() const { return (id_ & 0x80000000) != 0; }

  // The whole record, id included, as it stands in the message.
  std::span<const unsigned char> bytes() const { return bytes_; }

  // The value alone: 1 or 4 bytes of a u32, the 8 or 16 of a u64 or an address, the bytes of a string, a
  // nested message or raw data without their length, nothing for a bool.  An array's is what follows its count.
  std::span<const unsigned char> payload() const { return bytes_.subspan(header_); }

  // Elements of an array; 1 for a single value.
  unsigned int count() const { return count_; }

  // The value of a single field of the kind in the name.
  bool boolean() const { return is(RecordKind::kBool) && flag_; }
  unsigned int u32() const {
    if (!is(RecordKind::kU32)) return 0;
    return flag_ ? payload()[0] : readLe32(payload().data());
  }
  unsigned long long u64() const { return is(RecordKind::kU64) ? readLe64(payload().data()) : 0; }
  std::string_view text() const {
    if (!is(RecordKind::kString)) return {};
    return {reinterpret_cast<const char*>(payload().data()), payload().size()};
  }

  // Element `index` of a u32 array; 0 beyond its end.
  unsigned int u32At(unsigned int index) const {
    if (kind() != RecordKind::kU32 || !isArray() || index >= count_) return 0;
    return readLe32(payload().data() + std::size_t{4} * index);
  }

 private:
  friend class RecordWalk;
  friend class message_view;

  // Becomes the record of these bytes.  Needs: it is all there.
  void take(std::span<const unsigned char> bytes) {
    const unsigned int code = kRecordShapes.codes[bytes[3]];
    const unsigned int written = readLe32(bytes.data());
    bytes_ = bytes;
    id_ = written & ~kRecordFlag;
    flag_ = (written & kRecordFlag) != 0;
    header_ = code <= RecordShapes::kMostBytes ? 4 : code == RecordShapes::kShortLength ? 5 : 6;
    count_ = isArray() ? readLe16(bytes.data() + 4) : 1;
  }

  bool is(RecordKind kind) const { return !bytes_.empty() && !isArray() && this->kind() == kind; }

  std::span<const unsigned char> bytes_;
  unsigned int id_ = 0;
  unsigned int count_ = 0;
  unsigned char header_ = 0;  // bytes in front of the payload: the id, and a length or a count
  bool flag_ = false;         // bit 24 of the id as written: a bool's value, or the short form
};

// Walks the records of one flattened message in the order in which they stand.  A field that stands twice is
// met twice: the walk reports every record and judges none.
//
// Errors:    next() is false at the end and at the first record that does not fit; ok() tells them apart.
// Ownership: borrows the bytes.
// Threads:   belongs to one thread.
// Cost:      a few instructions a record and no allocation; elements of string, message and raw arrays are
//            stepped over one by one.
class RecordWalk {
 public:
  explicit RecordWalk(std::span<const unsigned char> message)
      : at_(message.data()), end_(message.data() + message.size()) {
    ok_ = message.size() >= 2 && at_[0] == 0x4d && at_[1] == 0x32;
    if (ok_) at_ += 2;
  }

  // Steps to the next record.  False when there is none, or none that lies wholly inside the message.
  bool next(Record& record) {
    if (!ok_ || at_ == end_) return false;
    ok_ = read(record);
    return ok_;
  }

  // True as long as everything up to here was well-formed; after next() was false: the whole message is.
  bool ok() const { return ok_; }

 private:
  bool read(Record& record) {
    const std::size_t bytes = recordBytes(at_, static_cast<std::size_t>(end_ - at_));
    if (bytes == 0) return false;
    record.take({at_, bytes});
    at_ += bytes;
    return true;
  }

  const unsigned char* at_;
  const unsigned char* end_;
  bool ok_;
};

// Walks the elements of an array record, of whatever kind: each is the bytes of one value, without its
// length.  A single value counts as an array of one.
//
// Errors:    none; the record was checked when it was found.
// Ownership: borrows what the record borrows.
// Threads:   belongs to one thread.
// Cost:      constant time an element, no allocation.
class ElementWalk {
 public:
  explicit ElementWalk(const Record& record)
      : rest_(record.payload()), left_(record.count()), fixed_(elementBytes(record)) {}

  // Steps to the next element; false when there is none.
  bool next(std::span<const unsigned char>& element) {
    if (left_ == 0) return false;
    --left_;
    const std::size_t prefix = fixed_ == kPrefixed ? 2 : 0;
    const std::size_t length = fixed_ == kPrefixed ? readLe16(rest_.data()) : fixed_;
    element = rest_.subspan(prefix, length);
    rest_ = rest_.subspan(prefix + length);
    return true;
  }

 private:
  static constexpr std::size_t kPrefixed = ~std::size_t{0};

  static std::size_t elementBytes(const Record& record) {
    if (!record.isArray()) return record.payload().size();
    switch (record.kind()) {
      case RecordKind::kBool: return 1;
      case RecordKind::kU32: return 4;
      case RecordKind::kU64: return 8;
      case RecordKind::kAddr6: return 16;
      case RecordKind::kString:
      case RecordKind::kMessage:
      case RecordKind::kRaw: break;
    }
    return kPrefixed;
  }

  std::span<const unsigned char> rest_;
  unsigned int left_;
  std::size_t fixed_;
};

}  // namespace kl

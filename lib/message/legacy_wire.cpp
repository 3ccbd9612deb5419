// The older byte format, which is read and never written.
//
//     message   2 bytes: the number of records; the records; whatever follows is ignored
//     record    9 bytes of header and a payload, little-endian:
//               0  kind: 1 bool, 2 u32, 3 string, 4 raw, 5 message
//               1  field number, 2 bytes                         3  unused
//               4  name space in the low half: 1 std, 2 local, 3 sys, else global
//               5  elements, 2 bytes: 1 is a single value, anything else an array       7  unused, 2 bytes
//
//     payload of an element:  bool 1 byte; u32 4 bytes; the others 2 bytes length and the bytes.  The bytes of a
//     single string end in a terminator, which is dropped; those of a string in an array do not.
//
// For example the u32 0x08ff0005 = 42:
//
//     01 00 | 02  05 00  00  03  01 00  00 00 | 2a 00 00 00
//
// G1  nothing is read outside the given bytes; a payload that is not all there ends the reading, and the
//     elements of an array that were there stay

#include <algorithm>

#include "message/wire.h"

namespace kl::container {
namespace {

constexpr std::size_t kHeaderBytes = 9;

struct Header {
  unsigned int id;    // of a single value
  std::size_t count;  // elements
  bool isArray;
};

// The type bits of a legacy kind.  Needs: 1 to 5.
unsigned int typeBits(unsigned int legacyKind) {
  constexpr unsigned int kBits[] = {0x00000000, 0x08000000, 0x20000000, 0x30000000, 0x28000000};
  return kBits[legacyKind - 1];
}

unsigned int nameSpaceBits(unsigned int code) {
  constexpr unsigned int kSpaces[] = {0x00, 0xFE, 0xFD, 0xFF};
  return code < 4 ? kSpaces[code] << 16 : 0;
}

Header headerAt(const unsigned char* at) {
  const std::size_t count = loadLe16(at + 5);
  return {typeBits(at[0]) | nameSpaceBits(at[4] & 15u) | loadLe16(at + 1), count, count != 1};
}

class LegacyReader {
 public:
  LegacyReader(message::Rep& rep, const unsigned char* data, std::size_t len, Reading reading)
      : rep_(rep), at_(data + 2), end_(data + len), records_(loadLe16(data)), reading_(reading) {}

  Outcome readRecords();

 private:
  std::size_t left() const { return static_cast<std::size_t>(end_ - at_); }
  Outcome readRecord();
  Outcome readSingle(const Header& header);
  Outcome readArray(const Header& header);
  std::size_t wholeElements(Kind kind, std::size_t count, std::size_t& bytes) const;
  Outcome append(Kind kind, unsigned int id, std::size_t bytes, std::size_t count);
  Outcome appendBytes(const Node* node, Kind kind, unsigned int id, std::size_t bytes, std::size_t count);
  void store(Kind kind, unsigned int id, std::size_t bytes, std::size_t count);

  message::Rep& rep_;
  const unsigned char* at_;
  const unsigned char* end_;
  unsigned int records_;
  Reading reading_;
};

Outcome LegacyReader::readRecords() {
  for (; records_ > 0; --records_)
    if (const Outcome outcome = readRecord(); outcome != Outcome::ok) return outcome;
  return Outcome::ok;
}

Outcome LegacyReader::readRecord() {
  if (left() < kHeaderBytes) return Outcome::fault;
  if (at_[0] == 0 || at_[0] > 5) return Outcome::fault;
  if (!hasRoomForField(rep_, 0)) return Outcome::noRoom;
  const Header header = headerAt(at_);
  at_ += kHeaderBytes;
  return header.isArray ? readArray(header) : readSingle(header);
}

Outcome LegacyReader::readSingle(const Header& header) {
  const Kind kind = kindOf(header.id);
  const std::size_t prefix = kind == Kind::boolean ? 1 : kind == Kind::u32 ? 4 : 2;
  if (left() < prefix) return Outcome::fault;
  const unsigned char* const payload = at_;
  at_ += prefix;
  if (kind == Kind::boolean) return rep_.boolRef(header.id) = *payload != 0, Outcome::ok;
  if (kind == Kind::u32) return rep_.u32Ref(header.id) = loadLe32(payload), Outcome::ok;

  const std::size_t length = loadLe16(payload);
  if (left() < length) return Outcome::fault;
  const std::size_t kept = kind == Kind::string && length > 0 ? length - 1 : length;
  store(kind, header.id, kept, 0);
  at_ += length;
  return Outcome::ok;
}

// Kept on purpose: the elements join those that the array has, where the newer format replaces them.
// Held by LegacyWire.AnArrayJoinsTheElementsThatAreThere.
Outcome LegacyReader::readArray(const Header& header) {
  const unsigned int id = header.id | 0x80000000;
  std::size_t bytes = 0;
  const std::size_t whole = wholeElements(kindOf(id), header.count, bytes);
  const Outcome outcome = append(kindOf(id), id, bytes, whole);
  at_ += bytes;
  return outcome == Outcome::ok && whole < header.count ? Outcome::fault : outcome;  // G1
}

// How many of the announced elements are all there, and what they take.
std::size_t LegacyReader::wholeElements(Kind kind, std::size_t count, std::size_t& bytes) const {
  if (!hasLongElements(kind)) {
    const std::size_t whole = std::min(count, left() / elementBytes(kind));
    bytes = whole * elementBytes(kind);
    return whole;
  }
  std::size_t whole = 0;
  while (whole < count && left() - bytes >= 2 && left() - bytes - 2 >= loadLe16(at_ + bytes)) {
    bytes += 2 + loadLe16(at_ + bytes);
    ++whole;
  }
  return whole;
}

Outcome LegacyReader::append(Kind kind, unsigned int id, std::size_t bytes, std::size_t count) {
  rep_.unshareable = true;
  const Node* node = rep_.find(kind, id);
  if (node == nullptr || !node->hasObject()) return appendBytes(node, kind, id, bytes, count);
  if (!hasLongElements(kind)) {
    std::vector<unsigned char> joined(valueBytes(*node) + bytes);
    copyBytes(encodeObject(kind, joined.data(), node->anyObject()), at_, bytes);
    rep_.putBytes(kind, id, joined.data(), joined.size(), valueCount(*node) + count);
    return Outcome::ok;
  }
  // Elements may be too long to be joined as bytes.  The room for all is made at once: code that lets an array grow would
  // stand here for each kind.
  void* const added = decodedObject(kind, at_, bytes, count);
  withObjectKind(kind, [&]<Kind k>() {
    if constexpr (hasLongElements(k)) {
      Object<k>& all = *node->objectIfAny<k>();
      Object<k>& more = *static_cast<Object<k>*>(added);
      Object<k> joined(all.size() + count);
      std::move(more.begin(), more.end(), std::move(all.begin(), all.end(), joined.begin()));
      all.swap(joined);
      rep_.putObject<k>(id, all);  // its length is counted anew
    }
  });
  deleteObject(kind, added);
  return Outcome::ok;
}

// `node` is the array as it stands in bytes, or null.
Outcome LegacyReader::appendBytes(const Node* node, Kind kind, unsigned int id, std::size_t bytes,
                                  std::size_t count) {
  if (node == nullptr || node->count == 0) {
    store(kind, id, bytes, count);
    return Outcome::ok;
  }
  const std::size_t before = node->size;
  const std::size_t all = before + bytes;
  if (!hasRoomForField(rep_, 2 * all)) return Outcome::noRoom;
  const std::size_t wholeCount = node->count + count;
  auto* joined = static_cast<unsigned char*>(rep_.memory.take(roundedUp(all)));
  copyBytes(encode(joined, node->content(), before), at_, bytes);
  rep_.putBytes(kind, id, joined, all, wholeCount);
  rep_.memory.give(joined, roundedUp(all));
  return Outcome::ok;
}

// Needs: so many bytes are left.
void LegacyReader::store(Kind kind, unsigned int id, std::size_t bytes, std::size_t count) {
  if (reading_ == Reading::borrowing) rep_.putBorrowed(kind, id, at_, bytes, count);
  else rep_.putBytes(kind, id, at_, bytes, count);
}

}  // namespace

Outcome readLegacy(message::Rep& rep, const unsigned char* data, std::size_t len, Reading reading) {
  return LegacyReader(rep, data, len, reading).readRecords();
}

}  // namespace kl::container

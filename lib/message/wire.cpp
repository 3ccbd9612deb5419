// The byte format.
//
//     message   "M2" and records up to the end of the buffer
//     record    4 bytes: the id, little-endian as every number here; its bit 24 is the flag F
//
//     type of the id             F   then
//     bool                       v   nothing: F is the value
//     u32                        1   1 byte
//                                0   4 bytes
//     u64                        0   8 bytes
//     addr6                      0   16 bytes
//     string, message, raw       1   1 byte length, the bytes
//                                0   2 bytes length, the bytes
//     bool array                 0   2 bytes count, a byte an element
//     u32, u64, addr6 array      0   2 bytes count, 4, 8, 16 bytes an element
//     string, message, raw array 0   2 bytes count, for each element 2 bytes length and the bytes
//
// The writer takes the short form where the value or length is at most 255; the reader takes either.
// For example { bool 0x00000003 true, u32 0x08000005 7, string 0x20000001 "ab" } is
//
//     4d 32 | 03 00 00 01 | 05 00 00 09  07 | 01 00 00 21  02  61 62
//
// Records are written bools first, then u32 values, both in slot order, then the fields and the arrays, both
// from the head of their list.  The reader takes them in any order.
//
// W1  nothing is read outside the given bytes
// W2  memory is taken for bytes that are there, never for a length or count alone
// W3  a field is stored when all of its bytes were seen; an array is begun when its count was
// W4  F follows from the value, also where bit 24 of an id was set by mistake: the field reads back under the id
//     without it

#include "message/wire.h"

#include <cstdio>

#include "kl/records.h"

namespace kl {
namespace container {
namespace {

constexpr unsigned int kKeepMark = 0x02000000;
constexpr unsigned int kMagic = 0x324D;

// --- Writing ---------------------------------------------------------------------------------------------

// W4
unsigned char* writeId(unsigned char* to, unsigned int id) { return storeLe32(to, id & ~kRecordFlag); }
unsigned char* writeFlaggedId(unsigned char* to, unsigned int id) { return storeLe32(to, id | kRecordFlag); }

unsigned char* writeU32(unsigned char* to, unsigned int id, unsigned int v) {
  if (v > 0xFF) return storeLe32(writeId(to, id), v);
  to = writeFlaggedId(to, id);
  *to = static_cast<unsigned char>(v);
  return to + 1;
}

unsigned char* writeBytes(unsigned char* to, unsigned int id, Span bytes) {
  if (bytes.size > 0xFF) {
    to = storeLe16(writeId(to, id), bytes.size);
  } else {
    to = writeFlaggedId(to, id);
    *to++ = static_cast<unsigned char>(bytes.size);
  }
  return encode(to, bytes.data, bytes.size);
}

unsigned char* writeField(unsigned char* to, const Node& node) {
  switch (node.kind) {
    case Kind::u64: return storeLe64(writeId(to, node.id), *node.u64());
    case Kind::addr6: return encode(writeId(to, node.id), node.addr6()->bytes, sizeof(IPAddr6));
    default: return writeBytes(to, node.id, bytesOf(node));
  }
}

// Kept on purpose: a count, like a length, is cut to 16 bits while all elements are written; beyond 65535 the bytes
// read back wrongly.  Held by Wire.CutsALengthAbove65535WhileWritingAllBytes.
unsigned char* writeArray(unsigned char* to, const Node& node) {
  to = storeLe16(writeId(to, node.id), valueCount(node));
  return node.hasObject() ? encodeObject(node.kind, to, node.anyObject())
                          : encode(to, node.content(), node.size);
}

// --- Reading ---------------------------------------------------------------------------------------------

class Reader {
 public:
  Reader(message::Rep& rep, const unsigned char* data, std::size_t len, Reading reading)
      : rep_(rep), at_(data), end_(data + len), reading_(reading) {}

  // The magic, or what stands in its place.
  bool takeMagic();

  // All records up to the end.  With `keeping`, the marked ones go to the representation's kept bytes.
  Outcome readRecords(bool keeping);
  std::size_t keptBytes() const { return keptBytes_; }

 private:
  std::size_t left() const { return static_cast<std::size_t>(end_ - at_); }
  Outcome readRecord(unsigned int id, bool flag);
  Outcome readU32(unsigned int id, bool isShort);
  Outcome readFixed(Kind kind, unsigned int id, std::size_t bytes);
  Outcome readBytes(Kind kind, unsigned int id, bool isShort);
  Outcome readFixedArray(Kind kind, unsigned int id);
  Outcome readLongArray(Kind kind, unsigned int id);
  bool takeLength(bool isShort, std::size_t& length);
  Outcome store(Kind kind, unsigned int id, std::size_t bytes, std::size_t count);

  // Called when the id has been read.
  bool keepRecord(unsigned int word);

  message::Rep& rep_;
  const unsigned char* at_;
  const unsigned char* end_;
  Reading reading_;
  std::size_t keptBytes_ = 0;
};

bool Reader::takeMagic() {
  if (left() < 2 || loadLe16(at_) != kMagic) return false;
  at_ += 2;
  return true;
}

Outcome Reader::readRecords(bool keeping) {
  const bool mayRunShort = rep_.memory.arena() != nullptr;
  while (left() >= 4) {
    const unsigned int word = loadLe32(at_);
    at_ += 4;
    if (keeping && (word & kKeepMark) != 0) {
      if (!keepRecord(word)) return Outcome::fault;
      continue;
    }
    if (mayRunShort && !hasRoomForField(rep_, 0)) return Outcome::noRoom;
    if (const Outcome outcome = readRecord(word & ~kRecordFlag, (word & kRecordFlag) != 0);
        outcome != Outcome::ok)
      return outcome;
  }
  return left() == 0 ? Outcome::ok : Outcome::fault;
}

Outcome Reader::readRecord(unsigned int id, bool flag) {
  const Kind kind = kindOf(id);
  switch (kind) {
    case Kind::boolean:
      rep_.unshareable = true;
      rep_.boolRef(id) = flag;
      return Outcome::ok;
    case Kind::u32: return readU32(id, flag);
    case Kind::u64: return readFixed(kind, id, 8);
    case Kind::addr6: return readFixed(kind, id, 16);
    case Kind::string:
    case Kind::message:
    case Kind::raw: return readBytes(kind, id, flag);
    case Kind::boolArray:
    case Kind::u32Array:
    case Kind::u64Array:
    case Kind::addr6Array: return readFixedArray(kind, id);
    case Kind::stringArray:
    case Kind::messageArray:
    case Kind::rawArray: return readLongArray(kind, id);
  }
  return Outcome::fault;
}

Outcome Reader::readU32(unsigned int id, bool isShort) {
  const std::size_t bytes = isShort ? 1 : 4;
  if (left() < bytes) return Outcome::fault;
  rep_.unshareable = true;
  rep_.u32Ref(id) = isShort ? *at_ : loadLe32(at_);
  at_ += bytes;
  return Outcome::ok;
}

Outcome Reader::readFixed(Kind kind, unsigned int id, std::size_t bytes) {
  if (left() < bytes) return Outcome::fault;
  rep_.unshareable = true;
  Node& node = rep_.nodeRef(kind, id);
  if (kind == Kind::u64) *node.u64() = loadLe64(at_);
  else std::memcpy(node.addr6()->bytes, at_, bytes);
  at_ += bytes;
  return Outcome::ok;
}

Outcome Reader::readBytes(Kind kind, unsigned int id, bool isShort) {
  std::size_t length;
  if (!takeLength(isShort, length) || left() < length) return Outcome::fault;
  return store(kind, id, length, 0);
}

// W3: an array whose elements are not all there stands empty.
Outcome Reader::readFixedArray(Kind kind, unsigned int id) {
  std::size_t count;
  if (!takeLength(false, count)) return Outcome::fault;
  const bool isWhole = count * elementBytes(kind) <= left();
  if (!isWhole) count = 0;
  const Outcome outcome = store(kind, id, count * elementBytes(kind), count);
  return outcome == Outcome::ok && !isWhole ? Outcome::fault : outcome;
}

// W3: the elements before the first that is not all there stay.
Outcome Reader::readLongArray(Kind kind, unsigned int id) {
  std::size_t count;
  if (!takeLength(false, count)) return Outcome::fault;
  const unsigned char* const begin = at_;
  std::size_t seen = 0;
  while (seen < count && left() >= 2 && left() - 2 >= loadLe16(at_)) {
    at_ += 2 + loadLe16(at_);
    ++seen;
  }
  const auto bytes = static_cast<std::size_t>(at_ - begin);
  at_ = begin;
  const Outcome outcome = store(kind, id, bytes, seen);
  return outcome == Outcome::ok && seen < count ? Outcome::fault : outcome;
}

bool Reader::takeLength(bool isShort, std::size_t& length) {
  const std::size_t bytes = isShort ? 1 : 2;
  if (left() < bytes) return false;
  length = isShort ? *at_ : loadLe16(at_);
  at_ += bytes;
  return true;
}

// Needs: so many bytes are left.
Outcome Reader::store(Kind kind, unsigned int id, std::size_t bytes, std::size_t count) {
  rep_.unshareable = true;
  if (reading_ == Reading::borrowing) rep_.putBorrowed(kind, id, at_, bytes, count);
  else rep_.putBytes(kind, id, at_, bytes, count);
  at_ += bytes;
  return Outcome::ok;
}

// --- Keeping marked records ------------------------------------------------------------------------------

// Passes over the payload of a record.  It is no part of the reader, whose place stays in a register then.
class Skipper {
 public:
  Skipper(const unsigned char* at, const unsigned char* end) : at_(at), end_(end) {}

  const unsigned char* at() const { return at_; }
  // False where the payload is not all there; what of it was understood has been passed then.
  bool skipPayload(unsigned int id, bool flag);

 private:
  std::size_t left() const { return static_cast<std::size_t>(end_ - at_); }
  bool takeLength(bool isShort, std::size_t& length);
  bool skip(std::size_t bytes);

  const unsigned char* at_;
  const unsigned char* end_;
};

// Kept on purpose: of a marked u64, addr6 or addr6 array only the id is kept, and its payload is read as
// the next record.  Such ids must not be marked.  Held by Kept.CopiesOnlyTheIdOfAMarkedU64.
bool Skipper::skipPayload(unsigned int id, bool flag) {
  std::size_t count;
  switch (kindOf(id)) {
    case Kind::u32: return skip(flag ? 1 : 4);
    case Kind::string:
    case Kind::message:
    case Kind::raw: return takeLength(flag, count) && skip(count);
    case Kind::boolArray:
    case Kind::u32Array:
    case Kind::u64Array: return takeLength(false, count) && skip(count * elementBytes(kindOf(id)));
    case Kind::stringArray:
    case Kind::messageArray:
    case Kind::rawArray: {
      if (!takeLength(false, count)) return false;
      std::size_t length;
      for (; count > 0; --count)
        if (!takeLength(false, length) || !skip(length)) return false;
      return true;
    }
    default: return true;
  }
}

bool Skipper::takeLength(bool isShort, std::size_t& length) {
  const unsigned char* const lengthAt = at_;
  if (!skip(isShort ? 1 : 2)) return false;
  length = isShort ? *lengthAt : loadLe16(lengthAt);
  return true;
}

bool Skipper::skip(std::size_t bytes) {
  if (left() < bytes) return false;
  at_ += bytes;
  return true;
}

struct Passed {
  const unsigned char* end;
  bool isWhole;
};

// Appends the record with that first word to the kept bytes.  Every byte is kept at most once, so as many bytes as the
// input has are room enough.
[[gnu::cold]] Passed copyRecord(unsigned char* to, unsigned int word, const unsigned char* payload,
                                const unsigned char* end) {
  Skipper skipper(payload, end);
  const bool isWhole = skipper.skipPayload(word & ~kRecordFlag, (word & kRecordFlag) != 0);
  copyBytes(to, payload - 4, static_cast<std::size_t>(skipper.at() - (payload - 4)));
  return {skipper.at(), isWhole};
}

bool Reader::keepRecord(unsigned int word) {
  const Passed record = copyRecord(rep_.kept->data() + keptBytes_, word, at_, end_);
  keptBytes_ += static_cast<std::size_t>(record.end - (at_ - 4));
  at_ = record.end;
  return record.isWhole;
}

[[gnu::cold]] void beginKeeping(message::Rep& rep, std::size_t len) {
  if (rep.kept == nullptr) rep.kept = new std::vector<unsigned char>;
  rep.kept->assign(len, 0);
}

[[gnu::cold]] void endKeeping(message::Rep& rep, bool keeping, std::size_t keptBytes) {
  if (keeping) return rep.kept->resize(keptBytes);
  delete rep.kept;
  rep.kept = nullptr;
}

}  // namespace

unsigned char* writeFormat(const message::Rep& rep, unsigned char* to) {
  to = storeLe16(to, kMagic);
  rep.forEachBool([&](unsigned int id, bool v) { to = v ? writeFlaggedId(to, id) : writeId(to, id); });
  for (unsigned int i = rep.u32s.next(rep.u32s.kNoSlot); i < rep.u32s.capacity(); i = rep.u32s.next(i))
    to = writeU32(to, rep.u32s.key(i), rep.u32s.value(i));
  for (const Node* node = rep.fields.head(); node != nullptr; node = node->next)
    if (node->agrees()) to = writeField(to, *node);
  for (const Node* node = rep.arrays.head(); node != nullptr; node = node->next)
    if (node->agrees()) to = writeArray(to, *node);
  return to;
}

Outcome readFormat(message::Rep& rep, const unsigned char* data, std::size_t len, message::flatten_type type,
                   Reading reading) {
  const bool keeping = type == message::keep_marked;
  if (keeping) beginKeeping(rep, len);
  Reader reader(rep, data, len, reading);
  if (type != message::bare && !reader.takeMagic()) {
    if (len < 2 || data[1] != 0) return Outcome::fault;
    return readLegacy(rep, data, len, reading);
  }
  const Outcome outcome = reader.readRecords(keeping);
  if (outcome == Outcome::ok && rep.kept != nullptr) endKeeping(rep, keeping, reader.keptBytes());
  return outcome;
}

}  // namespace container

unsigned int message::max_length() const {
  return static_cast<unsigned int>(RepAccess::read(*this).maxLength());
}

void message::flatten(unsigned char* buf, unsigned int* len) const {
  const auto written = static_cast<unsigned int>(container::writeFormat(RepAccess::read(*this), buf) - buf);
  if (written > *len) std::puts("WARNING: too small buffer for flatten");
  *len = written;
}

void message::flatten(std::vector<unsigned char>& out) const {
  unsigned int len = max_length();
  if (unsigned char onStack[2048]; len <= sizeof onStack) {
    flatten(onStack, &len);
    out.assign(onStack, onStack + len);
  } else {
    out.resize(len);
    flatten(out.data(), &len);
    out.resize(len);
  }
}

message::flat_message message::flattened() const {
  flat_message bytes;
  flatten(bytes);
  return bytes;
}

bool message::unflatten(const unsigned char* data, unsigned int len, flatten_type type) {
  Rep& rep = RepAccess::own(*this);
  if (data == nullptr) return true;
  return readFormat(rep, data, len, type, container::Reading::copying) == container::Outcome::ok;
}

const std::vector<unsigned char>* message::kept() const { return RepAccess::read(*this).kept; }

}  // namespace kl

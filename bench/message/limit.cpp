// Records stand in the order in which the library writes them: flags, numbers in the order of their
// hash slots (22 of them once there are six numbers), then the lists, newest field first.

#include "bench/message/limit.h"

#include <algorithm>
#include <cstdint>

namespace bench::limit {
namespace {

constexpr std::uint32_t kShortForm = 0x01000000;
constexpr std::size_t kLeastRecordBytes = 4;

template <class Word>
void copyWord(unsigned char* to, const unsigned char* from) {
  std::memcpy(to, from, sizeof(Word));
}

// Copies the first and the last `Word`; they overlap where there is less than both.
template <class Word>
void copyEnds(unsigned char* to, const unsigned char* from, std::size_t size) {
  copyWord<Word>(to, from);
  copyWord<Word>(to + size - sizeof(Word), from + size - sizeof(Word));
}

// A call of memcpy costs more than most texts do.
void copyText(unsigned char* to, const unsigned char* from, std::size_t size) {
  struct Sixteen {
    std::uint64_t low, high;
  };
  if (size > 64) {
    std::memcpy(to, from, size);
  } else if (size >= 16) {
    for (std::size_t i = 0; i + 16 <= size; i += 16) copyWord<Sixteen>(to + i, from + i);
    copyWord<Sixteen>(to + size - 16, from + size - 16);
  } else if (size >= 8) {
    copyEnds<std::uint64_t>(to, from, size);
  } else if (size >= 4) {
    copyEnds<std::uint32_t>(to, from, size);
  } else {
    for (std::size_t i = 0; i < size; ++i) to[i] = from[i];
  }
}

// --- writing

unsigned char* put16(unsigned char* at, std::size_t value) {
  const auto v = static_cast<std::uint16_t>(value);
  std::memcpy(at, &v, sizeof(v));
  return at + sizeof(v);
}

unsigned char* put32(unsigned char* at, std::uint32_t value) {
  std::memcpy(at, &value, sizeof(value));
  return at + sizeof(value);
}

unsigned char* putMagic(unsigned char* at) { return put16(at, 0x324d); }

unsigned char* putFlag(unsigned char* at, std::uint32_t id, bool value) {
  return put32(at, value ? id | kShortForm : id);
}

unsigned char* putNumber(unsigned char* at, std::uint32_t id, unsigned int value) {
  if (value > 255) return put32(put32(at, id), value);
  at = put32(at, id | kShortForm);
  *at = static_cast<unsigned char>(value);
  return at + 1;
}

unsigned char* putBytes(unsigned char* at, std::uint32_t id, const unsigned char* bytes, std::size_t size) {
  if (size > 255) {
    at = put16(put32(at, id), size);
  } else {
    at = put32(at, id | kShortForm);
    *at++ = static_cast<unsigned char>(size);
  }
  copyText(at, bytes, size);
  return at + size;
}

unsigned char* putPath(unsigned char* at, std::uint32_t id, const Path& path) {
  at = put16(put32(at, id), path.size);
  for (unsigned int i = 0; i < path.size; ++i) at = put32(at, path.ids[i]);
  return at;
}

// --- reading

class Cursor {
 public:
  Cursor(const unsigned char* bytes, std::size_t size) : at_(bytes), end_(bytes + size) {}

  std::size_t left() const { return static_cast<std::size_t>(end_ - at_); }
  bool takeMagic() { return left() >= 2 && take16() == 0x324d; }
  std::uint32_t takeId() { return take32(); }

  bool takeNumber(bool shortForm, unsigned int& out) {
    if (left() < (shortForm ? 1U : 4U)) return false;
    out = shortForm ? *at_++ : take32();
    return true;
  }

  // Hands out where the bytes stand.
  bool takeBytes(bool shortForm, const unsigned char*& bytes, std::size_t& size) {
    if (left() < (shortForm ? 1U : 2U)) return false;
    size = shortForm ? *at_++ : take16();
    if (left() < size) return false;
    bytes = at_;
    at_ += size;
    return true;
  }

  template <std::size_t Room>
  bool takeText(bool shortForm, Text<Room>& out) {
    const unsigned char* bytes = nullptr;
    std::size_t size = 0;
    if (!takeBytes(shortForm, bytes, size) || size > Room) return false;
    out.size = static_cast<unsigned int>(size);
    copyText(out.bytes, bytes, size);
    return true;
  }

  bool takePath(Path& out) {
    if (left() < 2) return false;
    out.size = take16();
    if (out.size > std::size(out.ids) || left() < out.size * 4) return false;
    for (unsigned int i = 0; i < out.size; ++i) out.ids[i] = take32();
    return true;
  }

  bool takeFixed(void* out, std::size_t size) {
    if (left() < size) return false;
    std::memcpy(out, at_, size);
    at_ += size;
    return true;
  }

  bool takeCount(unsigned int& out) {
    if (left() < 2) return false;
    out = take16();
    return true;
  }

 private:
  std::uint16_t take16() {
    std::uint16_t value = 0;
    std::memcpy(&value, at_, sizeof(value));
    at_ += sizeof(value);
    return value;
  }
  std::uint32_t take32() {
    std::uint32_t value = 0;
    std::memcpy(&value, at_, sizeof(value));
    at_ += sizeof(value);
    return value;
  }

  const unsigned char* at_;
  const unsigned char* end_;
};

// What becomes of the bytes of a nested message: decoded in its place of the struct, or kept as they
// are.
struct Decode {
  template <class Struct>
  bool operator()(Struct& out, const unsigned char* bytes, std::size_t size) {
    return parse(out, bytes, size);
  }
};

struct Keep {
  template <class Struct>
  bool operator()(Struct& /*out*/, const unsigned char* bytes, std::size_t size) {
    std::memcpy(at, bytes, size);
    at += size;
    return true;
  }
  unsigned char* at;
};

template <class Struct, class Nested>
bool takeNested(Cursor& in, bool shortForm, Struct& out, Nested& nested) {
  const unsigned char* bytes = nullptr;
  std::size_t size = 0;
  return in.takeBytes(shortForm, bytes, size) && nested(out, bytes, size);
}

bool takeField(Cursor& in, std::uint32_t field, bool shortForm, W1& out, Decode& /*nested*/) {
  switch (field) {
    case id::kReplyExpected: out.replyExpected = shortForm; return true;
    case id::kType: return in.takeNumber(shortForm, out.type);
    case id::kRequestId: return in.takeNumber(shortForm, out.requestId);
    case id::kCommand: return in.takeNumber(shortForm, out.command);
    case id::kPolicy: return in.takeNumber(shortForm, out.policy);
    case id::kObject: return in.takeNumber(shortForm, out.object);
    case id::kSpeed: return in.takeNumber(shortForm, out.speed);
    case id::kUser: return in.takeText(shortForm, out.user);
    case id::kTo: return in.takePath(out.to);
    case id::kFrom: return in.takePath(out.from);
    default: return false;
  }
}

template <class Nested>
bool takeField(Cursor& in, std::uint32_t field, bool shortForm, W2& out, Nested& nested) {
  switch (field) {
    case id::kBytesIn: return in.takeFixed(&out.bytesIn, 8);
    case id::kAddress: return in.takeFixed(out.address, 16);
    case id::kKey: return in.takeText(shortForm, out.key);
    case id::kOrigin: return takeNested(in, shortForm, out.origin, nested);
    default: break;
  }
  if (field - id::kNumber < 8) return in.takeNumber(shortForm, out.numbers[field - id::kNumber]);
  if (field - id::kText < 4) return in.takeText(shortForm, out.texts[field - id::kText]);
  if (field - id::kFlag >= 4) return false;
  out.flags[field - id::kFlag] = shortForm;
  return true;
}

template <class Nested>
bool takeField(Cursor& in, std::uint32_t field, bool /*shortForm*/, W3& out, Nested& nested) {
  if (field != id::kObjects || !in.takeCount(out.size) || out.size > std::size(out.objects)) return false;
  for (unsigned int i = 0; i < out.size; ++i)
    if (!takeNested(in, false, out.objects[i], nested)) return false;
  return true;
}

bool takeField(Cursor& in, std::uint32_t field, bool shortForm, Flat& out, Decode& /*nested*/) {
  const std::uint32_t place = field - id::kFlat;
  if (place >= std::size(out.texts)) return false;
  out.size = std::max(out.size, place + 1);
  return in.takeText(shortForm, out.texts[place]);
}

template <class Struct, class Nested>
bool parseFields(Struct& out, const unsigned char* bytes, std::size_t size, Nested nested) {
  Cursor in(bytes, size);
  if (!in.takeMagic()) return false;
  while (in.left() >= kLeastRecordBytes) {
    const std::uint32_t record = in.takeId();
    if (!takeField(in, record & ~kShortForm, (record & kShortForm) != 0, out, nested)) return false;
  }
  return in.left() == 0;
}

// --- looking and comparing

template <class Bytes>
unsigned long long ends(const Bytes& bytes, std::size_t size) {
  return size + bytes[0] + bytes[size - 1];
}

unsigned long long readPath(const Path& path) {
  unsigned long long sum = path.size;
  for (unsigned int i = 0; i < path.size; ++i) sum += path.ids[i];
  return sum;
}

bool equalPaths(const Path& a, const Path& b) {
  return a.size == b.size && std::memcmp(a.ids, b.ids, a.size * sizeof(a.ids[0])) == 0;
}

template <std::size_t Room>
bool equalTexts(const Text<Room>& a, const Text<Room>& b) {
  return a.size == b.size && std::memcmp(a.bytes, b.bytes, a.size) == 0;
}

template <std::size_t Room, class Bytes>
void fill(Text<Room>& out, const Bytes& bytes) {
  out.size = static_cast<unsigned int>(bytes.size());
  copyText(out.bytes, reinterpret_cast<const unsigned char*>(bytes.data()), bytes.size());
}

void fill(Path& out, const std::vector<unsigned int>& ids) {
  out.size = static_cast<unsigned int>(ids.size());
  for (unsigned int i = 0; i < out.size; ++i) out.ids[i] = ids[i];
}

}  // namespace

void build(W1& out, const W1Source& source) {
  fill(out.to, source.to);
  fill(out.from, source.from);
  out.type = source.type;
  out.requestId = source.requestId;
  out.command = source.command;
  out.policy = source.policy;
  out.object = source.object;
  out.speed = source.speed;
  out.replyExpected = source.replyExpected;
  fill(out.user, source.user);
}

void build(W2& out, const W2Source& source) {
  std::memcpy(out.numbers, source.numbers, sizeof(out.numbers));
  std::memcpy(out.flags, source.flags, sizeof(out.flags));
  for (unsigned int i = 0; i < 4; ++i) fill(out.texts[i], source.texts[i]);
  out.bytesIn = source.bytesIn;
  std::memcpy(out.address, &source.address, sizeof(out.address));
  fill(out.key, source.key);
  build(out.origin, source.origin);
}

void build(W3& out, const std::vector<W2Source>& source) {
  out.size = static_cast<unsigned int>(source.size());
  for (unsigned int i = 0; i < out.size; ++i) build(out.objects[i], source[i]);
}

void build(Flat& out, const std::vector<std::string>& source) {
  out.size = static_cast<unsigned int>(source.size());
  for (unsigned int i = 0; i < out.size; ++i) fill(out.texts[i], source[i]);
}

std::size_t flatten(const W1& in, unsigned char* buffer) {
  unsigned char* at = putMagic(buffer);
  at = putFlag(at, id::kReplyExpected, in.replyExpected);
  at = putNumber(at, id::kSpeed, in.speed);
  at = putNumber(at, id::kPolicy, in.policy);
  at = putNumber(at, id::kType, in.type);
  at = putNumber(at, id::kObject, in.object);
  at = putNumber(at, id::kRequestId, in.requestId);
  at = putNumber(at, id::kCommand, in.command);
  at = putBytes(at, id::kUser, in.user.bytes, in.user.size);
  at = putPath(at, id::kFrom, in.from);
  at = putPath(at, id::kTo, in.to);
  return static_cast<std::size_t>(at - buffer);
}

std::size_t flatten(const W2& in, unsigned char* buffer) {
  unsigned char* at = putMagic(buffer);
  for (unsigned int i = 0; i < 4; ++i) at = putFlag(at, id::kFlag + i, in.flags[i]);
  for (unsigned int i = 3; i < 8; ++i) at = putNumber(at, id::kNumber + i, in.numbers[i]);
  for (unsigned int i = 0; i < 3; ++i) at = putNumber(at, id::kNumber + i, in.numbers[i]);
  unsigned char* const origin = put32(at, id::kOrigin | kShortForm) + 1;
  const std::size_t originBytes = flatten(in.origin, origin);  // never above 255 in a W1
  origin[-1] = static_cast<unsigned char>(originBytes);
  at = putBytes(origin + originBytes, id::kKey, in.key.bytes, in.key.size);
  at = put32(at, id::kAddress);
  std::memcpy(at, in.address, 16);
  at = put32(at + 16, id::kBytesIn);
  std::memcpy(at, &in.bytesIn, 8);
  at += 8;
  for (unsigned int i = 4; i-- > 0;) at = putBytes(at, id::kText + i, in.texts[i].bytes, in.texts[i].size);
  return static_cast<std::size_t>(at - buffer);
}

std::size_t flatten(const W3& in, unsigned char* buffer) {
  unsigned char* at = put16(put32(putMagic(buffer), id::kObjects), in.size);
  for (unsigned int i = 0; i < in.size; ++i) {
    const std::size_t bytes = flatten(in.objects[i], at + 2);
    at = put16(at, bytes) + bytes;
  }
  return static_cast<std::size_t>(at - buffer);
}

std::size_t flatten(const Flat& in, unsigned char* buffer) {
  unsigned char* at = putMagic(buffer);
  for (unsigned int i = in.size; i-- > 0;)
    at = putBytes(at, id::kFlat + i, in.texts[i].bytes, in.texts[i].size);
  return static_cast<std::size_t>(at - buffer);
}

bool parse(W1& out, const unsigned char* bytes, std::size_t size) {
  return parseFields(out, bytes, size, Decode());
}
bool parse(W2& out, const unsigned char* bytes, std::size_t size) {
  return parseFields(out, bytes, size, Decode());
}
bool parse(W3& out, const unsigned char* bytes, std::size_t size) {
  return parseFields(out, bytes, size, Decode());
}
bool parse(Flat& out, const unsigned char* bytes, std::size_t size) {
  out.size = 0;
  return parseFields(out, bytes, size, Decode());
}

bool parseOuter(W1& out, const unsigned char* bytes, std::size_t size, unsigned char* /*nested*/) {
  return parse(out, bytes, size);
}
bool parseOuter(W2& out, const unsigned char* bytes, std::size_t size, unsigned char* nested) {
  return parseFields(out, bytes, size, Keep{nested});
}
bool parseOuter(W3& out, const unsigned char* bytes, std::size_t size, unsigned char* nested) {
  return parseFields(out, bytes, size, Keep{nested});
}
bool parseOuter(Flat& out, const unsigned char* bytes, std::size_t size, unsigned char* /*nested*/) {
  return parse(out, bytes, size);
}

unsigned long long read(const W1& in) {
  unsigned long long sum = readPath(in.to) + readPath(in.from);
  sum += in.type;
  sum += in.requestId;
  sum += in.command;
  sum += in.policy;
  sum += in.object;
  sum += in.speed;
  sum += in.replyExpected ? 1 : 0;
  return sum + ends(in.user.bytes, in.user.size);
}

unsigned long long read(const W2& in) {
  unsigned long long sum = in.bytesIn;
  for (const unsigned int number : in.numbers) sum += number;
  for (const bool flag : in.flags) sum += flag ? 1 : 0;
  for (const auto& text : in.texts) sum += ends(text.bytes, text.size);
  return sum + ends(in.address, 16) + ends(in.key.bytes, in.key.size) + read(in.origin);
}

unsigned long long read(const W3& in) {
  unsigned long long sum = in.size;
  for (unsigned int i = 0; i < in.size; ++i) sum += read(in.objects[i]);
  return sum;
}

unsigned long long read(const Flat& in) {
  unsigned long long sum = 0;
  for (unsigned int i = 0; i < in.size; ++i) sum += ends(in.texts[i].bytes, in.texts[i].size);
  return sum;
}

bool equal(const W1& a, const W1& b) {
  return equalPaths(a.to, b.to) && equalPaths(a.from, b.from) && a.type == b.type &&
         a.requestId == b.requestId && a.command == b.command && a.policy == b.policy &&
         a.object == b.object && a.speed == b.speed && a.replyExpected == b.replyExpected &&
         equalTexts(a.user, b.user);
}

bool equal(const W2& a, const W2& b) {
  return std::memcmp(a.numbers, b.numbers, sizeof(a.numbers)) == 0 &&
         std::memcmp(a.flags, b.flags, sizeof(a.flags)) == 0 &&
         std::equal(std::begin(a.texts), std::end(a.texts), std::begin(b.texts), equalTexts<64>) &&
         a.bytesIn == b.bytesIn && std::memcmp(a.address, b.address, sizeof(a.address)) == 0 &&
         equalTexts(a.key, b.key) && equal(a.origin, b.origin);
}

bool equal(const W3& a, const W3& b) {
  if (a.size != b.size) return false;
  for (unsigned int i = 0; i < a.size; ++i)
    if (!equal(a.objects[i], b.objects[i])) return false;
  return true;
}

bool equal(const Flat& a, const Flat& b) {
  if (a.size != b.size) return false;
  for (unsigned int i = 0; i < a.size; ++i)
    if (!equalTexts(a.texts[i], b.texts[i])) return false;
  return true;
}

}  // namespace bench::limit

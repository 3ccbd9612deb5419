// Reading the bytes into the structs: one pass over the records, in whatever order they stand.

#include <algorithm>
#include <cstdint>

#include "bench/message/copy_text.h"
#include "bench/message/limit.h"

namespace bench::limit {
namespace {

constexpr std::uint32_t kShortForm = 0x01000000;
constexpr std::size_t kLeastRecordBytes = 4;

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

// The treatment of a nested message's bytes: decoded in its place of the struct, or kept as they are.
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

}  // namespace

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

}  // namespace bench::limit

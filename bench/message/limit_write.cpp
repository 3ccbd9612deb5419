// Filling the structs and writing them.  Records stand in the order in which the library writes them:
// flags, numbers in the order of their hash slots (22 of them once there are six numbers), then the
// lists, newest field first.

#include <cstdint>

#include "bench/message/copy_text.h"
#include "bench/message/limit.h"

namespace bench::limit {
namespace {

constexpr std::uint32_t kShortForm = 0x01000000;

template <std::size_t Room, class Bytes>
void fill(Text<Room>& out, const Bytes& bytes) {
  out.size = static_cast<unsigned int>(bytes.size());
  copyText(out.bytes, reinterpret_cast<const unsigned char*>(bytes.data()), bytes.size());
}

void fill(Path& out, const std::vector<unsigned int>& ids) {
  out.size = static_cast<unsigned int>(ids.size());
  for (unsigned int i = 0; i < out.size; ++i) out.ids[i] = ids[i];
}

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

}  // namespace bench::limit

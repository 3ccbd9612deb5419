// Looking at every value of the structs, and comparing them.

#include <algorithm>

#include "bench/message/limit.h"

namespace bench::limit {
namespace {

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

}  // namespace

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

#pragma once
// limit.h: the least that the work can cost.  Plain structs with room for their values inside; hand
// written code that knows every field and writes and reads exactly the bytes that the library writes
// and reads, with the same checks.  It lives behind a call, as the library does, so the compiler
// cannot fold what it measures.

#include <cstddef>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "bench/message/sources.h"

namespace bench::limit {

struct Path {
  unsigned int size;
  unsigned int ids[4];
};

template <std::size_t Room>
struct Text {
  unsigned int size;
  unsigned char bytes[Room];
};

struct W1 {
  Path to, from;
  unsigned int type, requestId, command, policy, object, speed;
  bool replyExpected;
  Text<16> user;
};

struct W2 {
  unsigned int numbers[8];
  bool flags[4];
  Text<64> texts[4];
  unsigned long long bytesIn;
  unsigned char address[16];
  Text<64> key;
  W1 origin;
};

struct W3 {
  unsigned int size;
  W2 objects[100];
};

struct Flat {
  unsigned int size;
  Text<12> texts[5000];
};

// Room that a flattened message of any kind here fits in.
inline constexpr std::size_t kBufferRoom = 80'000;

// Fills the struct from what a service holds.
void build(W1& out, const W1Source& source);
void build(W2& out, const W2Source& source);
void build(W3& out, const std::vector<W2Source>& source);
void build(Flat& out, const std::vector<std::string>& source);

// Writes the bytes to `buffer` and returns their number.
std::size_t flatten(const W1& in, unsigned char* buffer);
std::size_t flatten(const W2& in, unsigned char* buffer);
std::size_t flatten(const W3& in, unsigned char* buffer);
std::size_t flatten(const Flat& in, unsigned char* buffer);

// Reads `size` bytes; false when they are not such a message.
bool parse(W1& out, const unsigned char* bytes, std::size_t size);
bool parse(W2& out, const unsigned char* bytes, std::size_t size);
bool parse(W3& out, const unsigned char* bytes, std::size_t size);
bool parse(Flat& out, const unsigned char* bytes, std::size_t size);

// Reads them as a message is parsed: nested ones stay bytes, copied to `nested`.
bool parseOuter(W1& out, const unsigned char* bytes, std::size_t size, unsigned char* nested);
bool parseOuter(W2& out, const unsigned char* bytes, std::size_t size, unsigned char* nested);
bool parseOuter(W3& out, const unsigned char* bytes, std::size_t size, unsigned char* nested);
bool parseOuter(Flat& out, const unsigned char* bytes, std::size_t size, unsigned char* nested);

// Looks at every value: the sum of all numbers, and of size, first and last byte of whatever has a
// length.
unsigned long long read(const W1& in);
unsigned long long read(const W2& in);
unsigned long long read(const W3& in);
unsigned long long read(const Flat& in);

bool equal(const W1& a, const W1& b);
bool equal(const W2& a, const W2& b);
bool equal(const W3& a, const W3& b);
bool equal(const Flat& a, const Flat& b);

// A copy of its own on the heap, made the fastest way that there is.
template <class Struct>
std::unique_ptr<Struct> copy(const Struct& in) {
  return std::unique_ptr<Struct>(new Struct(in));
}

// A list copies the fields that it has, not the room for more.
struct FreeBytes {
  void operator()(void* bytes) const { ::operator delete(bytes); }
};
inline std::unique_ptr<void, FreeBytes> copy(const Flat& in) {
  const std::size_t used = offsetof(Flat, texts) + in.size * sizeof(in.texts[0]);
  std::unique_ptr<void, FreeBytes> result(::operator new(used));
  std::memcpy(result.get(), &in, used);
  return result;
}

}  // namespace bench::limit

#pragma once
// byte_order.h: numbers in memory by explicit byte order, the same on every host, and copies of few bytes.
//
// This is the only place that knows the host's byte order.  A load or a store is one instruction where the host
// has the wanted order, and one more, or a reversing load, where it has not.

#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>

namespace kl {

constexpr std::uint16_t byteReversed(std::uint16_t v) { return __builtin_bswap16(v); }
constexpr std::uint32_t byteReversed(std::uint32_t v) { return __builtin_bswap32(v); }
constexpr std::uint64_t byteReversed(std::uint64_t v) { return __builtin_bswap64(v); }

// A number of the host's as it lies in little-endian memory, and the other way round.
template <class Number>
constexpr Number asLittleEndian(Number v) {
  if constexpr (std::endian::native == std::endian::little) return v;
  else return byteReversed(v);
}

// The same for big-endian memory.
template <class Number>
constexpr Number asBigEndian(Number v) {
  if constexpr (std::endian::native == std::endian::big) return v;
  else return byteReversed(v);
}

template <class Number>
Number loadNumber(const unsigned char* at) {
  Number v;
  std::memcpy(&v, at, sizeof v);
  return v;
}

template <class Number>
unsigned char* storeNumber(unsigned char* at, Number v) {
  std::memcpy(at, &v, sizeof v);
  return at + sizeof v;
}

inline std::uint16_t loadLe16(const unsigned char* at) {
  return asLittleEndian(loadNumber<std::uint16_t>(at));
}
inline std::uint32_t loadLe32(const unsigned char* at) {
  return asLittleEndian(loadNumber<std::uint32_t>(at));
}
inline std::uint64_t loadLe64(const unsigned char* at) {
  return asLittleEndian(loadNumber<std::uint64_t>(at));
}

inline std::uint16_t loadBe16(const unsigned char* at) { return asBigEndian(loadNumber<std::uint16_t>(at)); }
inline std::uint32_t loadBe32(const unsigned char* at) { return asBigEndian(loadNumber<std::uint32_t>(at)); }

// Each store returns where the next number goes.  Those of 16 bits take the low half of what they are given.
inline unsigned char* storeLe16(unsigned char* at, std::size_t v) {
  return storeNumber(at, asLittleEndian(static_cast<std::uint16_t>(v)));
}
inline unsigned char* storeLe32(unsigned char* at, std::uint32_t v) {
  return storeNumber(at, asLittleEndian(v));
}
inline unsigned char* storeLe64(unsigned char* at, std::uint64_t v) {
  return storeNumber(at, asLittleEndian(v));
}

inline unsigned char* storeBe16(unsigned char* at, std::size_t v) {
  return storeNumber(at, asBigEndian(static_cast<std::uint16_t>(v)));
}

// Copies two overlapping words.  Needs: sizeof(Word) <= n <= 2 * sizeof(Word).
template <class Word>
void copyOverlapping(unsigned char* to, const unsigned char* from, std::size_t n) {
  const Word front = loadNumber<Word>(from);
  const Word back = loadNumber<Word>(from + n - sizeof(Word));
  storeNumber(to, front);
  storeNumber(to + n - sizeof(Word), back);
}

// memcpy for lengths that are mostly short: where the compiler can bound such a length it turns memcpy
// into a string instruction, which takes far longer than the copy.  A null `from` is fine for n == 0.
inline void copyBytes(unsigned char* to, const unsigned char* from, std::size_t n) {
  if (n > 16) {
    asm("" : "+r"(n));  // the compiler forgets the bound
    std::memcpy(to, from, n);
  } else if (n >= 8) {
    copyOverlapping<std::uint64_t>(to, from, n);
  } else if (n >= 4) {
    copyOverlapping<std::uint32_t>(to, from, n);
  } else if (n != 0) {
    to[0] = from[0];
    to[n / 2] = from[n / 2];
    to[n - 1] = from[n - 1];
  }
}

}  // namespace kl

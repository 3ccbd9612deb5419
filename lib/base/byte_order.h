#pragma once
// byte_order.h: little-endian numbers in memory, on every host, and copies of few bytes.

#include <cstddef>
#include <cstdint>
#include <cstring>

namespace kl::container {

inline std::uint16_t loadLe16(const unsigned char* at) {
  return static_cast<std::uint16_t>(at[0] | at[1] << 8);
}

inline std::uint32_t loadLe32(const unsigned char* at) {
  return static_cast<std::uint32_t>(at[0]) | static_cast<std::uint32_t>(at[1]) << 8 |
         static_cast<std::uint32_t>(at[2]) << 16 | static_cast<std::uint32_t>(at[3]) << 24;
}

inline std::uint64_t loadLe64(const unsigned char* at) {
  return loadLe32(at) | static_cast<std::uint64_t>(loadLe32(at + 4)) << 32;
}

inline unsigned char* storeLe16(unsigned char* at, std::size_t v) {
  at[0] = static_cast<unsigned char>(v);
  at[1] = static_cast<unsigned char>(v >> 8);
  return at + 2;
}

inline unsigned char* storeLe32(unsigned char* at, std::uint32_t v) {
  at[0] = static_cast<unsigned char>(v);
  at[1] = static_cast<unsigned char>(v >> 8);
  at[2] = static_cast<unsigned char>(v >> 16);
  at[3] = static_cast<unsigned char>(v >> 24);
  return at + 4;
}

inline unsigned char* storeLe64(unsigned char* at, std::uint64_t v) {
  return storeLe32(storeLe32(at, static_cast<std::uint32_t>(v)), static_cast<std::uint32_t>(v >> 32));
}

constexpr unsigned int byteReversed(unsigned int v) {
  return v >> 24 | (v >> 8 & 0xFF00) | (v << 8 & 0xFF0000) | v << 24;
}

// Copies two overlapping words.  Needs: sizeof(Word) <= n <= 2 * sizeof(Word).
template <class Word>
void copyOverlapping(unsigned char* to, const unsigned char* from, std::size_t n) {
  Word front;
  Word back;
  std::memcpy(&front, from, sizeof front);
  std::memcpy(&back, from + n - sizeof back, sizeof back);
  std::memcpy(to, &front, sizeof front);
  std::memcpy(to + n - sizeof back, &back, sizeof back);
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

}  // namespace kl::container

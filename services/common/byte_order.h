#pragma once
// byte_order.h: the numbers of frames (the low byte first) and of log records (the high byte first), which public
// headers read and do not write.

#include <cstddef>

namespace common {

// Each store returns where the next number goes.  Those of 16 bits take the low half of what they are given.
inline unsigned char* storeLe16(unsigned char* at, std::size_t v) {
  at[0] = static_cast<unsigned char>(v);
  at[1] = static_cast<unsigned char>(v >> 8);
  return at + 2;
}
inline unsigned char* storeLe32(unsigned char* at, std::size_t v) {
  return storeLe16(storeLe16(at, v), v >> 16);
}

inline unsigned char* storeBe16(unsigned char* at, std::size_t v) {
  at[0] = static_cast<unsigned char>(v >> 8);
  at[1] = static_cast<unsigned char>(v);
  return at + 2;
}
constexpr unsigned int loadBe16(const unsigned char* at) {
  return static_cast<unsigned int>(at[0]) << 8 | static_cast<unsigned int>(at[1]);
}

}  // namespace common

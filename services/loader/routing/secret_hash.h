#pragma once
// secret_hash.h: hashes whose collisions nobody outside can choose.

#include <sys/random.h>

#include <cstdint>
#include <span>

#include "routing/envelope.h"

namespace loader {

// Mixes the bits of a number so that each depends on all of them.
inline std::uint64_t mixBits(std::uint64_t x) {
  x ^= x >> 33;
  x *= 0xff51afd7ed558ccdULL;
  x ^= x >> 33;
  x *= 0xc4ceb9fe1a85ec53ULL;
  x ^= x >> 33;
  return x;
}

// A number that is drawn at the start.  Without the kernel's random numbers the place of the stack must do.
inline std::uint64_t drawSeed() {
  std::uint64_t seed = 0;
  if (::getrandom(&seed, sizeof seed, GRND_NONBLOCK) == static_cast<ssize_t>(sizeof seed)) return seed;
  return mixBits(reinterpret_cast<std::uintptr_t>(&seed));
}

// A hash of numbers, paths and runs of bytes, one behind the other.
class SecretHash {
 public:
  explicit SecretHash(std::uint64_t seed) : factor_(mixBits(seed) | 1), state_(seed) {}

  SecretHash& number(std::uint64_t value) {
    state_ = (state_ ^ value) * factor_;
    state_ ^= state_ >> 32;
    return *this;
  }
  SecretHash& bytes(std::span<const unsigned char> some) {
    for (const unsigned char byte : some) number(byte);
    return number(some.size());
  }
  SecretHash& numbers(Path path) {
    for (unsigned int i = 0; i < path.size(); ++i) number(path[i]);
    return number(path.size());
  }
  std::uint64_t value() const { return mixBits(state_); }

 private:
  std::uint64_t factor_;
  std::uint64_t state_;
};

}  // namespace loader

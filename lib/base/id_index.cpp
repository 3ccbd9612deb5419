// The secret factor of the hash: a random number of the process, tried for how it spreads ids.

#include "base/id_index.h"

#include <sys/auxv.h>

#include <algorithm>
#include <atomic>
#include <cstring>

namespace kl {
namespace {

// The factor in halves, because a 32-bit processor has no atomic access to 64 bits.  The lower half is odd, so 0 means
// that the factor is not known yet.
constinit std::atomic<std::uint32_t> factorLow{0};
constinit std::atomic<std::uint32_t> factorHigh{0};

// The kernel gives every process 16 random bytes.  They do not change, so it does not matter which thread comes first.
// Some factors put ids in a row, which most lists are, close together; those are not used.
std::uint64_t randomFactor() {
  std::uint64_t number = 0x9E3779B97F4A7C15;
  if (const auto* random = reinterpret_cast<const unsigned char*>(::getauxval(AT_RANDOM)); random != nullptr)
    std::memcpy(&number, random, sizeof number);
  number |= 1;
  while (!spreadsIdsInARow(number)) number *= 0x5851F42D4C957F2D;
  return number;
}

}  // namespace

// Homes lie apart if they are no nearer than a sixteenth of an even spread, in rows of up to a thousand.
bool spreadsIdsInARow(std::uint64_t factor) {
  constexpr std::uint64_t kLongestRow = 1024;
  constexpr std::uint64_t kLeast = (std::uint64_t{1} << 32) / 16;
  std::uint64_t way = 0;  // round the ring of homes, from an id to the n-th behind it
  for (std::uint64_t n = 1; n <= kLongestRow; ++n) {
    way += factor;
    if ((std::min(way, 0 - way) >> 32) * n < kLeast) return false;
  }
  return true;
}

std::uint64_t idHashFactor() {
  const std::uint64_t low = factorLow.load(std::memory_order_acquire);
  if (low != 0) return std::uint64_t{factorHigh.load(std::memory_order_relaxed)} << 32 | low;
  const std::uint64_t number = randomFactor();
  factorHigh.store(static_cast<std::uint32_t>(number >> 32), std::memory_order_relaxed);
  factorLow.store(static_cast<std::uint32_t>(number), std::memory_order_release);
  return number;
}

}  // namespace kl

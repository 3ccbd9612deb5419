#include "message/id_index.h"

#include <sys/auxv.h>

#include <atomic>
#include <cstring>

namespace kl::container {
namespace {

// In halves, because a 32-bit processor has no atomic access to 64 bits.  The lower one is odd, so 0 says that the
// number is not there yet.
constinit std::atomic<std::uint32_t> factorLow{0};
constinit std::atomic<std::uint32_t> factorHigh{0};

// The kernel gives every process 16 random bytes.  They do not change, so it does not matter which
// thread comes first.
std::uint64_t randomOddNumber() {
  std::uint64_t number = 0x9E3779B97F4A7C15;
  if (const auto* random = reinterpret_cast<const unsigned char*>(::getauxval(AT_RANDOM)); random != nullptr)
    std::memcpy(&number, random, sizeof number);
  return number | 1;
}

}  // namespace

std::uint64_t idHashFactor() {
  const std::uint64_t low = factorLow.load(std::memory_order_acquire);
  if (low != 0) return std::uint64_t{factorHigh.load(std::memory_order_relaxed)} << 32 | low;
  const std::uint64_t number = randomOddNumber();
  factorHigh.store(static_cast<std::uint32_t>(number >> 32), std::memory_order_relaxed);
  factorLow.store(static_cast<std::uint32_t>(number), std::memory_order_release);
  return number;
}

}  // namespace kl::container

#include "message/id_index.h"

#include <sys/auxv.h>

#include <atomic>
#include <cstring>

namespace kl::container {
namespace {

constinit std::atomic<std::uint64_t> factor{0};

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
  std::uint64_t number = factor.load(std::memory_order_relaxed);
  if (number == 0) {
    number = randomOddNumber();
    factor.store(number, std::memory_order_relaxed);
  }
  return number;
}

}  // namespace kl::container

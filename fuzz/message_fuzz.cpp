// A script of operations happens to a few messages and to their models, which are the container's rules on plain
// standard containers.
//
//   - values, the order of tables and lists, sharing, comparison, bytes and their bound are the same on both sides
//   - the container's own invariants hold after every step

#include <gtest/gtest.h>

#include "fuzz/input.h"
#include "tests/lib/message/model_life.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static constexpr unsigned int kIdRanges[] = {3, 12, 60, 400};
  fuzz::Input input(data, std::min<std::size_t>(size, 1024));
  const unsigned int idRange = kIdRanges[input.upTo(3)];
  kl::test::Life life([&](unsigned int n) { return input.upTo(n); }, idRange);
  while (!input.isEmpty()) {
    life.step();
    life.check();
    fuzz::require(!testing::Test::HasFailure(), "the messages are what their models are");
  }
  return 0;
}

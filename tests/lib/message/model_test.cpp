// The container beside its rules in plainest form, through random lives.

#include <gtest/gtest.h>

#include <random>

#include "tests/lib/message/model_life.h"
#include "tests/support/build/effort.h"

namespace kl::test {
namespace {

class Model : public testing::TestWithParam<unsigned int> {};

TEST_P(Model, RandomStepsAgreeWithThePlainRules) {
  const unsigned int seed = std::random_device{}();
  SCOPED_TRACE("seed " + std::to_string(seed) + ", ids up to " + std::to_string(GetParam()));
  std::mt19937 random(seed);
  Life life([&](unsigned int n) { return std::uniform_int_distribution<unsigned int>(0, n)(random); },
            GetParam());
  for (unsigned int i = 0; i < inOneThread(600); ++i) {
    life.step();
    if (i % 3 == 0) life.check();
    if (testing::Test::HasFailure()) return;
  }
}

// Few ids meet often; many fill long lists and tables of several capacities.
INSTANTIATE_TEST_SUITE_P(FewAndMany, Model, testing::Values(3, 12, 60, 400));

}  // namespace
}  // namespace kl::test

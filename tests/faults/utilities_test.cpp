// The utilities while the system refuses: the results that say so, and no descriptor or mapping left behind.

#include <gtest/gtest.h>

#include <cerrno>

#include "kl/runner.h"
#include "kl/utilities.h"
#include "tests/support/faults.h"

namespace {

using kl::test::exposed;
using kl::test::FaultRun;

TEST(UtilityFaults, MemoryThatCannotBeReadIsAllOnes) {
  const unsigned int tried = kl::test::forEachFault(
      kl::test::everyFault(),
      [] {
        unsigned int total = 7;
        unsigned int free = 0;
        exposed([&] { free = kl::getFreeMemory(&total); });
        std::printf("%u %u", free, total);
      },
      [](const FaultRun& run) { EXPECT_EQ(run.child.out, "4294967295 7"); });
  EXPECT_GE(tried, 1U);
}

TEST(UtilityFaults, AVersionThatCannotBeReadIsEmpty) {
  const unsigned int tried = kl::test::forEachFault(
      kl::test::everyFault(),
      [] {
        std::string version = "x";
        exposed([&] { version = getOSVersion(); });
        EXPECT_EQ(version, "");
      },
      [](const FaultRun& run) { EXPECT_EQ(run.child.exitStatus, 0); });
  EXPECT_GE(tried, 1U);
}

}  // namespace

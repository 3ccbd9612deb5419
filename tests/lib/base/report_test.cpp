// The last line of a process.

#include "base/report.h"

#include <gtest/gtest.h>

#include "tests/support/process/child.h"

namespace kl {
namespace {

TEST(Diagnostics, ALineGoesToTheErrorStreamAndTheProcessGoesOn) {
  const test::ChildResult result = test::runInChild([] { reportLine("one line"); });
  EXPECT_EQ(result.err, "one line\n");
  EXPECT_EQ(result.out, "");
  EXPECT_EQ(result.exitStatus, 0);
}

TEST(Diagnostics, TheLastLineEndsTheProcessWithStatus1) {
  const test::ChildResult result = test::runInChild([] { endProcess("the end"); });
  EXPECT_EQ(result.err, "the end\n");
  EXPECT_EQ(result.exitStatus, 1);
}

}  // namespace
}  // namespace kl

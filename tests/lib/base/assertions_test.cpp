// Promises that the program itself breaks.

#include "base/assertions.h"

#include <gtest/gtest.h>

#include <csignal>

#include "tests/support/process/child.h"

namespace kl {
namespace {

TEST(Assertions, ABrokenOneNamesItsLineAndExpressionAndAborts) {
  const test::ChildResult result = test::runInChild([] {
    const int a = 1;
    KL_ASSERT_LINE(582, a == 2 || a == 3);
  });
  EXPECT_EQ(result.err, "looper.cpp:582: assertion failed: a == 2 || a == 3\n");
  EXPECT_EQ(result.signal, SIGABRT);
}

TEST(Assertions, OneThatHoldsSaysNothing) {
  const test::ChildResult result = test::runInChild([] { KL_ASSERT(1 + 1 == 2); });
  EXPECT_EQ(result.err, "");
  EXPECT_EQ(result.exitStatus, 0);
}

}  // namespace
}  // namespace kl

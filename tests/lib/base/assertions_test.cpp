// Promises that the program itself breaks.

#include "base/assertions.h"

#include <gtest/gtest.h>

#include <csignal>

#include "tests/support/process/child.h"

namespace kl {
namespace {

TEST(Assertions, ABrokenOneNamesItsPlaceAndExpressionAndAborts) {
  const test::ChildResult result = test::runInChild([] {
    const int a = 1;
    KL_ASSERT_AT("looper.cpp:582", a == 2 || a == 3);
  });
  EXPECT_EQ(result.err, "looper.cpp:582: assertion failed: a == 2 || a == 3\n");
  EXPECT_EQ(result.signal, SIGABRT);
}

TEST(Assertions, OneThatHasMoreToSaySaysItInASecondLine) {
  const test::ChildResult result = test::runInChild([] {
    const int a = 1;
    KL_ASSERT_AT_SAYING("looper.cpp:582", "a is " + std::to_string(a), a == 2);
  });
  EXPECT_EQ(result.err, "looper.cpp:582: assertion failed: a == 2\na is 1\n");
  EXPECT_EQ(result.signal, SIGABRT);
}

TEST(Assertions, OneWithoutAPlaceOfItsOwnNamesItsFileAndLine) {
  const int line = __LINE__ + 1;
  const test::ChildResult result = test::runInChild([] { KL_ASSERT(1 + 1 == 3); });
  EXPECT_EQ(result.err, "assertions_test.cpp:" + std::to_string(line) + ": assertion failed: 1 + 1 == 3\n");
}

TEST(Assertions, OneThatHoldsSaysNothing) {
  const test::ChildResult result = test::runInChild([] { KL_ASSERT(1 + 1 == 2); });
  EXPECT_EQ(result.err, "");
  EXPECT_EQ(result.exitStatus, 0);
}

TEST(Assertions, AnInvariantIsCheckedInDebugBuildsAlone) {
  const test::ChildResult result = test::runInChild([] { KL_INVARIANT(1 + 1 == 3); });
#ifdef NDEBUG
  EXPECT_EQ(result.exitStatus, 0);
#else
  EXPECT_EQ(result.signal, SIGABRT);
#endif
}

}  // namespace
}  // namespace kl

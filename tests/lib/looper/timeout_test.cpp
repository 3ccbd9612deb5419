// How long a reader may wait.

#include "looper/timeout.h"

#include <gtest/gtest.h>

#include <limits>

#include "tests/support/calls/scripted_calls.h"

namespace kl {
namespace {

TEST(TimeoutTest, WithoutLimitTheClockIsNotRead) {
  const test::ScriptedClock clock(1000);
  Timeout timeout(-1);
  EXPECT_TRUE(timeout.waits());
  EXPECT_EQ(timeout.milliseconds(), -1);
  EXPECT_FALSE(timeout.expired());
  EXPECT_EQ(clock.reads(), 0u);
}

TEST(TimeoutTest, ZeroDoesNotWaitAndDoesNotReadTheClock) {
  const test::ScriptedClock clock(1000);
  Timeout timeout(0);
  EXPECT_FALSE(timeout.waits());
  EXPECT_EQ(timeout.milliseconds(), 0);
  EXPECT_FALSE(timeout.expired());
  EXPECT_EQ(clock.reads(), 0u);
}

TEST(TimeoutTest, CountsFromTheFirstWaitAndReadsTheClockOnceForIt) {
  test::ScriptedClock clock(1000);
  Timeout timeout(300);
  clock.advance(500);  // nobody waited yet
  EXPECT_EQ(timeout.milliseconds(), 3000);
  EXPECT_EQ(clock.reads(), 1u);
  clock.advance(100);
  EXPECT_EQ(timeout.milliseconds(), 2000);
  EXPECT_FALSE(timeout.expired());
}

TEST(TimeoutTest, IsOverWhenTheElapsedTicksReachIt) {
  test::ScriptedClock clock(1000);
  Timeout timeout(300);
  EXPECT_FALSE(timeout.expired());
  clock.advance(299);
  EXPECT_FALSE(timeout.expired());
  EXPECT_EQ(timeout.milliseconds(), 10);
  clock.advance(1);
  EXPECT_TRUE(timeout.expired());
  EXPECT_EQ(timeout.milliseconds(), 0);
  clock.advance(1000);
  EXPECT_EQ(timeout.milliseconds(), 0);
}

TEST(TimeoutTest, TheClockMayWrapAround) {
  test::ScriptedClock clock(0xfffffff0);
  Timeout timeout(32);
  EXPECT_EQ(timeout.milliseconds(), 320);
  clock.advance(31);
  EXPECT_FALSE(timeout.expired());
  EXPECT_EQ(timeout.milliseconds(), 10);
  clock.advance(1);
  EXPECT_TRUE(timeout.expired());
}

TEST(TimeoutTest, TheLongestTimeoutDoesNotOverflow) {
  const test::ScriptedClock clock(1000);
  Timeout timeout(std::numeric_limits<int>::max());
  EXPECT_EQ(timeout.milliseconds(), 2147483640);
}

}  // namespace
}  // namespace kl

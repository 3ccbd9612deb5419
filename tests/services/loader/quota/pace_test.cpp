#include "services/loader/quota/pace.h"

#include <gtest/gtest.h>

namespace {

using loader::Pace;

// How many of `count` connections may come in this tick.
unsigned int taken(Pace& pace, unsigned int now, unsigned int count) {
  unsigned int sum = 0;
  for (unsigned int i = 0; i < count; ++i) sum += pace.admitOne(now) ? 1 : 0;
  return sum;
}

void fail(Pace& pace, unsigned int now, unsigned int count) {
  for (unsigned int i = 0; i < count; ++i) (void)pace.countFailure(now);
}

TEST(Pace, WithoutARateAnyNumberMayCome) {
  Pace pace;
  EXPECT_EQ(taken(pace, 7, 10000), 10000u);
}

TEST(Pace, ABurstIsTakenAtOnceAndThenTheRate) {
  Pace pace(50, 20);
  EXPECT_EQ(taken(pace, 1000, 100), 20u);
  EXPECT_EQ(taken(pace, 1000, 100), 0u);
  EXPECT_EQ(taken(pace, 1001, 100), 0u);
  EXPECT_EQ(taken(pace, 1002, 100), 1u);
  EXPECT_EQ(taken(pace, 1012, 100), 5u);
}

TEST(Pace, AfterALongQuietItIsNoMoreThanTheBurst) {
  Pace pace(50, 20);
  (void)taken(pace, 1000, 100);
  EXPECT_FALSE(pace.isRested(1010));
  EXPECT_TRUE(pace.isRested(1040));
  EXPECT_EQ(taken(pace, 900000, 100), 20u);
}

TEST(Pace, AfterTooManyFailuresNobodyComesUntilTheTickIsOver) {
  Pace pace;
  fail(pace, 7, Pace::kMostFailures);
  EXPECT_FALSE(pace.admitOne(7));
  EXPECT_TRUE(pace.admitOne(8));
}

TEST(Pace, OneFailureLessHoldsNobodyUp) {
  Pace pace;
  fail(pace, 7, Pace::kMostFailures - 1);
  EXPECT_TRUE(pace.admitOne(7));
  fail(pace, 8, Pace::kMostFailures - 1);
  EXPECT_TRUE(pace.admitOne(8));
}

TEST(Pace, BehindATickWithTooManyOnlyAsManyComeAsMayFail) {
  Pace pace;
  fail(pace, 7, Pace::kMostFailures);
  EXPECT_EQ(taken(pace, 8, 100), Pace::kMostFailures);
  EXPECT_EQ(taken(pace, 9, 100), 100u);
}

TEST(Pace, TheFailureThatHoldsUpIsToldOnceATick) {
  Pace pace;
  unsigned int told = 0;
  for (unsigned int i = 0; i < 3 * Pace::kMostFailures; ++i) told += pace.countFailure(7) ? 1 : 0;
  EXPECT_EQ(told, 1u);
}

TEST(Pace, LinesKeepADistance) {
  Pace pace;
  EXPECT_TRUE(pace.takeLogLine(3));
  EXPECT_FALSE(pace.takeLogLine(3 + Pace::kLineTicks - 1));
  EXPECT_TRUE(pace.takeLogLine(3 + Pace::kLineTicks));
}

TEST(Pace, TheTimeMayWrapAround) {
  Pace pace(50, 20);
  (void)taken(pace, 0xfffffffe, 100);
  EXPECT_EQ(taken(pace, 2, 100), 2u);
}

}  // namespace

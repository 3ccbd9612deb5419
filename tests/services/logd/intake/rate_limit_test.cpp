#include "services/logd/intake/rate_limit.h"

#include <gtest/gtest.h>

namespace logd {
namespace {

constexpr Nanoseconds kMillisecond = 1'000'000;
constexpr Nanoseconds kStart = 5'000'000'000;

unsigned int takeAll(RateLimit& limit, Nanoseconds now) {
  unsigned int count = 0;
  while (count < 100000 && limit.allows(now)) ++count;
  return count;
}

TEST(RateLimit, ItStartsWithABurst) {
  RateLimit limit(10, 100);
  EXPECT_EQ(takeAll(limit, kStart), 100u);
  EXPECT_FALSE(limit.allows(kStart));
}

TEST(RateLimit, LinesComeBackWithTime) {
  RateLimit limit(10, 100);
  (void)takeAll(limit, kStart);
  EXPECT_EQ(takeAll(limit, kStart + 100 * kMillisecond), 1u);
  EXPECT_EQ(takeAll(limit, kStart + 1100 * kMillisecond), 10u);
}

TEST(RateLimit, NeverMoreThanABurst) {
  RateLimit limit(10, 100);
  (void)takeAll(limit, kStart);
  EXPECT_EQ(takeAll(limit, kStart + 1000000000 * kMillisecond), 100u);
}

TEST(RateLimit, AnEmptyOneGivesAgainAfterATenthOfASecond) {
  RateLimit limit(1000, 100);
  (void)takeAll(limit, kStart);
  EXPECT_FALSE(limit.wouldAllow(kStart + 99 * kMillisecond));
  EXPECT_EQ(takeAll(limit, kStart + 100 * kMillisecond), 100u);
}

TEST(RateLimit, AClockThatGoesBackEarnsNothing) {
  RateLimit limit(10, 10);
  (void)takeAll(limit, kStart);
  EXPECT_FALSE(limit.allows(kStart - 1000 * kMillisecond));
}

TEST(RateLimit, ZeroLinesASecondIsNoLimit) {
  RateLimit limit(0, 1);
  EXPECT_EQ(takeAll(limit, kStart), 100000u);
}

TEST(RateLimit, SeveralTokensAreTakenTogetherOrNotAtAll) {
  RateLimit limit(10, 100);
  EXPECT_TRUE(limit.allows(kStart, 60));
  EXPECT_FALSE(limit.allows(kStart, 60));
  EXPECT_TRUE(limit.allows(kStart + 2000 * kMillisecond, 60));
}

TEST(RateLimit, MoreThanABurstCountsAsABurst) {
  RateLimit limit(10, 100);
  EXPECT_TRUE(limit.allows(kStart, 1000));
  EXPECT_FALSE(limit.allows(kStart));
}

TEST(RateLimit, ItIsFullAgainWhenEverythingHasComeBack) {
  RateLimit limit(10, 100);
  EXPECT_TRUE(limit.isFull(kStart));
  EXPECT_TRUE(limit.allows(kStart, 10));
  EXPECT_FALSE(limit.isFull(kStart + 999 * kMillisecond));
  EXPECT_TRUE(limit.isFull(kStart + 1000 * kMillisecond));
}

}  // namespace
}  // namespace logd

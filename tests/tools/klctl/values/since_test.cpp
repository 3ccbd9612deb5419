#include "tools/klctl/values/since.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <ctime>

namespace klctl {
namespace {

constexpr unsigned long long kSecond = 1'000'000'000;
constexpr unsigned long long kNow = 1795241306 * kSecond;       // 2026-11-21 06:08:26
constexpr unsigned long long kMidnight = 1795219200 * kSecond;  // the day's beginning

class Since : public testing::Test {
 protected:
  Since() {
    ::setenv("TZ", "UTC0", 1);
    ::tzset();
  }
};

TEST_F(Since, SoLongAgo) {
  EXPECT_EQ(parseSince("90s", kNow), kNow - 90 * kSecond);
  EXPECT_EQ(parseSince("10m", kNow), kNow - 600 * kSecond);
  EXPECT_EQ(parseSince("2h", kNow), kNow - 7200 * kSecond);
  EXPECT_EQ(parseSince("3d", kNow), kNow - 3 * 86400 * kSecond);
  EXPECT_EQ(parseSince("100000d", kNow), 0u);
}

TEST_F(Since, ATimeOfToday) {
  EXPECT_EQ(parseSince("06:30", kNow), kMidnight + (6 * 3600 + 30 * 60) * kSecond);
  EXPECT_EQ(parseSince("06:30:15", kNow), kMidnight + (6 * 3600 + 30 * 60 + 15) * kSecond);
}

TEST_F(Since, ADayAndATime) {
  EXPECT_EQ(parseSince("2026-11-21", kNow), kMidnight);
  EXPECT_EQ(parseSince("2026-11-20 06:30", kNow), kMidnight - 86400 * kSecond + 23400 * kSecond);
  EXPECT_EQ(parseSince("2026-11-21T00:00:01", kNow), kMidnight + kSecond);
}

TEST_F(Since, SecondsSince1970) { EXPECT_EQ(parseSince("@1795241306", kNow), kNow); }

TEST_F(Since, AnythingElseIsNone) {
  for (const char* word :
       {"", "m", "10", "10w", "-5m", "25:00", "2026-13-01", "soon", "@", "@x", "99999999999999999999d"})
    EXPECT_FALSE(parseSince(word, kNow)) << word;
}

}  // namespace
}  // namespace klctl

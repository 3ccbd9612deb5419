#include "loop/local_time.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>
#include <random>
#include <string>

namespace kl {
namespace {

constexpr std::time_t kStart = 1795230966;  // 2026-11-21 03:16:06 UTC

class LocalTime : public ::testing::TestWithParam<const char*> {
 protected:
  static void setZone(const char* zone) {
    ::setenv("TZ", zone, 1);
    rememberLocalZone(kStart);
  }
  void TearDown() override {
    ::unsetenv("TZ");
    rememberLocalZone(kStart);
  }

  static std::string format(std::time_t time) {
    char text[kTimeTextBytes];
    return {text, formatLocalTime(time, text)};
  }

  static std::string libraryFormat(std::time_t time) {
    char text[64];
    return ::ctime_r(&time, text);
  }
};

TEST_F(LocalTime, LooksLikeCtime) {
  setZone("UTC0");
  EXPECT_EQ(format(kStart), "Sat Nov 21 03:16:06 2026\n");
  EXPECT_EQ(format(0), "Thu Jan  1 00:00:00 1970\n");
  EXPECT_EQ(format(951782399), "Mon Feb 28 23:59:59 2000\n");
  EXPECT_EQ(format(951782400), "Tue Feb 29 00:00:00 2000\n");
  EXPECT_EQ(format(-1), "Wed Dec 31 23:59:59 1969\n");
  EXPECT_EQ(format(2147483647), "Tue Jan 19 03:14:07 2038\n");
}

TEST_P(LocalTime, IsTheLibrarysForTwoYears) {
  setZone(GetParam());
  const unsigned int seed = std::random_device{}();
  SCOPED_TRACE("seed " + std::to_string(seed));
  std::mt19937 random(seed);
  for (int i = 0; i < 3000; ++i) {
    const auto time = kStart + static_cast<std::time_t>(random() % (2 * 365 * 86400));
    ASSERT_EQ(format(time), libraryFormat(time)) << time;
  }
}

TEST_P(LocalTime, TheClockChangesAtTheRightSecond) {
  setZone(GetParam());
  std::tm before{};
  ::localtime_r(&kStart, &before);
  for (std::time_t time = kStart; time < kStart + 700 * 86400; time += 3600) {
    std::tm local{};
    ::localtime_r(&time, &local);
    if (local.tm_gmtoff == before.tm_gmtoff) continue;
    before = local;
    for (std::time_t second = time - 3601; second <= time + 1; ++second)
      ASSERT_EQ(format(second), libraryFormat(second)) << second;
  }
}

INSTANTIATE_TEST_SUITE_P(Zones, LocalTime,
                         ::testing::Values("UTC0", "CET-1CEST,M3.5.0,M10.5.0/3", "EST5EDT,M3.2.0,M11.1.0",
                                           "AEST-10AEDT,M10.1.0,M4.1.0/3", "<+0545>-5:45", "<-1030>10:30",
                                           "XXX0YYY,J60,J80"));

TEST_F(LocalTime, AfterTwoYearsTheSameDaysChangeTheClock) {
  setZone("CET-1CEST,M3.5.0,M10.5.0/3");
  EXPECT_EQ(format(1910000000), libraryFormat(1910000000));  // in July 2030
  EXPECT_EQ(format(1925000000), libraryFormat(1925000000));  // in January 2031
}

}  // namespace
}  // namespace kl

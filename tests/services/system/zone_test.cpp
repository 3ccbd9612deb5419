#include "services/system/zone.h"

#include <gtest/gtest.h>

#include <cstdlib>

#include "tests/services/system/zone_file.h"

namespace kl_system {
namespace {

constexpr char kBerlin[] = "CET-1CEST,M3.5.0,M10.5.0/3";
constexpr std::time_t kWinter2026 = 1767225600;        // 2026-01-01 00:00 UTC
constexpr std::time_t kSummerBegins2026 = 1774746000;  // 2026-03-29 01:00 UTC
constexpr std::time_t kSummerEnds2026 = 1792890000;    // 2026-10-25 01:00 UTC
constexpr std::time_t kDay = 86400;

void setZone(const std::string& tz) {
  ::setenv("TZ", tz.c_str(), 1);
  readZoneAgain();
}

}  // namespace

TEST(Zone, TheOffsetIncludesDaylightSavingTime) {
  setZone(kBerlin);
  EXPECT_EQ(offsetAt(kWinter2026), 3600);
  EXPECT_EQ(offsetAt(kSummerBegins2026 - 1), 3600);
  EXPECT_EQ(offsetAt(kSummerBegins2026), 7200);
  EXPECT_EQ(offsetAt(kSummerEnds2026), 3600);
}

TEST(Zone, WestIsNegativeAndQuartersOfAnHourAreOffsetsToo) {
  setZone("NST3:30");
  EXPECT_EQ(offsetAt(kWinter2026), -12600);
  setZone("<+0545>-5:45");
  EXPECT_EQ(offsetAt(kWinter2026), 20700);
}

TEST(Zone, TheNextChangeIsTheFirstSecondOfTheOtherOffset) {
  setZone(kBerlin);
  EXPECT_EQ(nextChange(kSummerBegins2026 - kDay, kSummerBegins2026 + kDay), kSummerBegins2026);
  EXPECT_EQ(nextChange(kSummerBegins2026 - 1, kSummerBegins2026 + kDay), kSummerBegins2026);
  EXPECT_EQ(nextChange(kSummerEnds2026 - kDay + 7, kSummerEnds2026 + kDay), kSummerEnds2026);
}

TEST(Zone, WithoutAChangeTheEndIsTheAnswer) {
  setZone(kBerlin);
  EXPECT_EQ(nextChange(kWinter2026, kWinter2026 + 31 * kDay), kWinter2026 + 31 * kDay);
  EXPECT_EQ(nextChange(kSummerBegins2026, kSummerBegins2026 + kDay), kSummerBegins2026 + kDay);
  EXPECT_EQ(nextChange(kSummerBegins2026 - 60, kSummerBegins2026 - 1), kSummerBegins2026 - 1);
  EXPECT_EQ(nextChange(kWinter2026, kWinter2026), kWinter2026);
}

TEST(Zone, AFileThatTheEnvironmentNamesIsReadAgain) {
  const std::string file = testing::TempDir() + "zone-read-again";
  replaceFile(file, zoneBytes(5400));
  setZone(":" + file);
  EXPECT_EQ(offsetAt(kWinter2026), 5400);
  replaceFile(file, zoneBytes(-1800, {{kSummerBegins2026, 60}}));
  readZoneAgain();
  EXPECT_EQ(offsetAt(kWinter2026), -1800);
  EXPECT_EQ(nextChange(kWinter2026, kWinter2026 + 365 * kDay), kSummerBegins2026);
  EXPECT_STREQ(std::getenv("TZ"), (":" + file).c_str());
}

TEST(Zone, TheFileIsTheSystemsOrTheOneThatTheEnvironmentNames) {
  ::unsetenv("TZ");
  EXPECT_EQ(zoneFile(), "/etc/localtime");
  ::setenv("TZ", ":/ram/zone", 1);
  EXPECT_EQ(zoneFile(), "/ram/zone");
  ::setenv("TZ", "/ram/zone", 1);
  EXPECT_EQ(zoneFile(), "/ram/zone");
  ::setenv("TZ", "Europe/Berlin", 1);
  EXPECT_EQ(zoneFile(), "/usr/share/zoneinfo/Europe/Berlin");
}

}  // namespace kl_system

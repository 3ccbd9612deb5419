#include "services/loader/life/restart_delay.h"

#include <gtest/gtest.h>

#include <vector>

namespace {

using loader::RestartDelay;

TEST(RestartDelay, DoublesFromATenthOfASecondToTenSeconds) {
  RestartDelay delay;
  std::vector<unsigned int> ticks;
  for (int crash = 0; crash < 10; ++crash) ticks.push_back(delay.next(0));
  EXPECT_EQ(ticks, (std::vector<unsigned int>{10, 20, 40, 80, 160, 320, 640, 1000, 1000, 1000}));
}

TEST(RestartDelay, TenSecondsOfLifeBeginItAnew) {
  RestartDelay delay;
  delay.next(0);
  delay.next(0);
  EXPECT_EQ(delay.next(999), 40u);
  EXPECT_EQ(delay.next(1000), 10u);
  EXPECT_EQ(delay.next(0), 20u);
}

}  // namespace

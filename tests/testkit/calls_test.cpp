#include "testkit/calls.h"

#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <ctime>
#include <thread>

#include "kl/runner.h"

namespace kl::test {
namespace {

class Player final : public CallsPlayer {
 public:
  Player() { play(this); }
  ~Player() { play(nullptr); }
  unsigned int now() const override { return ticks; }
  timespec wallTime() const override { return {12345, 6}; }
  int poll(pollfd*, nfds_t, int timeoutMs) override { return timeoutMs; }

  unsigned int ticks = 5;
};

TEST(Calls, AreTheSystemsWithoutAPlayer) {
  timespec before{};
  (void)::syscall(SYS_clock_gettime, CLOCK_REALTIME_COARSE, &before);
  const std::time_t now = std::time(nullptr);
  timespec after{};
  (void)::clock_gettime(CLOCK_REALTIME, &after);
  EXPECT_GE(now, before.tv_sec);
  EXPECT_LE(now, after.tv_sec);
  pollfd none{-1, 0, 0};
  EXPECT_EQ(::poll(&none, 1, 0), 0);
}

TEST(Calls, AreThePlayersOnItsThread) {
  const unsigned int real = getJiffies();
  Player player;
  EXPECT_EQ(getJiffies(), 5u);
  std::time_t given = 0;
  EXPECT_EQ(std::time(&given), 12345);
  EXPECT_EQ(given, 12345);
  EXPECT_EQ(::poll(nullptr, 0, 17), 17);
  std::thread([&] { EXPECT_GE(getJiffies(), real); }).join();
}

// The kernel's counter is 30000 below the tick, and -1 is what an error looks like.
TEST(Calls, ATickThatLooksLikeAnErrorIsATick) {
  Player player;
  for (player.ticks = 29990; player.ticks < 30010; ++player.ticks) EXPECT_EQ(getJiffies(), player.ticks);
}

TEST(Calls, ClocksFromTheStartOfTheMachineAreTheMachines) {
  const Player player;
  timespec now{};
  EXPECT_EQ(::clock_gettime(CLOCK_MONOTONIC, &now), 0);
  EXPECT_NE(now.tv_sec, 12345);
}

}  // namespace
}  // namespace kl::test

#include "kl/wall_timer.h"

#include <gtest/gtest.h>
#include <sys/resource.h>

#include <fstream>
#include <memory>
#include <optional>
#include <string>

namespace kl {
namespace {

using namespace std::chrono_literals;
using WallClock = WallTimer::Clock;

class WallTimers : public ::testing::Test {
 protected:
  void pass() { loop.runSocks(getJiffies()); }
  // Passes without waiting.
  void passIdle() {
    loop.addTimer(
        nullptr, [](void*) {}, 0);
    pass();
  }

  // The kernel's words on the only timer of this process: which clock it goes by, and whether its time is one of that
  // clock.
  static std::string kindOfTimer() {
    std::string kind;
    for (int fd = 3; fd < 64; ++fd) {
      std::ifstream info("/proc/self/fdinfo/" + std::to_string(fd));
      for (std::string line; std::getline(info, line);)
        if (line.starts_with("clockid:") || line.starts_with("settime flags:")) kind += line + ";";
    }
    return kind;
  }

  ThinRunner loop;
  std::optional<WallTimer> timer{std::in_place, loop};
  int calls = 0;
};

TEST_F(WallTimers, CallOnceAndNeverEarly) {
  const auto when = WallClock::now() + 15ms;
  ASSERT_TRUE(timer->start(when, [this] { ++calls; }));
  EXPECT_TRUE(timer->isRunning());
  while (calls == 0) pass();  // no timer: a call that does not come ends in the test's time limit
  EXPECT_GE(WallClock::now(), when);
  EXPECT_FALSE(timer->isRunning());
  passIdle();
  EXPECT_EQ(calls, 1);
}

TEST_F(WallTimers, GoByTheClockOfTheSystemAndNotByTheTimeThatPasses) {
  ASSERT_TRUE(timer->start(WallClock::now() + 1h, [this] { ++calls; }));
  EXPECT_EQ(kindOfTimer(), "clockid: 0;settime flags: 01;") << "CLOCK_REALTIME, TFD_TIMER_ABSTIME";
  passIdle();
  EXPECT_EQ(calls, 0);
}

TEST_F(WallTimers, TakeThePastAsNow) {
  for (const auto when : {WallClock::now() - 1h, WallClock::time_point(), WallClock::time_point(-5s)}) {
    calls = 0;
    ASSERT_TRUE(timer->start(when, [this] { ++calls; }));
    EXPECT_EQ(calls, 0) << "not before the next pass";
    pass();
    EXPECT_EQ(calls, 1);
  }
}

TEST_F(WallTimers, TakeTheFarthestFuture) {
  ASSERT_TRUE(timer->start(WallClock::time_point::max(), [this] { ++calls; }));
  passIdle();
  EXPECT_EQ(calls, 0);
  EXPECT_TRUE(timer->isRunning());
}

TEST_F(WallTimers, OfTwoStartsTheSecondCounts) {
  ASSERT_TRUE(timer->start(WallClock::now(), [this] { calls += 10; }));
  ASSERT_TRUE(timer->start(WallClock::now(), [this] { ++calls; }));
  pass();
  EXPECT_EQ(calls, 1);
}

TEST_F(WallTimers, StopAndEndWithWhatTheyHaveCaptured) {
  auto token = std::make_shared<int>();
  ASSERT_TRUE(timer->start(WallClock::now(), [token] { FAIL(); }));
  EXPECT_EQ(token.use_count(), 2);
  timer->stop();
  EXPECT_EQ(token.use_count(), 1);
  EXPECT_FALSE(timer->isRunning());
  ASSERT_TRUE(timer->start(WallClock::now(), [token] { FAIL(); }));
  timer.reset();
  EXPECT_EQ(token.use_count(), 1);
  passIdle();
}

TEST_F(WallTimers, MayBeStartedOrDestroyedByTheirCallback) {
  ASSERT_TRUE(timer->start(WallClock::now(), [this] {
    ++calls;
    EXPECT_TRUE(timer->start(WallClock::now(), [this] {
      ++calls;
      timer.reset();
    }));
  }));
  while (calls < 2) pass();
  EXPECT_FALSE(timer.has_value());
  passIdle();
}

TEST_F(WallTimers, SayThatThereIsNoDescriptor) {
  rlimit old{};
  ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &old), 0);
  const rlimit none{0, old.rlim_max};
  ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &none), 0);
  const bool isStarted = timer->start(WallClock::now(), [this] { ++calls; });
  ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &old), 0);
  EXPECT_FALSE(isStarted);
  EXPECT_FALSE(timer->isRunning());
  EXPECT_TRUE(timer->start(WallClock::now(), [this] { ++calls; }));
  pass();
  EXPECT_EQ(calls, 1);
}

}  // namespace
}  // namespace kl

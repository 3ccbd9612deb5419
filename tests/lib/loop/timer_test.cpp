#include "kl/timer.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <memory>
#include <optional>
#include <string>

#include "tests/support/calls/scripted_calls.h"

namespace kl {
namespace {

using namespace std::chrono_literals;

class OwnedTimer : public ::testing::Test {
 protected:
  // The ticks from now on, up to so many, at which there was a call.
  std::string callsWithin(unsigned int ticks) {
    std::string result;
    for (unsigned int tick = 1; tick <= ticks; ++tick) {
      clock.advance(1);
      calls = 0;
      loop.runTimers();
      for (int i = 0; i < calls; ++i) result += std::to_string(tick) + " ";
    }
    return result;
  }

  test::ScriptedClock clock{0xFFFFFFF0u};  // the ticks wrap around
  ThinRunner loop;
  int calls = 0;
};

TEST_F(OwnedTimer, CallsOnceAfterItsDelay) {
  Timer timer(loop);
  EXPECT_FALSE(timer.isRunning());
  timer.start(30ms, [this] { ++calls; });
  EXPECT_TRUE(timer.isRunning());
  EXPECT_EQ(callsWithin(10), "3 ");
  EXPECT_FALSE(timer.isRunning());
  timer.start(4, [this] { ++calls; });
  EXPECT_EQ(callsWithin(10), "4 ");
}

TEST_F(OwnedTimer, RepeatsWithItsPeriod) {
  Timer timer(loop);
  timer.repeat(100ms, [this] { ++calls; });
  EXPECT_EQ(callsWithin(40), "10 20 30 40 ");
  timer.stop();
  EXPECT_EQ(callsWithin(20), "");
  timer.repeat(0, [this] { ++calls; });
  EXPECT_EQ(callsWithin(3), "1 2 3 ");
}

TEST_F(OwnedTimer, ARepeatedOneDoesNotDriftAndDoesNotCatchUp) {
  Timer timer(loop);
  timer.repeat(10, [this] {
    ++calls;
    clock.advance(3);  // the callback takes its time
  });
  EXPECT_EQ(callsWithin(27), "10 17 24 ") << "30 ms late each time, and due at 10, 20, 30";
  timer.repeat(10, [this] { ++calls; });
  clock.advance(35);
  loop.runTimers();
  EXPECT_EQ(callsWithin(20), "5 15 ");
}

TEST_F(OwnedTimer, ItsEndStopsIt) {
  auto token = std::make_shared<int>();
  {
    Timer timer(loop);
    timer.repeat(1, [token] {});
    EXPECT_EQ(token.use_count(), 2);
  }
  EXPECT_EQ(token.use_count(), 1);
  clock.advance(5);
  loop.runTimers();
}

TEST_F(OwnedTimer, AnotherStartReplacesTheOneBefore) {
  Timer timer(loop);
  timer.start(1, [this] { calls += 10; });
  timer.start(2, [this] { ++calls; });
  EXPECT_EQ(callsWithin(5), "2 ");
}

TEST_F(OwnedTimer, ItsCallbackMayStopIt) {
  Timer timer(loop);
  timer.repeat(2, [this, &timer] {
    if (++calls > 0) timer.stop();
  });
  EXPECT_EQ(callsWithin(9), "2 ");
  EXPECT_FALSE(timer.isRunning());
}

TEST_F(OwnedTimer, ItsCallbackMayStartItAnew) {
  Timer timer(loop);
  timer.start(2, [this, &timer] {
    ++calls;
    timer.start(3, [this] { ++calls; });
  });
  EXPECT_EQ(callsWithin(9), "2 5 ");
}

TEST_F(OwnedTimer, ItsCallbackMayDestroyIt) {
  std::optional<Timer> timer;
  for (const bool repeats : {false, true}) {
    timer.emplace(loop);
    auto token = std::make_shared<int>(1);
    const std::weak_ptr<int> watched = token;
    const auto end = [this, &timer, token = std::move(token)] {
      timer.reset();
      calls += *token;  // what it has captured lives until it returns
    };
    if (repeats) timer->repeat(2, std::move(end));
    else timer->start(2, std::move(end));
    EXPECT_EQ(callsWithin(5), "2 ");
  }
  EXPECT_FALSE(timer);
}

TEST_F(OwnedTimer, WhatACallOnceHasCapturedEndsWithIt) {
  auto token = std::make_shared<int>();
  Timer timer(loop);
  timer.start(1, [token] {});
  callsWithin(1);
  EXPECT_EQ(token.use_count(), 1);
}

// The owner of a timer that lives in what the timer has captured.
struct Session {
  explicit Session(ThinRunner& loop) : timer(loop) {}
  Timer timer;
};

TEST_F(OwnedTimer, ItMayOwnItsOwner) {
  auto session = std::make_shared<Session>(loop);
  const std::weak_ptr<Session> watched = session;
  Session* last = session.get();
  session->timer.start(1, [session] {});
  session.reset();
  last->timer.start(2, [this] { ++calls; });
  EXPECT_TRUE(watched.expired());
  EXPECT_EQ(callsWithin(3), "");
}

TEST_F(OwnedTimer, TakesAPlainFunction) {
  static int seen;
  seen = 0;
  Timer timer(loop);
  timer.start(
      1, +[] { ++seen; });
  callsWithin(1);
  EXPECT_EQ(seen, 1);
}

class OwnedWatch : public ::testing::Test {
 protected:
  OwnedWatch() { EXPECT_EQ(::pipe(ends), 0); }
  ~OwnedWatch() override {
    for (const int end : ends) ::close(end);
  }

  void pass() { loop.runSocks(getJiffies()); }

  int ends[2] = {-1, -1};
  ThinRunner loop;
  Watch watch{loop};
  Timer alarm{loop};  // so that no poll waits for ever
  std::string seen;
};

TEST_F(OwnedWatch, CallsWithTheDescriptorAndWhatHolds) {
  alarm.repeat(0, [] {});
  watch.start(ends[1], POLLOUT, [this](int fd, unsigned int revents) {
    seen += fd == ends[1] && revents == POLLOUT ? "writable " : "?";
  });
  pass();
  pass();
  EXPECT_EQ(seen, "writable writable ");
  EXPECT_TRUE(watch.change(POLLIN));
  pass();
  EXPECT_EQ(seen, "writable writable ");
  watch.stop();
  EXPECT_FALSE(watch.isRunning());
  EXPECT_FALSE(watch.change(POLLOUT));
  EXPECT_FALSE(loop.removeSocket(ends[1]));
}

TEST_F(OwnedWatch, ItsCallbackMayStopStartAndDestroyIt) {
  alarm.repeat(0, [] {});
  std::optional<Watch> mine(std::in_place, loop);
  mine->start(ends[1], POLLOUT, [&](int, unsigned int) {
    seen += "first ";
    mine->start(ends[1], POLLOUT, [&](int, unsigned int) {
      mine.reset();
      seen += "second ";
    });
  });
  for (int i = 0; i < 4; ++i) pass();
  EXPECT_EQ(seen, "first second ");
}

}  // namespace
}  // namespace kl

#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <stdexcept>
#include <utility>
#include <vector>

#include "kl/runner.h"
#include "tests/support/calls/scripted_calls.h"
#include "tests/support/journal.h"

namespace kl {
namespace {

class Loop : public ThinRunner {
 public:
  void stop() { stop_ = true; }
};

// A loop that decides itself how long it sleeps.
class SleepyLoop : public Loop {
 public:
  int sleepTime(unsigned int now) override {
    askedAt = now;
    return 77;
  }
  unsigned int askedAt = 0;
};

class FurtherDerived : public SleepyLoop {};

TEST(Jiffies, CountFromThreeHundredSecondsBeforeBoot) {
  test::ScriptedClock clock(30000);
  EXPECT_EQ(getJiffies(), 30000u);
  clock.set(5);
  EXPECT_EQ(getJiffies(), 5u);
  clock.set(0xFFFFFFFFu);
  EXPECT_EQ(getJiffies(), 0xFFFFFFFFu);
}

TEST(Jiffies, AValueThatLooksLikeAnErrorNumberIsReadFromErrno) {
  test::ScriptedClock clock(0);
  clock.failWith(EINVAL);
  EXPECT_EQ(getJiffies(), 30000u - EINVAL);
}

TEST(Jiffies, TheRealClockRuns) {
  const unsigned int before = getJiffies();
  EXPECT_LE(getJiffies() - before, 6000u);  // a minute: a clock that runs backwards is years away
}

TEST(ThinRunner, WithoutTimersAndSocketsThePollWaitsWithoutLimit) {
  Loop loop;
  test::ScriptedPoll poll([&](const std::vector<pollfd*>& entries) {
    EXPECT_TRUE(entries.empty());
    loop.stop();
    return 0;
  });
  loop.run();
  EXPECT_EQ(poll.timeouts(), std::vector<int>{-1});
}

TEST(ThinRunner, ThePollWaitsForTheFirstTimer) {
  test::ScriptedClock clock(1000);
  Loop loop;
  loop.addTimer(
      &loop, [](void* data) { static_cast<Loop*>(data)->stop(); }, 30);
  test::ScriptedPoll poll([&](const std::vector<pollfd*>&) {
    clock.advance(20);
    return 0;
  });
  loop.run();
  EXPECT_EQ(poll.timeouts(), (std::vector<int>{300, 100}));
}

TEST(ThinRunner, AHookThatSetsTheStopFlagEndsTheLoopWithoutSleeping) {
  Loop loop;
  loop.addBeforeSleep(&loop, [](void* data) { static_cast<Loop*>(data)->stop(); });
  test::ScriptedPoll poll([](const std::vector<pollfd*>&) { return 0; });
  loop.run();
  EXPECT_EQ(poll.timeouts(), std::vector<int>{0});
}

TEST(ThinRunner, RunDoesNothingOnceTheStopFlagIsSet) {
  Loop loop;
  loop.stop();
  test::ScriptedPoll poll([](const std::vector<pollfd*>&) { return 0; });
  loop.run();
  EXPECT_TRUE(poll.timeouts().empty());
}

TEST(ThinRunner, DelayedTimersStartToCountWhenRunIsEntered) {
  test::ScriptedClock clock(1000);
  Loop loop;
  loop.addDelayedTimer(
      &loop, [](void* data) { static_cast<Loop*>(data)->stop(); }, 2);
  test::ScriptedPoll poll([&](const std::vector<pollfd*>&) {
    clock.advance(2);
    return 0;
  });
  loop.run();
  EXPECT_EQ(poll.timeouts(), std::vector<int>{20});
}

TEST(ThinRunner, APassWithoutTimersReadsNoClock) {
  test::ScriptedClock clock(1000);
  Loop loop;
  int passes = 0;
  test::ScriptedPoll poll([&](const std::vector<pollfd*>&) {
    if (++passes == 5) loop.stop();
    return 0;
  });
  loop.run();
  EXPECT_EQ(clock.reads(), 0u);
}

TEST(ThinRunner, APassWithATimerReadsTheClockBeforeAndAfterThePoll) {
  test::ScriptedClock clock(1000);
  Loop loop;
  loop.addTimer(
      nullptr, [](void*) {}, 1000);
  test::ScriptedPoll poll([&](const std::vector<pollfd*>&) {
    loop.stop();
    return 0;
  });
  loop.run();
  EXPECT_EQ(clock.reads(), 3u);
}

template <class T>
class OwnSleepTime : public ::testing::Test {};
using Sleepers = ::testing::Types<SleepyLoop, FurtherDerived>;
TYPED_TEST_SUITE(OwnSleepTime, Sleepers);

TYPED_TEST(OwnSleepTime, OfADerivedLoopDecidesAndIsAskedWithTheTick) {
  test::ScriptedClock clock(4711);
  TypeParam loop;
  test::ScriptedPoll poll([&](const std::vector<pollfd*>&) {
    loop.stop();
    return 0;
  });
  loop.run();
  EXPECT_EQ(loop.askedAt, 4711u);
  EXPECT_EQ(poll.timeouts(), std::vector<int>{77});
}

TEST(ThinRunner, APassRunsHooksThenTimersThenSocketsThenDelayedTimers) {
  struct Fixture {
    test::Journal journal;
    test::ScriptedClock clock{1000};
    Loop loop;
  } f;
  f.loop.addBeforeSleep(&f, [](void* data) { static_cast<Fixture*>(data)->journal.note("hook"); });
  f.loop.addTimer(
      &f, [](void* data) { static_cast<Fixture*>(data)->journal.note("timer"); }, 0);
  f.loop.addSocket(
      5, &f,
      [](void* data, int, unsigned int) {
        auto* fixture = static_cast<Fixture*>(data);
        fixture->journal.note("socket");
        fixture->loop.addDelayedTimer(
            data, [](void* d) { static_cast<Fixture*>(d)->journal.note("delayed"); }, 0);
        if (fixture->journal.text().size() > 30) fixture->loop.stop();
      },
      POLLIN);
  test::ScriptedPoll poll([&](const std::vector<pollfd*>& entries) {
    entries.at(0)->revents = POLLIN;
    return 1;
  });
  f.loop.run();
  EXPECT_EQ(f.journal.text(), "hook timer socket hook delayed socket");
}

TEST(ThinRunnerDeathTest, AnExceptionThatACallbackLetsOutEndsTheProcess) {
  const auto run = [] {
    Loop loop;
    loop.addTimer(
        nullptr, [](void*) { throw std::runtime_error("out of a callback"); }, 0);
    try {
      loop.run();
    } catch (const std::runtime_error&) {  // is not reached
    }
  };
  EXPECT_DEATH(run(), "out of a callback");
}

TEST(ThinRunner, TimersFireAlthoughThePollFailed) {
  test::ScriptedClock clock(1000);
  Loop loop;
  loop.addTimer(
      &loop, [](void* data) { static_cast<Loop*>(data)->stop(); }, 0);
  test::ScriptedPoll poll([](const std::vector<pollfd*>&) {
    errno = EINTR;
    return -1;
  });
  loop.run();
  EXPECT_EQ(poll.timeouts().size(), 1u);
}

TEST(ThinRunner, ShutdownDropsEverythingAndDoesNotStopTheLoop) {
  test::ScriptedClock clock(1000);
  Loop loop;
  loop.addTimer(
      nullptr, [](void*) { ADD_FAILURE(); }, 0);
  loop.addSocket(
      5, nullptr, [](void*, int, unsigned int) { ADD_FAILURE(); }, POLLIN);
  loop.addBeforeSleep(nullptr, [](void*) { ADD_FAILURE(); });
  loop.shutdown();
  test::ScriptedPoll poll([&](const std::vector<pollfd*>& entries) {
    EXPECT_TRUE(entries.empty());
    loop.stop();
    return 0;
  });
  loop.run();
  EXPECT_EQ(poll.timeouts(), std::vector<int>{-1});
}

TEST(ThinRunner, ShutdownClosesNoDescriptor) {
  int ends[2];
  ASSERT_EQ(::pipe(ends), 0);
  {
    ThinRunner loop;
    loop.addSocket(
        ends[0], nullptr, [](void*, int, unsigned int) {}, POLLIN);
  }
  EXPECT_EQ(::close(ends[0]), 0);
  EXPECT_EQ(::close(ends[1]), 0);
}

}  // namespace
}  // namespace kl

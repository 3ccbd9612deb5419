#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "kl/runner.h"
#include "tests/lib/loop/probe.h"
#include "tests/support/calls/scripted_calls.h"
#include "tests/support/journal.h"

namespace kl {
namespace {

constexpr unsigned int kStart = 1000000;

class Timers : public ::testing::Test {
 public:  // the timers' callbacks use it too
  // A timer that notes its name.
  struct Named {
    Timers* test;
    std::string name;
  };

  static void noteName(void* data) {
    auto* named = static_cast<Named*>(data);
    named->test->journal.note(named->name);
  }

  Named* named(const std::string& name) {
    names.push_back(std::make_unique<Named>(Named{this, name}));
    return names.back().get();
  }

  TimerPtr add(const std::string& name, unsigned int delay) {
    return loop.addTimer(named(name), noteName, delay);
  }

  std::string fired() {
    journal.clear();
    loop.runTimers();
    return journal.text();
  }

  std::string heap() const {
    std::string line;
    for (const auto& [data, expiry] : ThinRunnerProbe::heap(loop))
      line += static_cast<Named*>(data)->name + " ";
    return line;
  }

  test::ScriptedClock clock{kStart};
  test::Journal journal;
  std::vector<std::unique_ptr<Named>> names;
  ThinRunner loop;
};

TEST_F(Timers, FiresOnceWhenItsDelayHasPassed) {
  add("a", 3);
  clock.advance(2);
  EXPECT_EQ(fired(), "");
  clock.advance(1);
  EXPECT_EQ(fired(), "a");
  EXPECT_EQ(fired(), "");
}

TEST_F(Timers, DelayZeroOutsideAFiringPassFiresInTheNextPass) {
  add("a", 0);
  EXPECT_EQ(fired(), "a");
}

TEST_F(Timers, TimerMadeByATimerWaitsForTheNextPass) {
  loop.addTimer(
      this,
      [](void* data) {
        auto* test = static_cast<Timers*>(data);
        test->journal.note("first");
        test->add("second", 0);
      },
      0);
  EXPECT_EQ(fired(), "first");
  EXPECT_EQ(fired(), "second");
}

TEST_F(Timers, TheExpiryOfATimerMadeByATimerCountsFromItsCreation) {
  loop.addTimer(
      this,
      [](void* data) {
        auto* test = static_cast<Timers*>(data);
        test->clock.advance(10);
        test->add("late", 5);
        test->clock.advance(10);
      },
      0);
  loop.runTimers();
  EXPECT_EQ(ThinRunnerProbe::heap(loop).front().second, kStart + 15);
}

TEST_F(Timers, FireInTheOrderOfTheirExpiry) {
  for (const auto& [name, delay] : {std::pair{"c", 30u}, {"a", 10u}, {"d", 40u}, {"b", 20u}})
    add(name, delay);
  clock.advance(35);
  EXPECT_EQ(fired(), "a b c");
}

TEST_F(Timers, ATimerNeverRisesAboveAParentOfTheSameTick) {
  add("a", 5);
  add("b", 5);
  add("c", 5);
  EXPECT_EQ(heap(), "a b c ");
}

TEST_F(Timers, SinksPastAnEqualChildOnlyWhereBothChildrenExist) {
  for (const char* name : {"a", "b", "c", "d"}) add(name, 5);
  // "d" takes the place of "a": with two equal children it lets the right one rise.
  EXPECT_TRUE(loop.removeTimer(names[0].get(), noteName));
  EXPECT_EQ(heap(), "c b d ");
  // "d" takes the place of "c": the only child is a left one, and it stays below.
  EXPECT_TRUE(loop.removeTimer(names[2].get(), noteName));
  EXPECT_EQ(heap(), "d b ");
}

TEST_F(Timers, TheLoneLeftChildRisesWhenItIsStrictlyEarlier) {
  add("a", 1);
  add("b", 2);
  add("c", 3);
  EXPECT_TRUE(loop.removeTimer(names[0].get(), noteName));
  EXPECT_EQ(heap(), "b c ");
}

TEST_F(Timers, OverdueByAnHourStillFires) {
  add("a", 0);
  clock.advance(359999);
  EXPECT_EQ(fired(), "a");
}

TEST_F(Timers, OverdueByMoreThanAnHourCountsAsFarInTheFuture) {
  add("a", 0);
  clock.advance(360000);
  EXPECT_EQ(fired(), "");
  EXPECT_EQ(loop.sleepTime(clock.now()), 10000);
}

TEST_F(Timers, OrderHoldsWhereTheTicksWrapAround) {
  clock.set(0xFFFFFFF0u);
  add("behind", 0x20);
  add("before", 0x08);
  clock.set(0xFFFFFFF8u);
  EXPECT_EQ(fired(), "before");
  clock.set(0x10);
  EXPECT_EQ(fired(), "behind");
}

TEST_F(Timers, ADelayAboveTheLimitIsCutWithALine) {
  ::testing::internal::CaptureStdout();
  add("a", 4294607297u);
  loop.addDelayedTimer(named("b"), noteName, 0xFFFFFFFFu);
  EXPECT_EQ(::testing::internal::GetCapturedStdout(),
            "WARNING: limiting timer timeout to 4294607296cs\n"
            "WARNING: limiting timer timeout to 4294607296cs\n");
  EXPECT_EQ(ThinRunnerProbe::heap(loop).front().second, kStart + 4294607296u);
}

TEST_F(Timers, TheLongestDelayIsTakenWithoutALine) {
  ::testing::internal::CaptureStdout();
  add("a", 4294607296u);
  EXPECT_EQ(::testing::internal::GetCapturedStdout(), "");
  EXPECT_EQ(ThinRunnerProbe::heap(loop).front().second, kStart + 4294607296u);
  EXPECT_EQ(fired(), "");
}

TEST_F(Timers, ADelayedTimerCountsFromTheEndOfThePass) {
  loop.addDelayedTimer(named("a"), noteName, 5);
  clock.advance(100);
  EXPECT_EQ(fired(), "");  // its delay starts at the end of this
  clock.advance(4);
  EXPECT_EQ(fired(), "");
  clock.advance(1);
  EXPECT_EQ(fired(), "a");
}

TEST_F(Timers, ADelayedTimerWithoutDelayFiresInTheNextPass) {
  loop.addDelayedTimer(named("a"), noteName, 0);
  EXPECT_EQ(fired(), "");
  EXPECT_EQ(fired(), "a");
}

TEST_F(Timers, ADelayedTimerThatIsCancelledIsFreedWithoutFiring) {
  const TimerPtr timer = loop.addDelayedTimer(named("a"), noteName, 0);
  const std::size_t freeBefore = ThinRunnerProbe::freeTimers(loop);
  EXPECT_TRUE(loop.removeTimer(timer));
  EXPECT_EQ(ThinRunnerProbe::delayedCount(loop), 1u);
  EXPECT_EQ(ThinRunnerProbe::freeTimers(loop), freeBefore);
  loop.addDelayedTimers();
  EXPECT_EQ(ThinRunnerProbe::delayedCount(loop), 0u);
  EXPECT_EQ(ThinRunnerProbe::freeTimers(loop), freeBefore + 1);
  EXPECT_EQ(fired(), "");
}

TEST_F(Timers, APendingTimerThatIsCancelledNeverFires) {
  loop.addTimer(
      this,
      [](void* data) {
        auto* test = static_cast<Timers*>(data);
        const TimerPtr timer = test->add("never", 0);
        EXPECT_TRUE(test->loop.removeTimer(timer));
        EXPECT_TRUE(test->loop.removeTimer(timer));
        EXPECT_FALSE(test->loop.removeTimer(test->names.back().get(), noteName));
      },
      0);
  EXPECT_EQ(fired(), "");
  EXPECT_EQ(fired(), "");
  EXPECT_TRUE(ThinRunnerProbe::heap(loop).empty());
}

TEST_F(Timers, ANullHandleIsRefused) { EXPECT_FALSE(loop.removeTimer(TimerPtr())); }

TEST_F(Timers, ACancelledTimerNeverFires) {
  const TimerPtr timer = add("a", 0);
  EXPECT_TRUE(loop.removeTimer(timer));
  EXPECT_EQ(fired(), "");
}

TEST_F(Timers, AStaleHandleAnswersTrueAndTouchesNobodyElse) {
  const TimerPtr stale = add("a", 0);
  EXPECT_EQ(fired(), "a");
  const TimerPtr fresh = add("b", 0);  // takes over the record
  EXPECT_FALSE(stale == fresh);
  EXPECT_TRUE(loop.removeTimer(stale));
  EXPECT_EQ(fired(), "b");
}

TEST_F(Timers, CancellingItselfInItsCallbackIsTrueAndDoesNothing) {
  struct Self {
    ThinRunner* loop;
    TimerPtr handle;
    bool cancelled = false;
  } self{&loop, {}};
  self.handle = loop.addTimer(
      &self,
      [](void* data) {
        auto* timer = static_cast<Self*>(data);
        timer->cancelled = timer->loop->removeTimer(timer->handle);
      },
      0);
  add("other", 0);
  EXPECT_EQ(fired(), "other");
  EXPECT_TRUE(self.cancelled);
  EXPECT_EQ(ThinRunnerProbe::freeTimers(loop), 32u);
}

TEST_F(Timers, AFiringTimerIsNotFoundByItsPair) {
  loop.addTimer(
      this,
      [](void* data) {
        auto* test = static_cast<Timers*>(data);
        test->add("x", 0);
        EXPECT_FALSE(test->loop.removeTimer(data, noteName));
      },
      0);
  EXPECT_EQ(fired(), "");
}

TEST_F(Timers, ATimerMayCancelAnotherThatIsDueInTheSamePass) {
  loop.addTimer(
      this,
      [](void* data) {
        auto* test = static_cast<Timers*>(data);
        EXPECT_TRUE(test->loop.removeTimer(test->names[0].get(), noteName));
      },
      0);
  add("victim", 1);
  clock.advance(1);
  EXPECT_EQ(fired(), "");
}

TEST_F(Timers, TheFirstOfEqualPairsIsCancelledHeapBeforeDelayed) {
  Named* data = named("a");
  loop.addDelayedTimer(data, noteName, 1);
  loop.addTimer(data, noteName, 20);
  loop.addTimer(data, noteName, 10);
  EXPECT_TRUE(loop.removeTimer(data, noteName));  // the earliest: it stands first in the heap
  EXPECT_EQ(ThinRunnerProbe::heap(loop).front().second, kStart + 20);
  EXPECT_TRUE(loop.removeTimer(data, noteName));
  EXPECT_TRUE(ThinRunnerProbe::heap(loop).empty());
  EXPECT_TRUE(loop.removeTimer(data, noteName));  // the delayed one
  EXPECT_FALSE(loop.removeTimer(data, noteName));
  EXPECT_EQ(fired(), "");
}

TEST_F(Timers, ThePairMustMatchInBothHalves) {
  Named* data = named("a");
  loop.addTimer(data, noteName, 0);
  EXPECT_FALSE(loop.removeTimer(this, noteName));
  EXPECT_FALSE(loop.removeTimer(data, [](void*) {}));
  EXPECT_TRUE(loop.removeTimer(data, noteName));
}

TEST_F(Timers, SleepHasNoLimitWithoutATimer) { EXPECT_EQ(loop.sleepTime(clock.now()), -1); }

TEST_F(Timers, ATimerThatWaitsForTheEndOfThePassDoesNotLimitTheSleep) {
  loop.addDelayedTimer(named("a"), noteName, 0);
  EXPECT_EQ(loop.sleepTime(clock.now()), -1);
}

TEST_F(Timers, SleepLastsUntilTheFirstTimerButTenSecondsAtMost) {
  add("far", 1001);
  EXPECT_EQ(loop.sleepTime(kStart), 10000);
  EXPECT_EQ(loop.sleepTime(kStart + 1), 10000);
  EXPECT_EQ(loop.sleepTime(kStart + 2), 9990);
  EXPECT_EQ(loop.sleepTime(kStart + 1000), 10);
  EXPECT_EQ(loop.sleepTime(kStart + 1001), 0);
  EXPECT_EQ(loop.sleepTime(kStart + 1002), 0);
}

TEST_F(Timers, TheClockIsOnlyReadWhereATimerNeedsIt) {
  loop.runTimers();
  loop.addDelayedTimers();
  EXPECT_EQ(clock.reads(), 0u);
  loop.addDelayedTimer(named("a"), noteName, 1);
  EXPECT_EQ(clock.reads(), 0u);
  loop.addDelayedTimers();
  EXPECT_EQ(clock.reads(), 1u);
  add("b", 1);
  EXPECT_EQ(clock.reads(), 2u);
  loop.runTimers();
  EXPECT_EQ(clock.reads(), 3u);
}

TEST_F(Timers, ShutdownDropsEveryTimerAndItsHandleStaysHarmless) {
  const TimerPtr inHeap = add("a", 0);
  const TimerPtr delayed = loop.addDelayedTimer(named("b"), noteName, 0);
  loop.shutdown();
  EXPECT_EQ(fired(), "");
  EXPECT_EQ(fired(), "");
  EXPECT_TRUE(loop.removeTimer(inHeap));
  EXPECT_TRUE(loop.removeTimer(delayed));
  EXPECT_FALSE(loop.removeTimer(names[1].get(), noteName));
}

TEST_F(Timers, ShutdownInsideATimersCallbackEndsTheFiring) {
  loop.addTimer(
      this,
      [](void* data) {
        auto* test = static_cast<Timers*>(data);
        test->add("pending", 0);
        test->loop.shutdown();
      },
      0);
  add("later", 1);
  clock.advance(1);
  EXPECT_EQ(fired(), "");
  EXPECT_EQ(fired(), "");
  add("fresh", 0);
  EXPECT_EQ(fired(), "fresh");
}

TEST_F(Timers, RecordsAreReused) {
  for (int i = 0; i < 1000; ++i) {
    loop.removeTimer(add("a", 1));
    loop.removeTimer(loop.addDelayedTimer(names.back().get(), noteName, 1));
    loop.runTimers();
  }
  EXPECT_EQ(ThinRunnerProbe::freeTimers(loop), 32u);
}

}  // namespace
}  // namespace kl

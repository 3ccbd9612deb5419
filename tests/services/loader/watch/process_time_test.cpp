#include "services/loader/watch/process_time.h"

#include <gtest/gtest.h>
#include <sched.h>
#include <signal.h>
#include <unistd.h>

#include <chrono>

#include "tests/support/process/child_process.h"

namespace {

using kl::test::ChildProcess;
using loader::couldHaveRunMs;
using loader::parseProcessTime;
using loader::ProcessTime;

constexpr char kStat[] = "812 (a) R (b)) S 1 812 812 0 -1 4194560 90 0 0 0 250 50 0 0 20 0 1 0 9 9 9";

TEST(ProcessTimeTest, ItIsReadBehindTheLastBracketOfTheName) {
  const auto time = parseProcessTime(kStat, "2900000000 7000000 12\n", 100);
  ASSERT_TRUE(time);
  EXPECT_EQ(time->state, 'S');
  EXPECT_EQ(time->ranMs, 2900u);
  EXPECT_EQ(time->waitedMs, 7u);
}

TEST(ProcessTimeTest, AKernelThatDoesNotCountLeavesTheTicks) {
  for (const char* const nothing : {"", "0 0 0\n"}) {
    const auto time = parseProcessTime(kStat, nothing, 100);
    ASSERT_TRUE(time);
    EXPECT_EQ(time->ranMs, 3000u);
    EXPECT_FALSE(time->waitedMs);
  }
}

TEST(ProcessTimeTest, WhatIsNoneIsNone) {
  for (const char* const stat :
       {"", "812 (a", "812 (a) ", "812 (a) S 1 2", "812 (a) SS 1 812 812 0 -1 4 9 0 0 0 x y"})
    EXPECT_FALSE(parseProcessTime(stat, "", 100)) << stat;
}

TEST(ProcessTimeTest, TimeInWhichOthersRanIsNotItsOwn) {
  EXPECT_EQ(couldHaveRunMs({'R', 0, 100}, {'R', 50, 800}, 1000), 300u);
  EXPECT_EQ(couldHaveRunMs({'R', 0, 100}, {'R', 50, 5000}, 1000), 0u);
  EXPECT_EQ(couldHaveRunMs({'S', 0, 100}, {'S', 0, 100}, 1000), 1000u);
}

TEST(ProcessTimeTest, WithoutACountWhoWantsToRunCouldWhenItDid) {
  EXPECT_EQ(couldHaveRunMs({'R', 100, {}}, {'R', 350, {}}, 1000), 250u);
  EXPECT_EQ(couldHaveRunMs({'R', 100, {}}, {'S', 350, {}}, 1000), 1000u);
}

TEST(ProcessTimeTest, AStoppedProcessIsSeen) {
  ChildProcess process([] { (void)::raise(SIGSTOP); });
  const pid_t pid = process.pid();
  ASSERT_TRUE(process.stops());
  const auto time = loader::processTimeOf(pid);
  ASSERT_TRUE(time);
  EXPECT_TRUE(time->isStopped());
  ASSERT_EQ(process.end(SIGKILL), 128 + SIGKILL);
  EXPECT_FALSE(loader::processTimeOf(pid));
  EXPECT_FALSE(loader::catchesSignal(pid, SIGUSR2));
}

// Runs for ever on the first processor that there is for this process; of the two policies the idle one comes last.
[[noreturn]] void spin(int policy) {
  cpu_set_t all, one;
  (void)::sched_getaffinity(0, sizeof all, &all);
  int first = 0;
  while (!CPU_ISSET(first, &all)) ++first;
  CPU_ZERO(&one);
  CPU_SET(first, &one);
  (void)::sched_setaffinity(0, sizeof one, &one);
  const sched_param none{};
  (void)::sched_setscheduler(0, policy, &none);
  for (volatile unsigned int turns = 0;;) turns = turns + 1;
}

TEST(ProcessTimeTest, ABusyProcessorIsNotTheFaultOfWhoWaitsForIt) {
  constexpr unsigned long long kWaitedMs = 200;
  const auto begin = std::chrono::steady_clock::now();
  const ChildProcess starved([] { spin(SCHED_IDLE); });
  const ChildProcess greedy([] { spin(SCHED_OTHER); });
  ProcessTime now;
  do {
    ::usleep(10'000);
    now = loader::processTimeOf(starved.pid()).value_or(ProcessTime());
  } while (now.state != '?' && (!now.waitedMs || *now.waitedMs < kWaitedMs) &&
           std::chrono::steady_clock::now() - begin < std::chrono::seconds(30));
  const auto passed = std::chrono::ceil<std::chrono::milliseconds>(std::chrono::steady_clock::now() - begin);
  if (now.ranMs > 0 && !now.waitedMs) GTEST_SKIP() << "this kernel does not count";
  const auto all = static_cast<unsigned long long>(passed.count());
  EXPECT_LE(couldHaveRunMs({'R', 0, 0}, now, all) + kWaitedMs, all);
}

TEST(ProcessTimeTest, AHandlerIsSeen) {
  EXPECT_TRUE(
      loader::parseCaught("Name:\ta\nSigIgn:\t0000000000000fff\nSigCgt:\t0000000000000800\n", SIGUSR2));
  EXPECT_FALSE(loader::parseCaught("Name:\ta\nSigCgt:\t0000000000000400\n", SIGUSR2));
  EXPECT_FALSE(loader::parseCaught("", SIGUSR2));
  const auto before = ::signal(SIGUSR2, [](int) {});
  EXPECT_TRUE(loader::catchesSignal(::getpid(), SIGUSR2));
  (void)::signal(SIGUSR2, SIG_IGN);
  EXPECT_FALSE(loader::catchesSignal(::getpid(), SIGUSR2));
  (void)::signal(SIGUSR2, before);
}

}  // namespace

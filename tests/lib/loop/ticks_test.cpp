#include "kl/ticks.h"

#include <gtest/gtest.h>

#include <type_traits>

#include "kl/reget.h"
#include "kl/runner.h"
#include "tests/support/calls/scripted_calls.h"

namespace kl {
namespace {

using namespace std::chrono_literals;

using Delay = unsigned int;
using Timeout = int;

static_assert(inTicks(3s) == 300);
static_assert(inTicks(1500ms) == 150);
static_assert(inTicks(1h) == 360000);
static_assert(Delay{inTicks(1min)} == 6000u && Timeout{inTicks(1min)} == 6000);
static_assert(!std::is_constructible_v<TickCount, int> &&
              !std::is_convertible_v<std::chrono::seconds, Delay>);

TEST(InTicks, ASpanIsNeverMadeShorter) {
  EXPECT_EQ(inTicks(0s), 0);
  EXPECT_EQ(inTicks(1ns), 1);
  EXPECT_EQ(inTicks(9999us), 1);
  EXPECT_EQ(inTicks(10ms), 1);
  EXPECT_EQ(inTicks(10001us), 2);
  EXPECT_EQ(inTicks(0.25s), 25);
  EXPECT_EQ(inTicks(std::chrono::duration<int, std::ratio<1, 3>>(1)), 34);
}

TEST(InTicks, ASpanBelowZeroIsNone) {
  EXPECT_EQ(inTicks(-1ns), 0);
  EXPECT_EQ(inTicks(std::chrono::hours::min()), 0);
  EXPECT_EQ(inTicks(std::chrono::duration<double>(std::numeric_limits<double>::quiet_NaN())), 0);
}

TEST(InTicks, ASpanThatIsTooLongBecomesTheLongest) {
  using Centi = std::chrono::duration<long long, std::centi>;
  EXPECT_EQ(Delay{inTicks(Centi(4294607295))}, 4294607295u);
  EXPECT_EQ(Delay{inTicks(Centi(4294607297))}, 4294607296u);
  EXPECT_EQ(Delay{inTicks(std::chrono::hours::max())}, 4294607296u);
  EXPECT_EQ(Delay{inTicks(std::chrono::nanoseconds::max())}, 4294607296u);
  EXPECT_EQ(Delay{inTicks(std::chrono::duration<double>(std::numeric_limits<double>::infinity()))},
            4294607296u);
  EXPECT_EQ(Timeout{inTicks(Centi(2147483646))}, 2147483646);
  EXPECT_EQ(Timeout{inTicks(Centi(2147483648))}, 2147483647);
}

TEST(InTicks, ATimerFiresAfterTheSpan) {
  test::ScriptedClock clock(1000);
  ThinRunner loop;
  bool fired = false;
  loop.addTimer(
      &fired, [](void* data) { *static_cast<bool*>(data) = true; }, inTicks(25ms));
  clock.advance(2);
  loop.runTimers();
  EXPECT_FALSE(fired);
  clock.advance(1);
  loop.runTimers();
  EXPECT_TRUE(fired);
}

TEST(InTicks, ServeEveryOperationThatTakesTicks) {
  static_assert(requires(Handler & handler, message & m, Reget & fetch, ThinRunner & loop,
                         ThinRunner::TimerCallback cb, Handler::ReplyCallback reply) {
    handler.exchangeMessage(m, inTicks(1s));
    handler.exchangeCmd(m, CMD_GET, inTicks(1s));
    handler.postMessage(m, nullptr, reply, m, inTicks(1s));
    fetch.setTimeout(inTicks(1s));
    loop.addDelayedTimer(nullptr, cb, inTicks(1s));
  });
}

}  // namespace
}  // namespace kl

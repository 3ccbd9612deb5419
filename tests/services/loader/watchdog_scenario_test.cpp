// Services that stand still, under the loader as it runs.

#include <gtest/gtest.h>
#include <signal.h>

#include <string>

#include "kl/services.h"
#include "tests/services/loader/supervision.h"
#include "tests/support/doubles/loader_process.h"
#include "tests/support/doubles/log_service.h"

namespace {

using kl::test::LoaderProcess;
using kl::test::service;

const std::string kOneSecond = "watchdog_seconds = 1";

class WatchdogScenario : public kl::test::Supervision {
 protected:
  void tell(unsigned int id, unsigned int command) {
    ASSERT_TRUE(a_.send(kl::test::request({id}, command, nextId_++, {7})));
  }
  pid_t pidOf(unsigned int id) { return static_cast<pid_t>(row(id).get(kl::SVC_PID, 0)); }
};

// It shows its stack, in which the function stands where it hangs.  The thread sanitizer holds a signal back until the
// program's next call, which never comes here.
TEST_F(WatchdogScenario, AnEndlessLoopIsShownAndEndsAndTheServiceIsBack) {
  kl::test::LogService log;
  const LoaderProcess loader(service("spinner", 32, "hang", kOneSecond));
  connect();
  ASSERT_TRUE(askUntilAnswered({32}));
  const pid_t before = pidOf(32);
  tell(32, kl::CMD_START);
  ASSERT_TRUE(loader.logs("; shows its stack and is ended", 20000)) << loader.log();
#ifndef __SANITIZE_THREAD__
  EXPECT_TRUE(log.awaits("spinner (32, pid " + std::to_string(before) + "): --- signal=12"));
#endif
  ASSERT_TRUE(loader.logs(" and was ended; starts again in ")) << loader.log();
  ASSERT_TRUE(askUntilAnswered({32}));
  EXPECT_NE(pidOf(32), before);
  EXPECT_NE(row(32).get(kl::SVC_LAST_END, "").find("did not answer for "), std::string::npos);
}

TEST_F(WatchdogScenario, WhoWaitsForAnotherIsLeftAloneAndTheOtherIsEnded) {
  const LoaderProcess loader(service("waiter", 32, "hang 33", kOneSecond) +
                             service("spinner", 33, "hang", kOneSecond));
  connect();
  ASSERT_TRUE(askUntilAnswered({32}));
  ASSERT_TRUE(askUntilAnswered({33}));
  const pid_t waiter = pidOf(32);
  tell(32, kl::CMD_RESET);  // which asks the other one to hang
  ASSERT_TRUE(
      loader.logs("spinner (33, pid " + std::to_string(pidOf(33)) + "): has not answered for ", 20000))
      << loader.log();
  ASSERT_TRUE(askUntilAnswered({33}));
  ASSERT_TRUE(askUntilAnswered({32}));  // its request was answered when the other one ended
  EXPECT_EQ(pidOf(32), waiter);
}

TEST_F(WatchdogScenario, AStoppedServiceIsLeftAlone) {
  const LoaderProcess loader(service("stopped", 32, "serve", kOneSecond));
  connect();
  ASSERT_TRUE(askUntilAnswered({32}));
  const pid_t before = pidOf(32);
  ASSERT_EQ(::kill(before, SIGSTOP), 0);
  ASSERT_TRUE(loader.logs(", as it is stopped, or traced; is left alone", 20000)) << loader.log();
  ASSERT_EQ(::kill(before, SIGCONT), 0);
  ASSERT_TRUE(askUntilAnswered({32}));
  EXPECT_EQ(pidOf(32), before);
}

// Between two lines about another service that hangs, it was asked and answered more than once.
TEST_F(WatchdogScenario, WhoAnswersStaysHoweverLong) {
  const LoaderProcess loader(service("good", 32, "serve", kOneSecond) +
                             service("spinner", 33, "hang", kOneSecond));
  connect();
  ASSERT_TRUE(askUntilAnswered({32}));
  ASSERT_TRUE(askUntilAnswered({33}));
  const pid_t before = pidOf(32);
  const auto asked = row(32).get(kl::SVC_MESSAGES_IN, 0ULL);
  tell(33, kl::CMD_START);
  ASSERT_TRUE(loader.logs(" and was ended", 20000)) << loader.log();
  EXPECT_EQ(pidOf(32), before);
  EXPECT_GE(row(32).get(kl::SVC_MESSAGES_IN, 0ULL), asked + 2);
}

}  // namespace

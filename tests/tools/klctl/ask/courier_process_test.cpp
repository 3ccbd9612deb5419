#include "tools/klctl/ask/courier_process.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>

#include "tests/tools/klctl/scripted_loader.h"
#include "tools/klctl/ask/courier.h"
#include "tools/klctl/ask/pipe.h"

namespace klctl {

// How a loader that is missing or wrong is told stands in session_test.cpp.
TEST(CourierProcess, RunsUntilItIsEnded) {
  const ScriptedLoader loader([](kl::test::LoaderDouble& connection) {
    confirm(connection);
    awaitEnd(connection);
  });
  CourierProcess courier(kAmple, runCourier);
  EXPECT_GE(courier.socket(), 0);
  courier.end();
  EXPECT_EQ(courier.socket(), -1);
  courier.end();
}

TEST(CourierProcess, IsRegisteredWhenItSaysSo) {
  const ScriptedLoader loader([](kl::test::LoaderDouble& connection) { awaitEnd(connection); });
  const CourierProcess courier(kAmple, [](int, int klctl) {
    (void)sendBytes(klctl, {});
    (void)sendBytes(klctl, {7});
    ::pause();
  });
  Bytes bytes;
  EXPECT_EQ(receiveBytes(courier.socket(), bytes, {}), Received::kWhole);
  EXPECT_EQ(bytes, Bytes{7});
}

TEST(CourierProcess, TimesAreToldWithoutNeedlessDigits) {
  EXPECT_EQ(secondsText(std::chrono::milliseconds(5000)), "5 s");
  EXPECT_EQ(secondsText(std::chrono::milliseconds(200)), "0.2 s");
  EXPECT_EQ(secondsText(std::chrono::milliseconds(1050)), "1.05 s");
}

TEST(CourierProcess, TicksAreRoundedUp) {
  EXPECT_EQ(ticksOf(std::chrono::milliseconds(10)), 1);
  EXPECT_EQ(ticksOf(std::chrono::milliseconds(11)), 2);
}

}  // namespace klctl

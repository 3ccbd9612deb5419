#include <chrono>
#include <thread>

#include "kl/post.h"
#include "tests/testkit/fixture.h"

namespace kl::test {
namespace {

using namespace std::chrono_literals;
using Ticks = std::vector<unsigned int>;
using Running = KeeperOnABus;

TEST_F(Running, TimeStandsStill) {
  const unsigned int before = bus.now();
  Peer client(bus);
  (void)client.ask(kPath, CMD_GET);
  bus.runUntilIdle();
  EXPECT_EQ(bus.now(), before);
  EXPECT_EQ(getJiffies(), before);
}

TEST_F(Running, EachTimerFiresAtItsTick) {
  const unsigned int begin = bus.now();
  Ticks fired;
  Timer once(*getLooper());
  Timer often(*getLooper());
  once.start(35, [&] { fired.push_back(getJiffies() - begin); });
  often.repeat(20, [&] { fired.push_back(getJiffies() - begin); });
  bus.advance(19);
  EXPECT_EQ(fired, Ticks());
  bus.advance(61);
  EXPECT_EQ(fired, (Ticks{20, 35, 40, 60, 80}));
  EXPECT_EQ(bus.now(), begin + 80);
}

TEST_F(Running, AnHourOfTimersIsOverAtOnce) {
  unsigned int count = 0;
  Timer timer(*getLooper());
  timer.repeat(1s, [&] { ++count; });
  bus.advance(1h);
  EXPECT_EQ(count, 3600u);
}

TEST_F(Running, AnExchangeRunsIntoItsTimeOut) {
  Peer other(bus, kOther);
  other.ignore(CMD_GET);
  const unsigned int begin = bus.now();
  keeper.patience = 60000;  // ten minutes
  EXPECT_EQ(errorOf(keeper.cmdReset({})), ERROR_TIMEOUT);
  EXPECT_EQ(bus.now(), begin + 60000);
}

TEST_F(Running, AReplyThatComesLateIsLate) {
  Peer other(bus, kOther);
  other.on(CMD_GET, numbered(3));
  other.delay(50);
  const unsigned int begin = bus.now();
  EXPECT_EQ(keeper.cmdReset({}).get(kNumber, 0), 3u);
  EXPECT_EQ(bus.now(), begin + 50);
  other.delay(101);
  EXPECT_EQ(errorOf(keeper.cmdReset({})), ERROR_TIMEOUT);
}

TEST_F(Running, WhatIsForTheServiceMayBeDelayed) {
  Peer client(bus);
  bus.runUntilIdle();
  bus.delay(30);
  const unsigned int begin = bus.now();
  EXPECT_EQ(client.ask(kPath, CMD_GET).get(kNumber, 0), 7u);
  EXPECT_EQ(bus.now(), begin + 30);
  EXPECT_EQ(errorOf(client.ask(kPath, CMD_GET, {}, 29)), ERROR_TIMEOUT);
}

TEST_F(Running, FramesMayComeInPiecesOfOneByte) {
  Peer client(bus);
  bus.cut(1);
  for (unsigned int i = 0; i < 20; ++i) {
    (void)client.ask(kPath, CMD_SET, numbered(i));
    EXPECT_EQ(client.ask(kPath, CMD_GET).get(kNumber, 99), i);
  }
}

TEST_F(Running, TheSocketMayBeFull) {
  bus.shrinkBuffers();
  Peer other(bus, kOther);
  other.on(CMD_GET, [](const message& m) { return m; });
  message large;
  large.insert(SYS_TO, {kOther, 0});
  large.insert(kLabel, std::string(60000, 'x'));
  EXPECT_EQ(keeper.exchangeCmd(large, CMD_GET, 100).get(kLabel, "").size(), 60000u);
}

TEST_F(Running, TheWallClockGoesWithTheTicksAndMayBeSet) {
  const std::time_t begin = bus.wallClock();
  EXPECT_EQ(std::time(nullptr), begin);
  bus.advance(90s);
  EXPECT_EQ(std::time(nullptr), begin + 90);
  bus.setWallClock(1000);
  EXPECT_EQ(std::time(nullptr), 1000);
  EXPECT_EQ(std::chrono::system_clock::to_time_t(std::chrono::system_clock::now()), 1000);
  bus.advance(1s);
  EXPECT_EQ(std::time(nullptr), 1001);
}

TEST_F(Running, OtherThreadsAreAwaitedInTheMachinesTime) {
  Post inbox(*getLooper());
  bool hasCome = false;
  std::thread other([&] { inbox.post([&] { hasCome = true; }); });
  EXPECT_TRUE(bus.runUntil([&] { return hasCome; }));
  other.join();
  EXPECT_FALSE(bus.runUntil([] { return false; }, 1));
}

TEST_F(Running, AServiceThatNeverRestsIsAFailure) {
  Timer busy(*getLooper());
  std::function<void()> again = [&] { busy.start(0, [&] { again(); }); };
  again();
  EXPECT_THROW(bus.runUntilIdle(), Failure);
}

TEST_F(Running, RunOfTheServiceEndsWhereNothingMayHappenAnyMore) {
  getLooper()->run();
  EXPECT_THROW(bus.runUntilIdle(), Failure);
}

TEST_F(Running, AScriptDoesNotWait) {
  Peer other(bus, kOther);
  other.on(CMD_GET, [&](const message&) {
    bus.advance(1);
    return message();
  });
  (void)keeper.cmdReset({});
  EXPECT_THROW(bus.runUntilIdle(), Failure);
}

TEST_F(Running, WhatAScriptThrowsComesToTheTest) {
  Peer other(bus, kOther);
  other.on(CMD_GET, [](const message&) -> message { throw std::string("thrown"); });
  Peer client(bus);
  EXPECT_THROW((void)client.ask(kPath, CMD_RESET), std::string);
}

TEST_F(Running, ChanceIsRepeatedByItsSeed) {
  (void)::setenv("KL_TEST_SEED", "4711", 1);
  bus.disturb(5);
  (void)::unsetenv("KL_TEST_SEED");
  EXPECT_EQ(bus.seed(), 4711u);
  Peer client(bus);
  for (unsigned int i = 0; i < 50; ++i) {
    EXPECT_EQ(errorOf(client.ask(kPath, CMD_SET, numbered(i))), ERROR_OK);
    EXPECT_EQ(client.ask(kPath, CMD_GET).get(kNumber, 99), i);
  }
  const auto fail = [&] { client.send(numbered(1)); };
  try {
    fail();
    ADD_FAILURE() << "a message without a path is garbage";
  } catch (const Failure& failure) {
    EXPECT_NE(std::string(failure.what()).find("(KL_TEST_SEED=4711)"), std::string::npos) << failure.what();
  }
}

TEST(RunningDeathTest, WhoeverWaitsForEverIsNamed) {
  TestBus bus(kService);
  Keeper keeper;
  bus.add(0, keeper);
  Peer other(bus, kOther);
  other.ignore(CMD_GET);
  keeper.patience = -1;
  EXPECT_EXIT(keeper.cmdReset({}), testing::ExitedWithCode(1), "waits without limit");
}

}  // namespace
}  // namespace kl::test

// Leaving, the data that outlives the process, and the time of day.

#include <gtest/gtest.h>

#include <ctime>
#include <vector>

#include "kl/looper.h"
#include "tests/lib/looper/fixture.h"
#include "tests/support/calls/scripted_calls.h"

namespace kl {
namespace {

using test::Connected;
using test::ctrl;
using test::flat;
using test::Ids;
using test::replyTo;

constexpr field<unsigned int> kTimezone{0x0800001b};
constexpr field<std::vector<unsigned int>> kHandlerIDs{0x88000002};
constexpr field<std::vector<message::flat_message>> kHandlerData{0xa8000003};

message readiness(unsigned int value) {
  message m = ctrl(7);
  m.insert(SYS_CTRL_ARG, value);
  return m;
}

class Keeper : public Handler {
 public:
  explicit Keeper(unsigned int value) : value_(value) {}
  void savePermData(message& data) override {
    if (value_ != 0) data.insert(STD_ID, value_);
  }
  void loadPermData(const message& data) override { loaded = data.get(STD_ID, 0); }
  unsigned int loaded = 0;

 private:
  unsigned int value_;
};

TEST(Leave, AValueSetBeforeRunIsToldWhenTheFirstBlockEnds) {
  Connected net;
  net.looper->setupLeave(5);
  EXPECT_TRUE(net.loader.isSilent());
  EXPECT_FALSE(net.looper->canLeave());
  net.looper->unblockLeave();
  EXPECT_EQ(net.loader.receive(), readiness(5));
  EXPECT_TRUE(net.looper->canLeave());
}

TEST(Leave, OnlyTheFirstBlockAndTheLastUnblockAreTold) {
  Connected net;
  net.looper->unblockLeave();
  net.looper->setupLeave(5);
  EXPECT_EQ(net.loader.receive(), readiness(5));
  net.looper->blockLeave();
  EXPECT_EQ(net.loader.receive(), readiness(0));
  net.looper->blockLeave();
  net.looper->unblockLeave();
  EXPECT_TRUE(net.loader.isSilent());
  net.looper->unblockLeave();
  EXPECT_EQ(net.loader.receive(), readiness(5));
}

TEST(Leave, WithoutAValueNoBlockIsTold) {
  Connected net;
  net.looper->unblockLeave();
  net.looper->blockLeave();
  net.looper->unblockLeave();
  EXPECT_TRUE(net.loader.isSilent());
  EXPECT_FALSE(net.looper->canLeave());
}

TEST(Leave, TheValueThatIsSetAlreadyIsNotToldAgainAndZeroWithdrawsIt) {
  Connected net;
  net.looper->unblockLeave();
  net.looper->setupLeave(5);
  (void)net.loader.receive();
  net.looper->setupLeave(5);
  EXPECT_TRUE(net.loader.isSilent());
  net.looper->setupLeave(0);
  EXPECT_EQ(net.loader.receive(), readiness(0));
  EXPECT_FALSE(net.looper->canLeave());
}

TEST(Leave, TellLeaveAnnouncesIt) {
  Connected net;
  net.looper->tellLeave();
  EXPECT_EQ(net.loader.receive(), ctrl(4));
}

TEST(Leave, WhatWaitsInTheQueueIsDispatchedBeforeTheProcessLeaves) {
  Connected net;
  test::Recorder handler;
  net.looper->addHandler(7, &handler);
  net.looper->setupLeave(1);
  net.looper->unblockLeave();
  net.looper->queueMessage(test::requestTo({7}, CMD_NOOP));
  net.loader.send(ctrl(1));
  net.wake();
  EXPECT_EQ(handler.seen.size(), 1u);
  EXPECT_TRUE(net.looper->isLeaving());
  net.looper->removeHandler(7);
}

TEST(Leave, WhatWaitsInTheQueueMayBlockIt) {
  class Worker : public Handler {
    void handle(const message&) override { getLooper()->blockLeave(); }
  };
  Connected net;
  Worker handler;
  net.looper->addHandler(7, &handler);
  net.looper->setupLeave(1);
  net.looper->unblockLeave();
  EXPECT_EQ(net.loader.receive(), readiness(1));
  net.looper->queueMessage(test::to({7}));
  net.loader.send(ctrl(1));
  net.wake();
  EXPECT_EQ(net.loader.receive(), readiness(0));
  EXPECT_EQ(net.loader.receive(), ctrl(3));
  EXPECT_FALSE(net.looper->isLeaving());
  net.looper->removeHandler(7);
}

// The loader holds every reply back from the asking to the answer.
TEST(Leave, AnExchangeOnBehalfOfWhatWaitsInTheQueueRefusesFirst) {
  class Asker : public Handler {
    void handle(const message&) override {
      message m = test::requestTo({32}, CMD_GET);
      EXPECT_EQ(test::errorOf(exchangeMessage(m, 0)), ERROR_TIMEOUT);
    }
  };
  Connected net;
  Asker handler;
  net.looper->addHandler(7, &handler);
  net.looper->setupLeave(1);
  net.looper->unblockLeave();
  EXPECT_EQ(net.loader.receive(), readiness(1));
  net.looper->queueMessage(test::to({7}));
  net.loader.send(ctrl(1));
  net.wake();
  EXPECT_EQ(net.loader.receive(), ctrl(3));
  EXPECT_EQ(net.loader.receive().get(SYS_TO, {}), Ids{32});
  EXPECT_TRUE(net.loader.isSilent());  // one answer is enough
  EXPECT_FALSE(net.looper->isLeaving());
  net.looper->removeHandler(7);
}

TEST(Leave, WhoLeavesHandsItsDataToTheLoaderInOneMessage) {
  Connected net;
  Keeper keeper(41);
  net.looper->addHandler(7, &keeper);
  net.looper->setupLeave(1);
  net.looper->unblockLeave();
  EXPECT_EQ(net.loader.receive(), readiness(1));
  net.loader.send(ctrl(1));
  net.wake();
  message kept;
  kept.insert(STD_ID, 41);
  message data;
  data.insert(kHandlerIDs, {7});
  data.insert(kHandlerData, {flat(kept)});
  message expected = ctrl(2);
  expected.insert(SYS_CTRL_ARG, 1);
  expected.insert_message(0x28000004, data);
  EXPECT_EQ(net.loader.receive(), expected);
  EXPECT_TRUE(net.loader.isSilent());
  EXPECT_TRUE(net.looper->isLeaving());
  net.looper->removeHandler(7);
}

TEST(Leave, WhoKeepsNothingLeavesWithoutAWord) {
  Connected net;
  net.looper->setupLeave(1);
  net.looper->unblockLeave();
  EXPECT_EQ(net.loader.receive(), readiness(1));
  net.loader.send(ctrl(1));
  net.wake();
  EXPECT_TRUE(net.loader.isSilent());
  EXPECT_TRUE(net.looper->isLeaving());
}

TEST(PersistentData, AProcessThatKeepsNothingYieldsAnEmptyMessage) {
  Connected net;
  Keeper nothing(0);
  net.looper->addHandler(7, &nothing);
  message data;
  net.looper->savePermData(data);
  EXPECT_EQ(data, message());
  net.looper->removeHandler(7);
}

TEST(PersistentData, EachHandlersDataGoesOutByNumberAndComesBack) {
  Connected net;
  Keeper a(41), b(0), c(43);
  net.looper->addHandler(9, &c);
  net.looper->addHandler(8, &b);
  net.looper->addHandler(7, &a);
  message data;
  net.looper->savePermData(data);
  EXPECT_EQ(data.get(kHandlerIDs, {}), (Ids{7, 9}));
  ASSERT_EQ(data.get(kHandlerData, {}).size(), 2u);
  EXPECT_EQ(message(data.get(kHandlerData, {})[1]).get(STD_ID, 0), 43u);
  for (const unsigned int id : {7u, 8u, 9u}) net.looper->removeHandler(id);
  net.looper->loadPermData(data);
  net.looper->addHandler(9, &c);
  EXPECT_EQ(c.loaded, 43u);
  net.looper->removeHandler(9);
}

TEST(Timezone, TheFirstCallSubscribesAndAsksAndLaterOnesKnow) {
  Connected net;
  message reply = replyTo({}, 0);
  reply.insert(kTimezone, 3600);
  net.loader.send(reply);
  EXPECT_EQ(net.looper->getTimezone(), 3600);
  const message subscription = net.loader.receive();
  EXPECT_EQ(subscription.get(SYS_CMD, 0), CMD_SUBSCRIBE);
  EXPECT_EQ(subscription.get(SYS_TO, {}), (Ids{24, 0}));
  EXPECT_EQ(subscription.get(SYS_NOTIFYCMD, 0), 0x60001u);
  const message request = net.loader.receive();
  EXPECT_EQ(request.get(SYS_CMD, 0), CMD_GET);
  EXPECT_EQ(request.get(SYS_TO, {}), (Ids{24, 0}));
  EXPECT_EQ(net.looper->getTimezone(), 3600);
  EXPECT_TRUE(net.loader.isSilent());
}

TEST(Timezone, LocalTimeIsTheTimeOfDayWithTheOffset) {
  Connected net;
  message reply = replyTo({}, 0);
  reply.insert(kTimezone, static_cast<unsigned int>(-7200));
  net.loader.send(reply);
  const auto before = static_cast<unsigned int>(std::time(nullptr));
  const unsigned int local = net.looper->getLocaltime();
  const auto after = static_cast<unsigned int>(std::time(nullptr));
  EXPECT_GE(local, before - 7200);
  EXPECT_LE(local, after - 7200);
}

TEST(Timezone, WithoutAnAnswerInSixThousandTicksItIsAndStaysZero) {
  Connected net;
  test::ScriptedClock clock(1000);
  const test::ScriptedPoll poll([&](const std::vector<pollfd*>&) {
    clock.advance(6000);
    return 0;
  });
  EXPECT_EQ(net.looper->getTimezone(), 0);
  EXPECT_EQ(net.looper->getTimezone(), 0);
  EXPECT_EQ(poll.timeouts(), std::vector<int>{60000});
}

TEST(Timezone, AnErrorIsZeroUntilANotificationComes) {
  Connected net;
  message error = errorMsg(ERROR_NOTIMP, "");
  error.insert(SYS_TYPE, TYPE_REPLY);
  error.insert(SYS_REQID, 0);
  error.insert(kTimezone, 3600);
  net.loader.send(error);
  EXPECT_EQ(net.looper->getTimezone(), 0);
  message changed;
  changed.insert(SYS_CMD, 0x60001);
  changed.insert(kTimezone, static_cast<unsigned int>(-7200));
  net.loader.send(changed);
  net.wake();
  EXPECT_EQ(net.looper->getTimezone(), -7200);
}

}  // namespace
}  // namespace kl

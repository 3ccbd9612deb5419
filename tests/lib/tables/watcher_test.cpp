// The watcher, with the service and the loader played by the test.

#include "kl/watcher.h"

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <string>

#include "tests/lib/tables/fixture.h"
#include "tests/support/calls/scripted_calls.h"
#include "tests/support/journal.h"

namespace kl {
namespace {

using test::answerTo;
using test::chunk;
using test::Ids;
using test::object;

constexpr unsigned int kVersion = 0x08000007;

message dead(unsigned int id) {
  message m = object(id);
  m.insert(STD_DEAD, 1);
  return m;
}

// A service's message to its subscribers.
message notification(const std::vector<message>& objects, const Ids& from = {32}) {
  message m = test::to({7});
  m.insert(SYS_FROM, from);
  m.insert(SYS_CMD, CMD_NOTIFY);
  std::vector<message::flat_message> flat;
  for (const message& o : objects) o.flatten(flat.emplace_back());
  m.insert(STD_OBJS, flat);
  return m;
}

message disconnected(const Ids& from) {
  message m;
  m.insert(SYS_TO, Ids());
  m.insert(SYS_FROM, from);
  m.insert(SYS_CMD, CMD_DISCONNECTED);
  return m;
}

// Writes down what it is told: +1 an object, -1 a removal, "complete", "lost".
class Noting : public Watcher {
 public:
  void objectChanged(const message& m) override { note("+" + std::to_string(m.get(STD_ID, 0))); }
  void objectRemoved(unsigned int id) override { note("-" + std::to_string(id)); }
  void tableComplete() override { note("complete"); }
  void providerLost(const message& m) override { note("lost(" + getError(m) + ")"); }
  void note(const std::string& word) {
    journal.note(word);
    if (atNote) atNote();
  }
  std::string take() {
    const std::string text = journal.text();
    journal.clear();
    return text;
  }
  test::Journal journal;
  std::function<void()> atNote;
};

struct WatcherTest : ::testing::Test {
  WatcherTest() { net.looper->addHandler(7, watcher.get()); }

  void deliver(const message& m) {
    net.loader.send(m);
    net.wake();
  }
  // The subscription and the request that go out together.
  void receiveBeginning() {
    subscription = net.loader.receive();
    EXPECT_EQ(subscription.get(SYS_CMD, 0), CMD_SUBSCRIBE);
    request = net.loader.receive();
    EXPECT_EQ(request.get(SYS_CMD, 0), CMD_GETALL);
  }
  void answer(const message& body) { deliver(answerTo(request, body)); }
  void begin(const Ids& ids) {
    watcher->watch({32});
    receiveBeginning();
    answer(chunk(ids));
  }
  void pass(unsigned int ticks) {
    clock.advance(ticks);
    net.looper->runTimers();
  }

  test::ScriptedClock clock{1000};
  test::Connected net;
  std::unique_ptr<Noting> watcher = std::make_unique<Noting>();
  message subscription;
  message request;
};

TEST_F(WatcherTest, SubscribesAndFetchesUnderItsOwnNumberAndFilter) {
  message extra;
  extra.insert_u32(kVersion, 3);
  watcher->watch({32, 4}, extra);
  receiveBeginning();
  message expected = extra;
  expected.insert(SYS_TO, {32, 4});
  expected.insert(SYS_FROM, {7});
  expected.insert(SYS_CMD, CMD_SUBSCRIBE);
  expected.insert(SYS_NOTIFYCMD, CMD_NOTIFY);
  EXPECT_EQ(subscription, expected);
  EXPECT_EQ(request.get(SYS_TO, {}), (Ids{32, 4}));
  EXPECT_EQ(request.get_u32(kVersion, 0), 3u);
}

TEST_F(WatcherTest, TellsTheTableAndThenTheChanges) {
  watcher->watch({32});
  receiveBeginning();
  answer(chunk({1, 2}, 3));
  EXPECT_FALSE(watcher->isComplete());
  request = net.loader.receive();
  answer(chunk({3}));
  EXPECT_EQ(watcher->take(), "+1 +2 +3 complete");
  EXPECT_TRUE(watcher->isComplete());
  deliver(notification({object(2), object(4), dead(1)}));
  EXPECT_EQ(watcher->take(), "+2 +4 -1");
}

TEST_F(WatcherTest, OneThatOverridesNothingFollowsTheTableAllTheSame) {
  Watcher plain;
  net.looper->addHandler(8, &plain);
  plain.watch({32});
  receiveBeginning();
  answer(chunk({1, 2}));
  EXPECT_TRUE(plain.isComplete());
  message change = notification({object(3), dead(1)});
  change.insert(SYS_TO, {8});
  deliver(change);
  EXPECT_TRUE(plain.isComplete());
  message gone = disconnected({32});
  gone.insert(SYS_TO, {8});
  deliver(gone);
  EXPECT_FALSE(plain.isComplete());
  net.looper->removeHandler(8);
}

TEST_F(WatcherTest, ANotificationWithoutObjectsTellsNothing) {
  begin({1});
  watcher->take();
  message empty = notification({});
  empty.remove(STD_OBJS);
  deliver(empty);
  EXPECT_EQ(watcher->take(), "");
  EXPECT_TRUE(watcher->isComplete());
}

TEST_F(WatcherTest, WatchingNoPathIsWatchingNothing) {
  watcher->watch({});
  EXPECT_TRUE(net.loader.isSilent());
  EXPECT_FALSE(watcher->isComplete());
  deliver(notification({object(1)}));
  EXPECT_EQ(watcher->take(), "");
}

TEST_F(WatcherTest, ARemovalOfWhatWasNotToldIsNotTold) {
  begin({1});
  watcher->take();
  deliver(notification({dead(9), dead(1), dead(1)}));
  EXPECT_EQ(watcher->take(), "-1");
}

TEST_F(WatcherTest, NotificationsDuringTheWalkAreTaken) {
  watcher->watch({32});
  receiveBeginning();
  deliver(notification({object(9)}));
  answer(chunk({1, 2}, 3));
  deliver(notification({dead(1), object(5)}));
  request = net.loader.receive();
  answer(chunk({3}));
  EXPECT_EQ(watcher->take(), "+9 +1 +2 -1 +5 +3 complete") << "9 and 5 are there, the service said so";
}

TEST_F(WatcherTest, OnlyTheServiceItselfIsBelieved) {
  begin({1});
  watcher->take();
  deliver(notification({dead(1)}, {33}));
  deliver(disconnected({33}));
  message notice = errorMsg(ERROR_BRKPATH, "");
  notice.insert(SYS_TO, {7});
  notice.insert(SYS_FROM, {33});
  deliver(notice);
  EXPECT_EQ(watcher->take(), "");
}

TEST_F(WatcherTest, AServiceWithoutRightsOfItsOwnIsHeardToo) {
  begin({1});
  watcher->take();
  message m = notification({object(2)}, {32, 4});
  m.insert(SYS_POLICY, 64);
  deliver(m);
  EXPECT_EQ(watcher->take(), "+2");
}

TEST_F(WatcherTest, AfterACrashWhatHasGoneIsRemoved) {
  begin({1, 2, 3});
  watcher->take();
  deliver(disconnected({32}));
  EXPECT_EQ(watcher->take(), "lost(ok)");
  EXPECT_FALSE(watcher->isComplete());
  EXPECT_TRUE(net.loader.isSilent());
  pass(5);
  receiveBeginning();
  answer(chunk({2}, 4));
  request = net.loader.receive();
  answer(chunk({4}));
  EXPECT_EQ(watcher->take(), "+2 +4 -1 -3 complete");
}

TEST_F(WatcherTest, WhatWasNotConfirmedOnceIsStillInDoubtTheNextTime) {
  begin({1, 2, 3});
  deliver(disconnected({32}));
  pass(5);
  receiveBeginning();
  answer(chunk({2}, 4));
  deliver(disconnected({32}));
  watcher->take();
  pass(10);
  (void)net.loader.receive();  // the request for the second chunk
  receiveBeginning();
  answer(chunk({3}));
  EXPECT_EQ(watcher->take(), "+3 -1 -2 complete");
}

TEST_F(WatcherTest, ItTriesUntilTheServiceAnswersAndSaysOnceThatItIsLost) {
  watcher->watch({32});
  for (const unsigned int ticks : {5u, 10u, 20u, 40u, 80u, 100u, 100u}) {
    receiveBeginning();
    answer(errorMsg(ERROR_BRKPATH, ""));
    pass(ticks - 1);
    EXPECT_TRUE(net.loader.isSilent()) << ticks;
    pass(1);
  }
  EXPECT_EQ(watcher->take(), "lost(" + getError(errorMsg(ERROR_BRKPATH, "")) + ")");
  receiveBeginning();
  answer(chunk({1}));
  EXPECT_EQ(watcher->take(), "+1 complete");
  deliver(disconnected({32}));
  pass(5);
  receiveBeginning();
}

TEST_F(WatcherTest, ABrokenPathOfTheSubscriptionCountsAsLost) {
  begin({1});
  watcher->take();
  message notice = errorMsg(ERROR_BRKPATH, "");
  notice.insert(SYS_TO, {7});
  notice.insert(SYS_FROM, {32});
  deliver(notice);
  EXPECT_EQ(watcher->take(), "lost(" + getError(notice) + ")");
  pass(5);
  receiveBeginning();
}

TEST_F(WatcherTest, AServiceThatDoesNotAnswerInTimeIsAskedAgain) {
  watcher->setTimeout(300);
  watcher->watch({32});
  receiveBeginning();
  pass(300);
  EXPECT_EQ(watcher->take(), "lost(" + getError(errorMsg(ERROR_TIMEOUT, "")) + ")");
  pass(5);
  receiveBeginning();
}

TEST_F(WatcherTest, SeveralSignsOfOneEndAreOneNewBeginning) {
  begin({1});
  deliver(disconnected({32}));
  deliver(disconnected({32}));
  pass(5);
  receiveBeginning();
  EXPECT_TRUE(net.loader.isSilent());
}

TEST_F(WatcherTest, StoppedItUnsubscribesAndTellsNothing) {
  begin({1});
  watcher->take();
  watcher->stop();
  EXPECT_EQ(net.loader.receive().get(SYS_CMD, 0), CMD_UNSUBSCRIBE);
  deliver(notification({object(2)}));
  deliver(disconnected({32}));
  pass(200);
  EXPECT_EQ(watcher->take(), "");
  EXPECT_TRUE(net.loader.isSilent());
}

TEST_F(WatcherTest, AHookMayStopItWhileObjectsComeIn) {
  watcher->atNote = [this] { watcher->stop(); };
  watcher->watch({32});
  receiveBeginning();
  answer(chunk({1, 2}, 3));
  EXPECT_EQ(watcher->take(), "+1");
  EXPECT_EQ(net.loader.receive().get(SYS_CMD, 0), CMD_UNSUBSCRIBE);
  watcher->atNote = nullptr;
  begin({1, 2});
  watcher->take();
  watcher->atNote = [this] { watcher->stop(); };
  deliver(notification({object(1), object(2)}));
  EXPECT_EQ(watcher->take(), "+1");
}

TEST_F(WatcherTest, AHookMayStopItWhileRemovalsAreTold) {
  begin({1, 2, 3});
  deliver(disconnected({32}));
  watcher->take();
  pass(5);
  receiveBeginning();
  watcher->atNote = [this] { watcher->stop(); };
  answer(chunk({}));
  EXPECT_EQ(watcher->take(), "-1");
}

TEST_F(WatcherTest, AHookMayWatchAnotherTable) {
  begin({1, 2});
  watcher->take();
  watcher->atNote = [this] {
    watcher->atNote = nullptr;
    watcher->watch({40});
  };
  deliver(notification({object(1), object(2)}));
  EXPECT_EQ(watcher->take(), "+1");
  EXPECT_EQ(net.loader.receive().get(SYS_CMD, 0), CMD_UNSUBSCRIBE);
  receiveBeginning();
  EXPECT_EQ(request.get(SYS_TO, {}), Ids{40});
  answer(chunk({8}));
  EXPECT_EQ(watcher->take(), "+8 complete") << "what the other table had is forgotten, not removed";
}

TEST_F(WatcherTest, DestroyedItUnsubscribesAndItsTimerGoesWithIt) {
  begin({1});
  deliver(disconnected({32}));
  watcher.reset();
  EXPECT_EQ(net.loader.receive().get(SYS_CMD, 0), CMD_UNSUBSCRIBE);
  EXPECT_EQ(net.looper->sleepTime(clock.now()), -1);
  pass(100);
  EXPECT_TRUE(net.loader.isSilent());
}

TEST_F(WatcherTest, OtherCommandsAreCarriedOutAsByAnyHandler) {
  begin({1});
  deliver(test::requestTo({7}, CMD_NOOP));
  EXPECT_TRUE(isReply(net.loader.receive()));
}

TEST_F(WatcherTest, ItsOwnSubscribersAreDroppedWhenTheyEnd) {
  begin({1});
  message m = test::to({7});
  m.insert(SYS_FROM, {32, 3});
  m.insert(SYS_CMD, CMD_SUBSCRIBE);
  deliver(m);
  ASSERT_EQ(watcher->getSubscriptions().size(), 1u);
  deliver(disconnected({32}));
  EXPECT_TRUE(watcher->getSubscriptions().empty());
}

}  // namespace
}  // namespace kl

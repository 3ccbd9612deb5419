#include "tests/testkit/fixture.h"

namespace kl::test {
namespace {

using PeerTest = KeeperOnABus;

TEST_F(PeerTest, FollowsTheServiceUntilItNoLongerWantsTo) {
  Peer client(bus);
  Peer changer(bus);
  client.subscribe(kPath);
  (void)changer.ask(kPath, CMD_SET, numbered(3));
  EXPECT_TRUE(client.takeNotified().empty());  // changes are gathered for 200 ms
  bus.advance(20);
  const auto notified = client.takeNotified();
  ASSERT_EQ(notified.size(), 1u);
  const auto objects = notified[0].get(STD_OBJS, {});
  const message object = objects.empty() ? notified[0] : message(objects[0]);
  EXPECT_EQ(object.get(kNumber, 0), 3u);

  client.unsubscribe(kPath);
  (void)changer.ask(kPath, CMD_SET, numbered(4));
  bus.advance(20);
  EXPECT_TRUE(client.takeNotified().empty());
}

TEST_F(PeerTest, PeersAskEachOther) {
  Peer one(bus);
  Peer two(bus, kOther);
  two.on(CMD_GET, numbered(2));
  EXPECT_EQ(one.ask({kOther}, CMD_GET).get(kNumber, 0), 2u);
  EXPECT_EQ(errorOf(one.ask({kOther}, CMD_SET)), ERROR_NOTIMP);
  EXPECT_EQ(errorOf(one.ask({kOther}, CMD_NOOP)), ERROR_OK);
}

TEST_F(PeerTest, AskingEndsWithTheTimeOut) {
  Peer one(bus);
  Peer two(bus, kOther);
  two.ignore(CMD_GET);
  const unsigned int begin = bus.now();
  EXPECT_EQ(errorOf(one.ask({kOther}, CMD_GET, {}, 40)), ERROR_TIMEOUT);
  EXPECT_EQ(bus.now(), begin + 40);
}

TEST_F(PeerTest, NoticesTellOfPathsThatLeadNowhere) {
  Peer client(bus);
  message m = numbered(1);
  m.insert(SYS_TO, {99u, 0u});
  m.insert(SYS_CMD, CMD_SET);
  client.send(m);
  bus.runUntilIdle();
  const auto notices = client.takeNotices();
  ASSERT_EQ(notices.size(), 1u);
  EXPECT_EQ(errorOf(notices[0]), ERROR_BRKPATH);
}

}  // namespace
}  // namespace kl::test

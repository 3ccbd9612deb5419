#include "testkit/member.h"

#include "tests/testkit/fixture.h"

namespace kl::test {
namespace {

using MemberTest = KeeperOnABus;

class Follower : public Handler {
 public:
  void handleCmd(const message& request, unsigned int command) override {
    if (command == CMD_NOTIFY) ++news;
    else Handler::handleCmd(request, command);
  }
  unsigned int news = 0;
};

TEST_F(MemberTest, ScriptsSeeTheRequest) {
  Peer other(bus, kOther);
  other.on(CMD_GET,
           [](const message& m) { return numbered(static_cast<unsigned int>(m.get(kLabel, "").size())); });
  EXPECT_EQ(keeper.cmdReset({}).get(kNumber, 0), 5u);
  const auto asked = other.takeAsked();
  ASSERT_EQ(asked.size(), 1u);
  EXPECT_EQ(asked[0].get(SYS_FROM, {}), (Peer::Path{kService, 0}));
  EXPECT_EQ(asked[0].get(SYS_USER, ""), "root");
  EXPECT_TRUE(other.takeAsked().empty());
}

TEST_F(MemberTest, ARequestMayBeAnsweredLater) {
  Peer other(bus, kOther);
  Peer client(bus);
  other.ignore(CMD_SET);
  const unsigned int request = client.post({kOther}, CMD_SET);
  bus.runUntilIdle();
  EXPECT_FALSE(client.takeReply(request));
  const auto asked = other.takeAsked();
  ASSERT_EQ(asked.size(), 1u);
  other.reply(asked[0], numbered(1));
  bus.runUntilIdle();
  EXPECT_EQ(client.takeReply(request).value_or(message()).get(kNumber, 0), 1u);
}

TEST_F(MemberTest, NotifiesItsSubscribers) {
  Peer other(bus, kOther);
  Follower follower;
  bus.add(1, follower);
  follower.subscribe({kOther, 0}, CMD_NOTIFY, {});
  bus.runUntilIdle();
  EXPECT_EQ(other.subscribers(), 1u);
  other.notify(numbered(1));
  bus.runUntilIdle();
  EXPECT_EQ(follower.news, 1u);
  follower.unsubscribe({kOther, 0}, CMD_NOTIFY, {});
  bus.runUntilIdle();
  EXPECT_EQ(other.subscribers(), 0u);
}

TEST_F(MemberTest, AnAnswerKeepsToItsDescription) {
  Peer other(bus, kOther);
  other.describedByFile(KL_ATTIC_TOML);
  other.on(CMD_GET, numbered(1));
  EXPECT_EQ(keeper.cmdReset({}).get(kNumber, 0), 1u);

  message strange;
  strange.insert_u64(0x10000001, 1);
  other.on(CMD_GET, strange);
  (void)keeper.cmdReset({});
  try {
    bus.runUntilIdle();
    ADD_FAILURE() << "the field has another type";
  } catch (const Failure& failure) {
    EXPECT_STREQ(
        failure.what(),
        "peer 24 answers command 0xfe000d with the field floor as u64:1, and the description of attic has it "
        "as u32:1");
  }
}

TEST_F(MemberTest, ARequestKeepsToItsDescription) {
  Peer other(bus, kOther);
  other.describedBy("fields = [{ name = \"other\", field = \"u32:9\" }]\n");
  other.on(CMD_GET, message());
  (void)keeper.cmdReset({});
  EXPECT_THROW(bus.runUntilIdle(), Failure);
}

TEST_F(MemberTest, WhoHasEndedHearsNothing) {
  Peer other(bus, kOther);
  Peer client(bus);
  other.on(CMD_SET, [&](const message&) {
    other.end();
    return numbered(1);
  });
  EXPECT_EQ(errorOf(client.ask({kOther}, CMD_SET)), ERROR_BRKPATH);
  other.send(numbered(1));
  EXPECT_EQ(client.takeDeaths(), Peer::Path{kOther});
}

}  // namespace
}  // namespace kl::test

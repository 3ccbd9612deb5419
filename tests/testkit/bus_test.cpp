#include <optional>

#include "kl/services.h"
#include "tests/testkit/fixture.h"

namespace kl::test {
namespace {

using Numbers = std::vector<unsigned int>;
using BusTest = KeeperOnABus;

TEST_F(BusTest, TheServiceRegistersAndRuns) {
  EXPECT_EQ(bus.takeControls(), Numbers{CTRL_HELLO});
  bus.runUntilIdle();
  EXPECT_EQ(bus.takeControls(), Numbers{CTRL_RUNNING});
  getLooper()->setupLeave(1);
  EXPECT_TRUE((bus.runUntilIdle(), bus.mayLeave()));
  EXPECT_EQ(bus.takeControls(), Numbers{CTRL_LEAVE_VALUE});
}

TEST(BusSettings, ComeWithTheRegistration) {
  TestBus bus;
  bus.setSettings(numbered(5));
  const Looper loop(Looper::kAny, kService);
  EXPECT_EQ(loop.getLoaderData().get(kNumber, 0), 5u);
  EXPECT_EQ(loop.getLoaderValue(3), 1u);
}

TEST_F(BusTest, RequestsCarryTheUserAndTheRights) {
  Peer root(bus);
  (void)root.ask(kPath, CMD_GET);
  EXPECT_EQ(keeper.last.get(SYS_USER, ""), "root");
  EXPECT_FALSE(keeper.last.has(SYS_POLICY));
  EXPECT_EQ(keeper.last.get(SYS_FROM, {}), Numbers{root.id()});

  Peer guest(bus);
  guest.setUser("guest", RIGHT_READ);
  (void)guest.ask(kPath, CMD_GET);
  EXPECT_EQ(keeper.last.get(SYS_USER, ""), "guest");
  EXPECT_EQ(keeper.last.get(SYS_POLICY, 0), RIGHT_READ);
  EXPECT_EQ(errorOf(guest.ask(kPath, CMD_SET, numbered(1))), ERROR_NOTALLOWED);
}

TEST_F(BusTest, AllRightsAreStillThoseOfAUser) {
  Peer admin(bus);
  admin.setUser("admin", RIGHTS_ALL);
  EXPECT_EQ(errorOf(admin.ask(kPath, CMD_SET, numbered(1))), ERROR_OK);
  (void)admin.ask(kPath, CMD_GET);
  EXPECT_EQ(keeper.last.get(SYS_USER, ""), "admin");
  EXPECT_EQ(keeper.last.get(SYS_POLICY, 0), RIGHTS_ALL);

  keeper.last = message();
  admin.setUser("nobody", 0);
  EXPECT_EQ(errorOf(admin.ask(kPath, CMD_GET)), ERROR_NOTALLOWED);
  EXPECT_FALSE(keeper.last.has(SYS_USER));  // it was not delivered
}

TEST_F(BusTest, NobodyPretendsToBeAnother) {
  Peer guest(bus);
  guest.setUser("guest", RIGHT_READ);
  message forged = numbered(1);
  forged.insert(SYS_USER, "root");
  forged.insert(SYS_POLICY, RIGHTS_ALL);
  EXPECT_EQ(errorOf(guest.ask(kPath, CMD_SET, forged)), ERROR_NOTALLOWED);
}

TEST_F(BusTest, GarbageIsAFailure) {
  Peer peer(bus);
  message m = numbered(1);
  m.insert(SYS_TO, {kService, 0});
  m.insert(SYS_CTRL, CTRL_LEAVE);
  EXPECT_THROW(peer.send(m), Failure);
}

TEST_F(BusTest, WhoeverKnowsThemHearsOfEnds) {
  Peer known(bus);
  Peer stranger(bus);
  Peer configured(bus, kOther);
  (void)known.ask(kPath, CMD_GET);
  const unsigned int id = known.id();
  known.end();
  stranger.end();
  configured.end();
  bus.runUntilIdle();
  EXPECT_EQ(keeper.deaths, (Numbers{id, kOther}));
}

TEST_F(BusTest, ARequestToADeadPeerIsABrokenPath) {
  EXPECT_EQ(errorOf(keeper.cmdReset({})), ERROR_BRKPATH);
  Peer other(bus, kOther);
  other.on(CMD_GET, [&](const message&) {
    other.end();
    return message();
  });
  EXPECT_EQ(errorOf(keeper.cmdReset({})), ERROR_BRKPATH);
}

// The service leaves with its data, and everything for it waits.
TEST_F(BusTest, LeavesAndComesBack) {
  Peer client(bus);
  Peer other(bus, kOther);
  EXPECT_EQ(bus.askToLeave(), TestBus::Leave::kMayNot);
  getLooper()->setupLeave(1);
  (void)client.ask(kPath, CMD_SET, numbered(9));
  ASSERT_EQ(bus.askToLeave(), TestBus::Leave::kLeft);

  const unsigned int waiting = client.post(kPath, CMD_GET);
  bus.advance(100);
  EXPECT_FALSE(client.takeReply(waiting));
  other.end();
  bus.startAgain();
  Keeper next;
  bus.add(0, next);
  EXPECT_EQ(next.number, 9u);
  bus.runUntilIdle();
  EXPECT_EQ(next.deaths, Numbers{kOther});
  EXPECT_EQ(client.takeReply(waiting).value_or(message()).get(kNumber, 0), 9u);
  EXPECT_EQ(getLooper()->getLoaderValue(3), 2u);
  EXPECT_EQ(client.takeDeaths(), Numbers{kOther});  // a leave is no end
}

class Unwilling : public Looper {
 public:
  Unwilling() : Looper(kAny, kService) { setupLeave(1); }
  bool canLeave() override { return false; }
};

TEST(BusLeave, IsRefusedByWhoCannotLeave) {
  TestBus bus;
  Unwilling loop;
  Keeper keeper;
  loop.addHandler(0, &keeper);
  Peer client(bus);
  EXPECT_EQ(bus.askToLeave(), TestBus::Leave::kRefused);
  EXPECT_EQ(client.ask(kPath, CMD_GET).get(kNumber, 0), 7u);
  loop.tellLeave();
  bus.runUntilIdle();
  EXPECT_TRUE(bus.wantsToLeave());
}

TEST(BusLeave, AnEndWithoutALeaveIsAnnounced) {
  TestBus bus;
  std::optional<Looper> loop(std::in_place, Looper::kAny, kService);
  Peer client(bus);
  bus.runUntilIdle();
  const unsigned int request = client.post(kPath, CMD_GET);
  loop.reset();  // as a process that is killed
  bus.runUntilIdle();
  EXPECT_EQ(errorOf(client.takeReply(request).value_or(message())), ERROR_BRKPATH);
  EXPECT_EQ(client.takeDeaths(), Numbers{kService});
  bus.startAgain();
  loop.emplace(Looper::kAny, kService);
  EXPECT_EQ(errorOf(client.ask({kService}, CMD_NOOP)), ERROR_OK);
}

TEST(BusLeave, DataOfTheTestsAreFound) {
  TestBus bus;
  message data;
  const Numbers handlers{0};
  const std::vector<message::flat_message> theirs{numbered(12).flattened()};
  data.insert_u32_array(0x88000002, handlers);
  data.insert_message_array(0xa8000003, theirs);
  bus.setLeaveData(data);
  Looper loop(Looper::kAny, kService);
  Keeper keeper;
  loop.addHandler(0, &keeper);
  EXPECT_EQ(keeper.number, 12u);
}

TEST(BusDeathTest, TheServiceEndsWithoutItsLoader) {
  TestBus bus(kService);
  EXPECT_EXIT((bus.loseLoader(), bus.runUntilIdle()), testing::ExitedWithCode(1), "LOOPER: ");
}

TEST(BusDeathTest, AnIdIsGivenOnce) {
  TestBus bus;
  const Peer peer(bus, kService);
  EXPECT_EXIT(Looper(Looper::kAny, kService), testing::ExitedWithCode(1),
              "a peer has the id of the service, 34");
  EXPECT_THROW(Peer(bus, kService), Failure);
}

}  // namespace
}  // namespace kl::test

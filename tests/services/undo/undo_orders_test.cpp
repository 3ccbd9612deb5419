// Orders to undo, as their askers and the makers of the records see them.

#include "services/undo/undo_orders.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include "tests/services/undo/fixture.h"

namespace undo {

TEST_F(UndoProcess, TheMakerIsSentTheUndoMessageInTheAskersName) {
  RawPeer maker = connected(500);
  RawPeer asker = connected();
  kl::message m = report("x");
  m.insert(kl::SYS_FROM, {3});
  const unsigned int id = add(maker, m);
  kl::message start = withRights(to(kl::CMD_START, id), 192);
  start.insert(kl::SYS_USER, "daemon");
  const unsigned int asked = send(asker, start);
  const auto undo = maker.receiveCommand(kl::CMD_SET);
  ASSERT_TRUE(undo);
  EXPECT_EQ(undo->get(VALUE, 0), 1u);
  EXPECT_EQ(undo->get(kl::STD_UNDOID, 0), id);
  EXPECT_EQ(undo->get(kl::SYS_USER, ""), "daemon");
  EXPECT_EQ(undo->get(kl::SYS_POLICY, 0), 192u);
  EXPECT_EQ(undo->get(kl::SYS_TO, {}), Ids{3});
  EXPECT_EQ(undo->get(kl::SYS_FROM, {}), Ids{17});
  EXPECT_TRUE(asker.isQuiet());  // the asker's reply waits for the maker's
  ASSERT_TRUE(maker.send(kl::test::replyTo(*undo)));
  const auto reply = asker.receiveReply(asked);
  ASSERT_TRUE(reply);
  EXPECT_FALSE(kl::isError(*reply));
}

TEST_F(UndoProcess, AnUndoMessageWithFieldsThatNobodyMaySendIsSentWithoutThem) {
  RawPeer maker = connected(500);
  kl::message odd = setValue(1);
  odd.insert_u64(0x10ff0001, 1);  // the number of SYS_TO
  kl::message m = report("x");
  m.insert(kl::UNDO_MESSAGE, flat(odd));
  send(maker, to(kl::CMD_START, add(maker, m)));
  const auto undo = maker.receiveCommand(kl::CMD_SET);
  ASSERT_TRUE(undo);
  EXPECT_EQ(undo->get(VALUE, 0), 1u);
}

TEST_F(UndoProcess, WhoseRequestSaysNeitherUserNorRightsUndoesUnderItsUsersNameWithAllRights) {
  RawPeer maker = connected(500);
  const unsigned int id = add(maker, report("x", 0xffffffff));
  send(maker, to(kl::CMD_START, id));
  const auto undo = maker.receiveCommand(kl::CMD_SET);
  ASSERT_TRUE(undo);
  EXPECT_FALSE(undo->has(kl::SYS_POLICY));
  EXPECT_EQ(undo->get(kl::SYS_USER, ""), "root");
}

TEST_F(UndoProcess, WithoutTheRecordedRightsNothingIsUndone) {
  RawPeer maker = connected(500);
  RawPeer asker = connected();
  const unsigned int id = add(maker, report("x", 128 | 512));
  for (const unsigned int rights : {0u, 64u, 64u | 128u, 512u})
    EXPECT_EQ(errorOf(ask(asker, withRights(to(kl::CMD_START, id), rights))), kl::ERROR_NOTALLOWED);
  EXPECT_TRUE(maker.isQuiet());
  send(asker, withRights(to(kl::CMD_START, id), 128 | 512));
  EXPECT_TRUE(maker.receiveCommand(kl::CMD_SET));
}

TEST_F(UndoProcess, WhoMayChangeMayUndoAChange) {
  RawPeer maker = connected(500);
  const unsigned int id = add(maker, report("x", 128));
  send(maker, withRights(to(kl::CMD_START, id), 64 | 128));
  EXPECT_TRUE(maker.receiveCommand(kl::CMD_SET));
}

TEST_F(UndoProcess, TheMakersErrorIsTheAskersError) {
  RawPeer maker = connected(500);
  RawPeer asker = connected();
  const unsigned int id = add(maker, report("x"));
  const unsigned int asked = send(asker, to(kl::CMD_START, id));
  const auto undo = maker.receiveCommand(kl::CMD_SET);
  ASSERT_TRUE(undo);
  kl::message refusal = kl::test::replyTo(*undo);
  refusal.merge(kl::errorMsg(0x123456, "the lamp is broken"));
  ASSERT_TRUE(maker.send(refusal));
  const auto reply = asker.receiveReply(asked);
  ASSERT_TRUE(reply);
  std::string text;
  unsigned int code = 0;
  EXPECT_TRUE(kl::isError(*reply, &code, &text));
  EXPECT_EQ(code, 0x123456u);
  EXPECT_EQ(text, "the lamp is broken");
  EXPECT_FALSE(ask(asker, kl::CMD_GETOBJ, id).get(kl::UNDO_UNDONE, false));
}

TEST_F(UndoProcess, TheRecordOfAServiceThatIsAwayCannotBeUndone) {
  RawPeer asker = connected();
  unsigned int id = 0;
  {
    RawPeer maker = connected(500);
    EXPECT_TRUE(asker.meet(500, maker));
    id = add(maker, report("x"));
  }
  EXPECT_TRUE(asker.receiveCommand(kl::CMD_DISCONNECTED));
  EXPECT_EQ(errorOf(ask(asker, kl::CMD_START, id)), kl::ERROR_BRKPATH);
  EXPECT_EQ(all(asker), Ids{id});  // it may come again
}

TEST_F(UndoProcess, AMakerThatEndsMeanwhileIsABrokenPath) {
  RawPeer asker = connected();
  unsigned int asked = 0;
  {
    RawPeer maker = connected(500);
    asked = send(asker, to(kl::CMD_START, add(maker, report("x"))));
    EXPECT_TRUE(maker.receiveCommand(kl::CMD_SET));
  }
  EXPECT_EQ(errorOf(asker.receiveReply(asked).value_or(kl::message())), kl::ERROR_BRKPATH);
}

TEST_F(UndoProcess, ARecordIsUndoneOnceAtATime) {
  RawPeer maker = connected(500);
  RawPeer asker = connected();
  const unsigned int id = add(maker, report("x"));
  const unsigned int other = add(maker, report("y"));
  const unsigned int asked = send(asker, to(kl::CMD_START, id));
  const auto undo = maker.receiveCommand(kl::CMD_SET);
  ASSERT_TRUE(undo);
  EXPECT_EQ(errorOf(ask(maker, kl::CMD_START, id)), kl::ERROR_BUSY);
  send(asker, to(kl::CMD_START, other));
  EXPECT_TRUE(maker.receiveCommand(kl::CMD_SET));
  ASSERT_TRUE(maker.send(kl::test::replyTo(*undo)));
  EXPECT_TRUE(asker.receiveReply(asked));
  send(asker, to(kl::CMD_START, id));
  EXPECT_TRUE(maker.receiveCommand(kl::CMD_SET));
}

// --- Who may undo ----------------------------------------------------------------------------------

namespace {

constexpr uid_t kDaemon = 1;
constexpr uid_t kBin = 2;
constexpr uid_t kNobody = 65534;

// daemon may change everything but service 501, bin only service 500, everybody else reads.  Service 501 lists its
// commands.
class UndoRights : public UndoProcess {
 protected:
  UndoRights()
      : UndoProcess("", "default = \"read\"\ndaemon = [\"read\", \"change\"]\n",
                    "[[service]]\nname = \"lamp\"\nid = 500\naccess = { bin = [\"read\", \"change\"] }\n"
                    "[[service]]\nname = \"other\"\nid = 501\naccess = { daemon = \"none\", bin = [\"read\", "
                    "\"change\"] }\ncommands = { \"0x42\" = \"change\" }\n") {}
  void SetUp() override {
    if (::geteuid() != 0) GTEST_SKIP() << "only root can become another user";
  }

  // The report of a change that the unlisted command 0x43 takes back: the library reports no rights for it.
  static kl::message unlistedChange() {
    kl::message undo = setValue(1);
    undo.insert(kl::SYS_CMD, 0x43);
    kl::message m = report("unlisted", 0);
    m.insert(kl::UNDO_MESSAGE, flat(undo));
    return m;
  }
};

}  // namespace

TEST_F(UndoRights, AnUndoHasTheRightsThatItsAskerHasAtTheMaker) {
  RawPeer maker = connected(500);
  RawPeer bin = connectedAs(kBin);
  send(bin, to(kl::CMD_START, add(maker, report("x", 128))));  // at kl-undo he may only read
  const auto undo = maker.receiveCommand(kl::CMD_SET);
  ASSERT_TRUE(undo);
  EXPECT_EQ(undo->get(kl::SYS_USER, ""), "bin");
  EXPECT_EQ(undo->get(kl::SYS_POLICY, 0), 64u | 128u);
  EXPECT_EQ(undo->get(kl::SYS_FROM, {}), Ids{17});
}

TEST_F(UndoRights, WhoMayOnlyReadAtTheMakerUndoesNothing) {
  RawPeer maker = connected(500);
  RawPeer nobody = connectedAs(kNobody);
  EXPECT_EQ(errorOf(ask(nobody, kl::CMD_START, add(maker, report("x", 128)))), kl::ERROR_NOTALLOWED);
  EXPECT_TRUE(maker.isQuiet());
}

TEST_F(UndoRights, WhoHasNoRightsAtTheMakerUndoesNothing) {
  RawPeer maker = connected(501);
  RawPeer daemon = connectedAs(kDaemon);
  EXPECT_EQ(errorOf(ask(daemon, kl::CMD_START, add(maker, report("x", 64)))), kl::ERROR_NOTALLOWED);
  EXPECT_TRUE(maker.isQuiet());
}

TEST_F(UndoRights, AChangeThatNeededNoRightNeedsTheRightToChange) {
  RawPeer maker = connected(500);
  RawPeer nobody = connectedAs(kNobody);
  RawPeer daemon = connectedAs(kDaemon);
  const unsigned int id = add(maker, unlistedChange());
  EXPECT_EQ(errorOf(ask(nobody, kl::CMD_START, id)), kl::ERROR_NOTALLOWED);
  EXPECT_TRUE(maker.isQuiet());
  send(daemon, to(kl::CMD_START, id));
  EXPECT_TRUE(maker.receiveCommand(0x43));
}

TEST_F(UndoRights, WhatTheMakerDoesNotListNobodyButRootUndoes) {
  RawPeer maker = connected(501);
  RawPeer bin = connectedAs(kBin);
  const unsigned int id = add(maker, unlistedChange());
  EXPECT_EQ(errorOf(ask(bin, kl::CMD_START, id)), kl::ERROR_NOTALLOWED);
  EXPECT_TRUE(maker.isQuiet());
  RawPeer root = connected();
  send(root, to(kl::CMD_START, id));
  EXPECT_TRUE(maker.receiveCommand(0x43));
}

TEST_F(UndoRights, ARefusedAskerLeavesTheRecordForOthers) {
  RawPeer maker = connected(500);
  RawPeer nobody = connectedAs(kNobody);
  const unsigned int id = add(maker, report("x", 128));
  EXPECT_EQ(errorOf(ask(nobody, kl::CMD_START, id)), kl::ERROR_NOTALLOWED);
  send(maker, to(kl::CMD_START, id));
  EXPECT_TRUE(maker.receiveCommand(kl::CMD_SET));
}

TEST_F(UndoRights, AnOrdinaryProcessReportsAndSeesWhatItReported) {
  RawPeer nobody = connectedAs(kNobody);
  kl::message m = report("x", 64);
  m.insert(kl::UNDO_USER, "nobody");
  const unsigned int id = add(nobody, m);
  const kl::message record = ask(nobody, kl::CMD_GETOBJ, id);
  EXPECT_EQ(record.get(kl::UNDO_REPORTER, ""), "nobody");
  EXPECT_EQ(idsIn(ask(nobody, kl::CMD_GETALL)), Ids{id});
  RawPeer daemon = connectedAs(kDaemon);
  EXPECT_EQ(all(daemon), Ids());
}

}  // namespace undo

// The undo service as other processes see it.

#include "services/undo/undo_service.h"

#include <gtest/gtest.h>
#include <signal.h>

#include <ctime>
#include <set>

#include "tests/services/undo/fixture.h"

namespace undo {
namespace {

class SmallUndo : public UndoProcess {
 protected:
  SmallUndo() : UndoProcess("0x08000001 = 3\n") {}
};

// The report of a change that this user asked for.
kl::message changeOf(const std::string& user) {
  kl::message m = report("password of " + user);
  m.insert(kl::UNDO_USER, user);
  return m;
}

kl::message subscription() {
  kl::message m;
  m.insert(kl::SYS_TO, kUndo);
  m.insert(kl::SYS_CMD, kl::CMD_SUBSCRIBE);
  return m;
}

// The single object of the next notification.
kl::message toldObject(RawPeer& peer) {
  const auto told = peer.receiveCommand(kl::CMD_NOTIFY);
  const auto objects = told ? told->get(kl::STD_OBJS, {}) : std::vector<kl::message::flat_message>();
  EXPECT_EQ(objects.size(), 1u);
  return objects.empty() ? kl::message() : kl::message(objects.front());
}

}  // namespace

// --- The table -------------------------------------------------------------------------------------

TEST_F(UndoProcess, AReportBecomesARecord) {
  RawPeer maker = connected(500);
  const auto before = static_cast<unsigned long long>(std::time(nullptr));
  kl::message m = report("the lamp");
  m.insert(kl::SYS_FROM, {3, 8});
  const unsigned int id = add(maker, m);
  const kl::message record = ask(maker, kl::CMD_GETOBJ, id);
  EXPECT_EQ(record.get(kl::STD_ID, 0), id);
  EXPECT_EQ(record.get(kl::UNDO_REQUEST, {}), flat(setValue(2)));
  EXPECT_EQ(record.get(kl::UNDO_MESSAGE, {}), flat(setValue(1)));
  EXPECT_EQ(record.get(kl::UNDO_DESCRIPTION, ""), "the lamp");
  EXPECT_EQ(record.get(kl::UNDO_USER, ""), "alice");
  EXPECT_EQ(record.get(kl::UNDO_RIGHTS, 0), 128u);
  EXPECT_EQ(record.get(kl::UNDO_SOURCE, {}), (Ids{500, 3, 8}));
  EXPECT_GE(record.get(kl::UNDO_TIME, 0), before);
  EXPECT_FALSE(record.get(kl::UNDO_UNDONE, false));
}

TEST_F(UndoProcess, AReportThatAsksForNoReplyGetsNone) {
  RawPeer maker = connected(500);
  ASSERT_TRUE(maker.send(report("quiet")));
  kl::message damaged = report("damaged");
  damaged.remove(kl::UNDO_MESSAGE);
  ASSERT_TRUE(maker.send(damaged));
  EXPECT_EQ(all(maker).size(), 1u);  // the only message that comes is this request's reply
  EXPECT_TRUE(maker.isQuiet());
}

TEST_F(UndoProcess, TheNewestRecordComesFirst) {
  RawPeer maker = connected(500);
  Ids ids;
  for (const char* name : {"a", "b", "c"}) ids.insert(ids.begin(), add(maker, report(name)));
  EXPECT_EQ(all(maker), ids);
  EXPECT_EQ(ask(maker, kl::CMD_GETCOUNT).get(kl::STD_GETALLNO, 0), 3u);
}

TEST_F(UndoProcess, ALongListComesInParts) {
  RawPeer maker = connected(500);
  Ids expected;
  for (int i = 0; i < 5; ++i) expected.insert(expected.begin(), add(maker, report(std::string(7000, 'x'))));
  Ids got;
  kl::message request = to(kl::CMD_GETALL);
  int parts = 0;
  for (;; ++parts) {
    const kl::message reply = ask(maker, request);
    const Ids ids = idsIn(reply);
    EXPECT_EQ(ids.size(), std::min<std::size_t>(2, 5 - got.size()));
    got.insert(got.end(), ids.begin(), ids.end());
    if (!reply.has(kl::STD_GETALLID)) break;
    request.insert(kl::STD_GETALLID, reply.get(kl::STD_GETALLID, 0));
  }
  EXPECT_EQ(got, expected);
  EXPECT_EQ(parts, 2);
}

TEST_F(UndoProcess, APartThatBeginsAtARecordThatHasGoneBeginsAtTheNextOlderOne) {
  RawPeer maker = connected(500);
  Ids ids;
  for (const char* name : {"a", "b", "c"}) ids.push_back(add(maker, report(name)));
  EXPECT_FALSE(kl::isError(ask(maker, kl::CMD_REMOVEOBJ, ids[1])));
  kl::message request = to(kl::CMD_GETALL);
  request.insert(kl::STD_GETALLID, ids[1]);
  EXPECT_EQ(idsIn(ask(maker, request)), (Ids{ids[0]}));
  request.insert(kl::STD_GETALLID, ids[2]);
  request.insert(kl::STD_GETALLNO, 1);
  const kl::message one = ask(maker, request);
  EXPECT_EQ(idsIn(one), (Ids{ids[2]}));
  EXPECT_EQ(one.get(kl::STD_GETALLID, 0), ids[0]);
}

TEST_F(UndoProcess, ARecordThatIsNotThereIsUnknown) {
  RawPeer peer = connected(500);
  for (const unsigned int command : {kl::CMD_GETOBJ, kl::CMD_REMOVEOBJ, kl::CMD_SETOBJ, kl::CMD_START}) {
    EXPECT_EQ(errorOf(ask(peer, command, 4711)), kl::ERROR_UNKNOWNID);
    EXPECT_EQ(errorOf(ask(peer, command)), kl::ERROR_UNKNOWNID);
  }
}

TEST_F(UndoProcess, AReportThatCannotBeKeptIsRefused) {
  RawPeer maker = connected(500);
  kl::message missing = report("missing");
  missing.remove(kl::UNDO_MESSAGE);
  EXPECT_EQ(errorOf(ask(maker, missing)), kl::ERROR_MISSING);
  kl::message damaged = report("damaged");
  damaged.insert(kl::UNDO_MESSAGE, kl::message::flat_message(std::vector<unsigned char>{'M', '2', 5}));
  EXPECT_EQ(errorOf(ask(maker, damaged)), kl::ERROR_FAILED);
  EXPECT_EQ(errorOf(ask(maker, report(std::string(62000, 'x')))), kl::ERROR_TOOBIG);
  EXPECT_EQ(all(maker), Ids());
}

TEST_F(UndoProcess, TheLargestRecordIsListedWhole) {
  RawPeer maker = connected(500);
  const std::string description(61000, 'x');
  const unsigned int id = add(maker, report(description));
  EXPECT_EQ(ask(maker, kl::CMD_GETOBJ, id).get(kl::UNDO_DESCRIPTION, ""), description);
  EXPECT_EQ(all(maker), Ids{id});
}

TEST_F(UndoProcess, AReportIsTakenFromAServiceThatMayOnlyRead) {
  RawPeer maker = connected(500);
  const unsigned int id = add(maker, by("netif", 64, report("x")));
  ASSERT_NE(id, kl::BADID);
  EXPECT_FALSE(kl::isError(ask(maker, by("netif", 64, undoneReport(id, 7)))));
  const kl::message record = ask(maker, kl::CMD_GETOBJ, id);
  EXPECT_EQ(record.get(kl::UNDO_REPORTER, ""), "netif");
  EXPECT_EQ(record.get(kl::UNDO_USER, ""), "alice");
  EXPECT_TRUE(record.get(kl::UNDO_UNDONE, false));
}

TEST_F(UndoProcess, WhoMayOnlyReadRemovesNothing) {
  RawPeer maker = connected(500);
  const unsigned int id = add(maker, report("x"));
  EXPECT_EQ(errorOf(ask(maker, by("alice", 64, to(kl::CMD_REMOVEOBJ, id)))), kl::ERROR_NOTALLOWED);
  EXPECT_EQ(idsIn(ask(maker, by("alice", 64, to(kl::CMD_GETALL)))), Ids{id});
  EXPECT_FALSE(kl::isError(ask(maker, by("alice", 64 | 128, to(kl::CMD_REMOVEOBJ, id)))));
}

TEST_F(UndoProcess, WithoutAnyRightNothingIsReported) {
  RawPeer maker = connected(500);
  EXPECT_EQ(errorOf(ask(maker, withRights(report("y"), 0))), kl::ERROR_NOTALLOWED);
}

// --- Who sees a record -----------------------------------------------------------------------------

TEST_F(UndoProcess, ARecordIsHiddenFromOtherUsers) {
  RawPeer maker = connected(500);
  const unsigned int alices = add(maker, changeOf("alice"));
  const unsigned int bobs = add(maker, changeOf("bob"));
  const unsigned int most = 64 | 128 | 512;
  EXPECT_EQ(idsIn(ask(maker, by("bob", most, to(kl::CMD_GETALL)))), Ids{bobs});
  EXPECT_EQ(ask(maker, by("bob", most, to(kl::CMD_GETCOUNT))).get(kl::STD_GETALLNO, 0), 1u);
  const kl::message refusal = ask(maker, by("bob", most, to(kl::CMD_GETOBJ, alices)));
  EXPECT_EQ(errorOf(refusal), kl::ERROR_NOTALLOWED);
  EXPECT_FALSE(refusal.has(kl::UNDO_DESCRIPTION));
  EXPECT_EQ(errorOf(ask(maker, by("bob", most, to(kl::CMD_REMOVEOBJ, alices)))), kl::ERROR_NOTALLOWED);
  EXPECT_EQ(all(maker), (Ids{bobs, alices}));  // this asker is root
}

TEST_F(UndoProcess, TheRightToContentsShowsTheRecordsOfOthers) {
  RawPeer maker = connected(500);
  const unsigned int id = add(maker, changeOf("alice"));
  EXPECT_EQ(idsIn(ask(maker, by("bob", 64 | 1024, to(kl::CMD_GETALL)))), Ids{id});
  EXPECT_EQ(ask(maker, by("bob", 64 | 1024, to(kl::CMD_GETOBJ, id))).get(kl::UNDO_DESCRIPTION, ""),
            "password of alice");
}

TEST_F(UndoProcess, AListGoesOnBehindHiddenRecords) {
  RawPeer maker = connected(500);
  const unsigned int oldest = add(maker, changeOf("bob"));
  for (int i = 0; i < 5; ++i) add(maker, changeOf("alice"));
  const unsigned int newest = add(maker, changeOf("bob"));
  kl::message request = by("bob", 64, to(kl::CMD_GETALL));
  request.insert(kl::STD_GETALLNO, 1);
  const kl::message first = ask(maker, request);
  EXPECT_EQ(idsIn(first), Ids{newest});
  EXPECT_EQ(first.get(kl::STD_GETALLID, kl::BADID), oldest);  // no id of a hidden one
  request.insert(kl::STD_GETALLID, oldest);
  EXPECT_EQ(idsIn(ask(maker, request)), Ids{oldest});
}

TEST_F(UndoProcess, WhoFollowsIsNotToldOfTheRecordsOfOthers) {
  RawPeer maker = connected(500);
  RawPeer bob = connected();
  RawPeer clerk = connected();
  ASSERT_TRUE(bob.send(by("bob", 64, subscription())));
  ASSERT_TRUE(clerk.send(by("clerk", 64 | 1024, subscription())));
  for (RawPeer* peer : {&bob, &clerk}) ask(*peer, kl::CMD_NOOP);
  const Ids ids = {add(maker, changeOf("alice")), add(maker, changeOf("bob")), add(maker, changeOf("alice"))};
  ask(maker, kl::CMD_REMOVEOBJ, ids[0]);
  const unsigned int last = add(maker, changeOf("bob"));
  Ids toldBob;
  while (toldBob.empty() || toldBob.back() != last) toldBob.push_back(toldObject(bob).get(kl::STD_ID, last));
  EXPECT_EQ(toldBob, (Ids{ids[1], last}));
  std::set<unsigned int> toldClerk;
  while (!toldClerk.contains(last)) {
    const auto told = clerk.receiveCommand(kl::CMD_NOTIFY);
    ASSERT_TRUE(told);
    for (const unsigned int id : idsIn(*told)) toldClerk.insert(id);
  }
  EXPECT_EQ(toldClerk, (std::set<unsigned int>{ids[0], ids[1], ids[2], last}));
}

TEST_F(UndoProcess, ASubscriptionEndsWithTheSameRequest) {
  RawPeer maker = connected(500);
  RawPeer bob = connected();
  ASSERT_TRUE(bob.send(by("bob", 64, subscription())));
  kl::message end = by("bob", 64, subscription());
  end.insert(kl::SYS_CMD, kl::CMD_UNSUBSCRIBE);
  ASSERT_TRUE(bob.send(end));
  ask(bob, kl::CMD_NOOP);
  RawPeer root = connected();
  ASSERT_TRUE(root.send(subscription()));
  ask(root, kl::CMD_NOOP);
  add(maker, changeOf("bob"));
  EXPECT_TRUE(root.receiveCommand(kl::CMD_NOTIFY));
  EXPECT_TRUE(bob.isQuiet());
}

// --- The report of an undo -------------------------------------------------------------------------

TEST_F(UndoProcess, TheMakersReportMakesTheRecordTheRedo) {
  RawPeer maker = connected(500);
  const unsigned int id = add(maker, report("x", 128));
  EXPECT_FALSE(kl::isError(ask(maker, undoneReport(id, 7, 512))));
  kl::message record = ask(maker, kl::CMD_GETOBJ, id);
  EXPECT_TRUE(record.get(kl::UNDO_UNDONE, false));
  EXPECT_EQ(record.get(kl::UNDO_MESSAGE, {}), flat(setValue(7)));
  EXPECT_EQ(record.get(kl::UNDO_RIGHTS, 0), 512u);
  EXPECT_EQ(record.get(kl::UNDO_DESCRIPTION, ""), "x");
  EXPECT_FALSE(kl::isError(ask(maker, undoneReport(id, 8))));
  record = ask(maker, kl::CMD_GETOBJ, id);
  EXPECT_FALSE(record.get(kl::UNDO_UNDONE, false));
  EXPECT_EQ(record.get(kl::UNDO_MESSAGE, {}), flat(setValue(8)));
}

TEST_F(UndoProcess, AnotherServicesReportIsRefused) {
  RawPeer maker = connected(500);
  RawPeer foreign = connected(501);
  const unsigned int id = add(maker, report("x"));
  const kl::message before = ask(maker, kl::CMD_GETOBJ, id);
  kl::message forged = undoneReport(id, 7);
  forged.insert(kl::SYS_FROM, {500});  // the loader puts 501 in front
  EXPECT_EQ(errorOf(ask(foreign, forged)), kl::ERROR_NOTALLOWED);
  EXPECT_EQ(ask(maker, kl::CMD_GETOBJ, id).get(kl::UNDO_MESSAGE, {}), before.get(kl::UNDO_MESSAGE, {}));
}

TEST_F(UndoProcess, AnotherHandlerOfTheMakerMayReport) {
  RawPeer maker = connected(500);
  kl::message m = report("x");
  m.insert(kl::SYS_FROM, {3});
  const unsigned int id = add(maker, m);
  kl::message turned = undoneReport(id, 7);
  turned.insert(kl::SYS_FROM, {4});
  EXPECT_FALSE(kl::isError(ask(maker, turned)));
}

TEST_F(UndoProcess, AReportThatIsTooBigForItsRecordEndsIt) {
  RawPeer maker = connected(500);
  const unsigned int id = add(maker, report("x"));
  kl::message big = setValue(7);
  big.insert(kl::STD_DESCR, std::string(62000, 'x'));
  kl::message turned = undoneReport(id, 7);
  turned.insert(kl::UNDO_MESSAGE, flat(big));
  EXPECT_EQ(errorOf(ask(maker, turned)), kl::ERROR_TOOBIG);
  EXPECT_EQ(all(maker), Ids());
}

// --- What ends a record ----------------------------------------------------------------------------

TEST_F(UndoProcess, RecordsOfAPickedIdEndWithIt) {
  RawPeer stays = connected(500);
  RawPeer other = connected();
  const unsigned int kept = add(stays, report("a"));
  const unsigned int others = add(other, report("b"));
  {
    RawPeer goes = connected();
    EXPECT_TRUE(goes.meet(500, stays));
    add(goes, report("c"));
    add(goes, report("d"));
    EXPECT_EQ(all(stays).size(), 4u);
  }
  EXPECT_TRUE(stays.receiveCommand(kl::CMD_DISCONNECTED));
  EXPECT_EQ(all(stays), (Ids{others, kept}));
}

TEST_F(UndoProcess, RecordsOfAPickedIdThatEndedMeanwhileAreGoneAfterARestart) {
  RawPeer stays = connected(500);
  RawPeer picked = connected();
  const unsigned int kept = add(stays, report("a"));
  const unsigned int pickeds = add(picked, report("b"));
  {
    RawPeer goes = connected();
    EXPECT_TRUE(goes.meet(500, stays));
    add(goes, report("c"));
    EXPECT_FALSE(kl::isError(askLoader(stays, kl::CMD_SETOBJ, kl::SVC_STOP)));
    EXPECT_TRUE(stays.receiveCommand(kl::CMD_DISCONNECTED));  // kl-undo has ended
  }
  EXPECT_TRUE(stays.receiveCommand(kl::CMD_DISCONNECTED));
  EXPECT_FALSE(kl::isError(askLoader(stays, kl::CMD_SETOBJ, kl::SVC_START)));
  awaitStart(stays, 2);
  EXPECT_EQ(all(stays), (Ids{pickeds, kept}));
}

TEST_F(UndoProcess, RecordsOfAnIdThatIsNotConfiguredEndWithItsProcess) {
  RawPeer asker = connected();
  RawPeer follower = connected();
  ASSERT_TRUE(follower.send(subscription()));
  ask(follower, kl::CMD_NOOP);
  const unsigned int strange = 600;
  unsigned int id = 0;
  {
    RawPeer maker = connected(strange);
    id = add(maker, report("x"));
    EXPECT_EQ(toldObject(follower).get(kl::STD_ID, 0), id);
  }
  EXPECT_TRUE(toldObject(follower).has(kl::STD_DEAD));
  RawPeer successor = connected(strange);
  EXPECT_EQ(errorOf(ask(asker, kl::CMD_START, id)), kl::ERROR_UNKNOWNID);
  EXPECT_TRUE(successor.isQuiet());
}

TEST_F(SmallUndo, TheOldestRecordsMakeRoom) {
  RawPeer maker = connected(500);
  Ids ids;
  for (const char* name : {"a", "b", "c", "d", "e"}) ids.insert(ids.begin(), add(maker, report(name)));
  EXPECT_EQ(all(maker), (Ids{ids[0], ids[1], ids[2]}));
  EXPECT_EQ(errorOf(ask(maker, kl::CMD_START, ids[3])), kl::ERROR_UNKNOWNID);
}

TEST_F(SmallUndo, AUsersReportsPushOutHisOwnRecordsOnly) {
  RawPeer maker = connected(500);
  RawPeer guest = connected();
  const unsigned int alices = add(maker, by("netif", 64, report("a")));
  Ids guests;
  for (const char* name : {"b", "c", "d", "e"})
    guests.insert(guests.begin(), add(guest, by("guest", 64, report(name))));
  EXPECT_EQ(all(maker), (Ids{guests[0], guests[1], alices}));
}

TEST_F(UndoProcess, RecordsSurviveACrash) {
  RawPeer maker = connected(500);
  Ids ids;
  for (const char* name : {"a", "b", "c"}) ids.insert(ids.begin(), add(maker, report(name)));
  EXPECT_FALSE(kl::isError(ask(maker, undoneReport(ids[1], 7))));
  EXPECT_FALSE(kl::isError(ask(maker, kl::CMD_REMOVEOBJ, ids[0])));
  const kl::message before = ask(maker, kl::CMD_GETOBJ, ids[1]);
  const auto pid = static_cast<pid_t>(askLoader(maker, kl::CMD_GETOBJ).get(kl::SVC_PID, 0));
  ASSERT_GT(pid, 1);
  ASSERT_EQ(::kill(pid, SIGKILL), 0);
  awaitStart(maker, 2);
  EXPECT_EQ(all(maker), (Ids{ids[1], ids[2]}));
  kl::message after = ask(maker, kl::CMD_GETOBJ, ids[1]);
  EXPECT_EQ(after.get(kl::UNDO_MESSAGE, {}), before.get(kl::UNDO_MESSAGE, {}));
  EXPECT_TRUE(after.get(kl::UNDO_UNDONE, false));
  EXPECT_GT(add(maker, report("d")), ids[0]);  // the id of the removed one is not given again
}

// --- Subscribers -----------------------------------------------------------------------------------

TEST_F(UndoProcess, WhoFollowsIsToldOfEachChange) {
  RawPeer maker = connected(500);
  RawPeer follower = connected();
  ASSERT_TRUE(follower.send(subscription()));
  ask(follower, kl::CMD_NOOP);
  const unsigned int id = add(maker, report("x"));
  kl::message told = toldObject(follower);
  EXPECT_EQ(told.get(kl::STD_ID, 0), id);
  EXPECT_EQ(told.get(kl::UNDO_DESCRIPTION, ""), "x");
  ask(maker, undoneReport(id, 7));
  EXPECT_TRUE(toldObject(follower).get(kl::UNDO_UNDONE, false));
  ask(maker, kl::CMD_REMOVEOBJ, id);
  told = toldObject(follower);
  EXPECT_EQ(told.get(kl::STD_ID, 0), id);
  EXPECT_TRUE(told.has(kl::STD_DEAD));
}

TEST_F(UndoProcess, WhoCausedTheChangeIsNotTold) {
  RawPeer maker = connected(500);
  RawPeer follower = connected();
  for (RawPeer* peer : {&maker, &follower}) {
    ASSERT_TRUE(peer->send(subscription()));
    ask(*peer, kl::CMD_NOOP);
  }
  add(maker, report("x"));
  toldObject(follower);
  EXPECT_TRUE(maker.isQuiet());
}

TEST_F(SmallUndo, WhoFollowsIsToldThatTheOldestIsGone) {
  RawPeer maker = connected(500);
  RawPeer follower = connected();
  Ids ids;
  for (const char* name : {"a", "b", "c"}) ids.push_back(add(maker, report(name)));
  ASSERT_TRUE(follower.send(subscription()));
  ask(follower, kl::CMD_NOOP);
  ids.push_back(add(maker, report("d")));
  const auto told = follower.receiveCommand(kl::CMD_NOTIFY);
  ASSERT_TRUE(told);
  EXPECT_EQ(idsIn(*told), (Ids{ids[0], ids[3]}));
  EXPECT_TRUE(kl::message(told->get(kl::STD_OBJS, {}).front()).has(kl::STD_DEAD));
}

TEST_F(UndoProcess, WhoFollowsIsToldOfRecordsThatEndWithTheirMaker) {
  RawPeer follower = connected();
  unsigned int id = 0;
  {
    RawPeer maker = connected();
    id = add(maker, report("x"));
    ASSERT_TRUE(follower.send(subscription()));
    ask(follower, kl::CMD_NOOP);
  }
  const kl::message told = toldObject(follower);
  EXPECT_EQ(told.get(kl::STD_ID, 0), id);
  EXPECT_TRUE(told.has(kl::STD_DEAD));
}

}  // namespace undo

#include "services/undo/reports.h"

#include <gtest/gtest.h>

#include "kl/rights.h"

#include "tests/services/undo/fixture.h"

namespace undo {
namespace {

kl::message reported() {
  kl::message m = report("the lamp", 128);
  m.insert(kl::SYS_FROM, {500, 3});
  m.insert(kl::SYS_POLICY, 192);
  m.insert(kl::SYS_USER, "netif");
  return m;
}

kl::message record() {
  kl::message m = recordFrom(reported(), 1000);
  m.insert(kl::STD_ID, 9);
  return m;
}

}  // namespace

TEST(UndoReports, ARecordHasTheReportTheTimeAndTheMaker) {
  const kl::message m = recordFrom(reported(), 5000000000);
  EXPECT_EQ(m.get(kl::UNDO_REQUEST, {}), flat(setValue(2)));
  EXPECT_EQ(m.get(kl::UNDO_MESSAGE, {}), flat(setValue(1)));
  EXPECT_EQ(m.get(kl::UNDO_DESCRIPTION, ""), "the lamp");
  EXPECT_EQ(m.get(kl::UNDO_USER, ""), "alice");
  EXPECT_EQ(m.get(kl::UNDO_REPORTER, ""), "netif");
  EXPECT_EQ(m.get(kl::UNDO_RIGHTS, 0), 128u);
  EXPECT_EQ(m.get(kl::UNDO_TIME, 0), 5000000000u);
  EXPECT_EQ(m.get(kl::UNDO_SOURCE, {}), (Ids{500, 3}));
  EXPECT_FALSE(m.has(kl::UNDO_UNDONE));
  EXPECT_FALSE(m.has(kl::SYS_POLICY));
  EXPECT_FALSE(m.has(kl::SYS_USER));
}

TEST(UndoReports, TheReporterIsWhoTheLoaderSays) {
  kl::message forged = reported();
  forged.insert(kl::UNDO_REPORTER, "root");
  EXPECT_EQ(recordFrom(forged, 0).get(kl::UNDO_REPORTER, ""), "netif");
  forged.remove(kl::SYS_USER);
  EXPECT_FALSE(recordFrom(forged, 0).has(kl::UNDO_REPORTER));
}

TEST(UndoReports, WithoutRightsOnlyWhoMayDoEverythingMayUndo) {
  kl::message bare = reported();
  bare.remove(kl::UNDO_RIGHTS);
  const kl::message m = recordFrom(bare, 0);
  kl::message asker;
  EXPECT_TRUE(mayUndo(m, asker));
  asker.insert(kl::SYS_POLICY, 0x7fffffff);
  EXPECT_FALSE(mayUndo(m, asker));
}

TEST(UndoReports, EveryRecordedRightIsNeeded) {
  kl::message asker;
  const kl::message m = recordFrom(report("x", 128 | 512), 0);
  for (const unsigned int rights : {0u, 64u, 128u, 512u, 64u | 512u}) {
    asker.insert(kl::SYS_POLICY, rights);
    EXPECT_FALSE(mayUndo(m, asker)) << rights;
  }
  asker.insert(kl::SYS_POLICY, 128 | 512);
  EXPECT_TRUE(mayUndo(m, asker));
}

// The library reports that of every command that the table of its handler does not name.
TEST(UndoReports, ARecordThatNeededNoRightNeedsTheRightToChange) {
  kl::message asker;
  asker.insert(kl::SYS_POLICY, 64);
  EXPECT_FALSE(mayUndo(recordFrom(report("x", 0), 0), asker));
  asker.insert(kl::SYS_POLICY, 128);
  EXPECT_TRUE(mayUndo(recordFrom(report("x", 0), 0), asker));
}

TEST(UndoReports, TheLoaderIsAskedAboutTheAskerAtTheMaker) {
  kl::message request;
  request.insert(kl::SYS_FROM, {0x10007, 3});
  request.insert(kl::SYS_USER, "bob");
  request.insert(kl::SYS_POLICY, 64);
  const kl::message m = rightsQuestion(record(), request);
  EXPECT_EQ(m.get(kl::SYS_TO, {}), Ids{kl::SERVICE_LOADER});
  EXPECT_EQ(m.get(kl::SYS_CMD, 0), kl::CMD_EXPLAIN_RIGHTS);
  EXPECT_EQ(m.get(kl::RIGHTS_USER, ""), "bob");
  EXPECT_EQ(m.get(kl::RIGHTS_SENDER, 0), 0x10007u);
  EXPECT_EQ(m.get(kl::RIGHTS_BITS, 0), 64u);
  EXPECT_EQ(m.get(kl::RIGHTS_TO, {}), (Ids{500, 3}));
  EXPECT_EQ(m.get(kl::RIGHTS_COMMAND, 0), kl::CMD_SET);
  EXPECT_FALSE(m.has(kl::SYS_USER));
  EXPECT_FALSE(m.has(kl::SYS_POLICY));
}

TEST(UndoReports, TheAskerHasTheRightsOfTheLoadersAnswer) {
  kl::message request;
  request.insert(kl::SYS_USER, "bob");
  request.insert(kl::SYS_POLICY, 0xffffffff);
  kl::message answer;
  EXPECT_FALSE(isLetThrough(answer));
  answer.insert(kl::RIGHTS_VERDICT, kl::RIGHTS_OPEN);
  answer.insert(kl::RIGHTS_BITS, 64);
  EXPECT_TRUE(isLetThrough(answer));
  EXPECT_EQ(askerFrom(request, answer).get(kl::SYS_USER, ""), "bob");
  EXPECT_EQ(askerFrom(request, answer).get(kl::SYS_POLICY, 0), 64u);
  answer.remove(kl::RIGHTS_BITS);
  EXPECT_FALSE(askerFrom(request, answer).has(kl::SYS_POLICY));
  answer.insert(kl::RIGHTS_VERDICT, kl::RIGHTS_DENIED);
  EXPECT_FALSE(isLetThrough(answer));
}

TEST(UndoReports, TheUndoMessageGoesToTheMakerInTheAskersName) {
  kl::message asker;
  asker.insert(kl::SYS_USER, "bob");
  asker.insert(kl::SYS_POLICY, 192);
  const kl::message m = undoMessage(record(), asker);
  kl::message expected = setValue(1);
  expected.insert(kl::SYS_TO, {500, 3});
  expected.insert(kl::STD_UNDOID, 9);
  expected.insert(kl::SYS_USER, "bob");
  expected.insert(kl::SYS_POLICY, 192);
  EXPECT_EQ(m, expected);
}

TEST(UndoReports, WhatTheAskerDoesNotSayTheUndoMessageDoesNotSay) {
  kl::message forged = setValue(1);
  forged.insert(kl::SYS_TO, {1});
  forged.insert(kl::SYS_FROM, {77});
  forged.insert(kl::SYS_USER, "root");
  forged.insert(kl::SYS_POLICY, 0xffffffff);
  forged.insert(kl::SYS_CTRL, kl::CTRL_LEFT);
  forged.insert(kl::SYS_REQID, 4);
  forged.insert(kl::STD_UNDOID, 5);
  kl::setType(forged, kl::TYPE_REPLY);
  kl::message r = record();
  r.insert(kl::UNDO_MESSAGE, flat(forged));
  kl::message expected = setValue(1);
  expected.insert(kl::SYS_TO, {500, 3});
  expected.insert(kl::STD_UNDOID, 9);
  EXPECT_EQ(undoMessage(r, {}), expected);
}

TEST(UndoReports, SystemFieldsOfAnotherTypeDoNotTravelEither) {
  kl::message odd = setValue(1);
  for (const unsigned int number : {1u, 2u, 7u, 10u, 63u, 64u, 0xffffu}) {
    odd.insert_u64(0x10ff0000 | number, 1);
    odd.insert_string(0x20ff0000 | number, "odd");
  }
  kl::message r = record();
  r.insert(kl::UNDO_MESSAGE, flat(odd));
  EXPECT_EQ(undoMessage(r, {}), undoMessage(record(), {}));
}

TEST(UndoReports, AReportOfAnUndoTurnsTheRecordRound) {
  const kl::message undone = turnedRound(record(), undoneReport(9, 7, 512));
  EXPECT_TRUE(undone.get(kl::UNDO_UNDONE, false));
  EXPECT_EQ(undone.get(kl::UNDO_MESSAGE, {}), flat(setValue(7)));
  EXPECT_EQ(undone.get(kl::UNDO_RIGHTS, 0), 512u);
  EXPECT_EQ(undone.get(kl::UNDO_DESCRIPTION, ""), "the lamp");
  EXPECT_EQ(undone.get(kl::UNDO_SOURCE, {}), (Ids{500, 3}));
  const kl::message done = turnedRound(undone, undoneReport(9, 8));
  EXPECT_FALSE(done.get(kl::UNDO_UNDONE, true));
  EXPECT_EQ(done.get(kl::UNDO_MESSAGE, {}), flat(setValue(8)));
}

TEST(UndoReports, AReportWithoutAWholeUndoMessageIsAtFault) {
  kl::message m = reported();
  EXPECT_FALSE(kl::isError(faultOf(m)));
  auto bytes = m.get(kl::UNDO_MESSAGE, {});
  bytes.pop_back();
  m.insert(kl::UNDO_MESSAGE, bytes);
  EXPECT_EQ(errorOf(faultOf(m)), kl::ERROR_FAILED);
  m.remove(kl::UNDO_MESSAGE);
  EXPECT_EQ(errorOf(faultOf(m)), kl::ERROR_MISSING);
}

}  // namespace undo

// The lines about events; the program as a whole is watched in main_test.cpp.

#include "tools/klctl/verbs/watch.h"

#include <gtest/gtest.h>

#include "kl/conventions.h"
#include "tests/tools/klctl/expect_failure.h"
#include "tests/tools/klctl/hostile_text.h"

namespace klctl {
namespace {

kl::message object(unsigned int id, const std::string& description) {
  kl::message m;
  m.insert(kl::STD_ID, id);
  m.insert(kl::STD_DESCR, description);
  return m;
}

class Watch : public testing::Test {
 protected:
  WatchReport::Text take(EventKind kind, const kl::message& content = {}) {
    return report_.take(eventOf(toMessage(kind, content)));
  }
  std::string changed(unsigned int id, const std::string& description) {
    return take(EventKind::kObject, object(id, description)).results;
  }
  std::string removed(unsigned int id) { return take(EventKind::kRemoved, object(id, "")).results; }
  std::string lost(const kl::message& reason) { return take(EventKind::kLost, reason).remark; }

  CommandLine line_;
  PreparedRequest prepared_{"netif", FieldNames(), {}};
  WatchReport report_{line_, prepared_};
  const kl::message brokenPath_ = kl::errorMsg(kl::ERROR_BRKPATH, "");
};

}  // namespace

TEST_F(Watch, TheTableComesOnceItIsCompleteAndThenEveryChange) {
  EXPECT_EQ(changed(1, "old"), "");
  EXPECT_EQ(changed(2, "b"), "");
  EXPECT_EQ(changed(1, "a"), "");
  EXPECT_EQ(removed(2), "");
  EXPECT_EQ(changed(3, "c"), "");
  const auto table = take(EventKind::kComplete);
  EXPECT_EQ(table.results, "id descr\n 1 a\n 3 c\n");
  EXPECT_EQ(table.remark, "");
  EXPECT_EQ(changed(3, "c"), "\nnetif:3\nid    3\ndescr c\n") << "a notification is told as it comes";
  EXPECT_EQ(removed(3), "\nnetif:3 is gone\n");
}

TEST_F(Watch, AsJsonEachObjectIsALineAtOnce) {
  line_.json = true;
  EXPECT_EQ(changed(1, "a"), "{\"id\":1,\"descr\":\"a\"}\n");
  EXPECT_EQ(take(EventKind::kComplete).results, "");
  EXPECT_EQ(removed(1), "{\"id\":1,\"dead\":1}\n");
}

TEST_F(Watch, AsDumpEachObjectIsDumped) {
  line_.dump = true;
  EXPECT_NE(changed(1, "a").find("STD_DESCR"), std::string::npos);
}

TEST_F(Watch, AfterTheServiceWasGoneOnlyTheDifferenceIsTold) {
  (void)changed(1, "a");
  (void)changed(2, "b");
  (void)take(EventKind::kComplete);
  EXPECT_EQ(lost({}), "netif is gone: it has ended; waiting for it");
  EXPECT_EQ(changed(1, "a"), "");
  EXPECT_EQ(changed(2, "c"), "\nnetif:2\nid    2\ndescr c\n");
  EXPECT_EQ(take(EventKind::kComplete).remark, "netif is back");
  EXPECT_EQ(changed(1, "a"), "\nnetif:1\nid    1\ndescr a\n");
}

TEST_F(Watch, AServiceThatIsNotThereYetIsWaitedFor) {
  EXPECT_EQ(lost(brokenPath_), "netif is not there: " + kl::getError(brokenPath_) + "; waiting for it");
  (void)changed(1, "a");
  const auto table = take(EventKind::kComplete);
  EXPECT_EQ(table.results, "id descr\n 1 a\n");
  EXPECT_EQ(table.remark, "netif is back");
}

TEST_F(Watch, AnEmptyTableIsRemarkedOnATerminal) {
  EXPECT_EQ(take(EventKind::kComplete).remark, "");
  WatchReport onTerminal(line_, prepared_, true);
  const Event complete = eventOf(toMessage(EventKind::kComplete, {}));
  EXPECT_EQ(onTerminal.take(complete).remark, "netif: no objects yet");
  EXPECT_EQ(onTerminal.take(complete).remark, "");
}

TEST_F(Watch, NeitherAnObjectNorAPathCanSteerTheTerminal) {
  prepared_.path = kHostile;
  (void)take(EventKind::kComplete);
  EXPECT_EQ(changed(1, kHostile), "\n" + kHarmless + ":1\nid    1\ndescr " + kHarmless + "\n");
  EXPECT_EQ(removed(1), "\n" + kHarmless + ":1 is gone\n");
}

TEST_F(Watch, AServiceThatRefusesFromTheStartEndsIt) {
  const Told told = failureOf([this] { (void)lost(kl::errorMsg(kl::ERROR_NOTIMP, "")); });
  EXPECT_EQ(told.status, 1);
  EXPECT_EQ(told.sentence, "netif: std failure: not implemented (3)");
}

}  // namespace klctl

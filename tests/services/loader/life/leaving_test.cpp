// Leaving and coming again: a real loader, services that it starts, and peers that watch.

#include "services/loader/life/leaving.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <optional>

#include "kl/store.h"
#include "kl/utilities.h"
#include "tests/services/loader/leaver_program.h"
#include "tests/support/doubles/loader_process.h"
#include "tests/support/doubles/raw_peer.h"

namespace {

using namespace kl::test::leaver;
using kl::test::LoaderProcess;
using kl::test::notification;
using kl::test::RawPeer;
using kl::test::replyTo;
using kl::test::request;
using Clock = std::chrono::steady_clock;
using Ids = std::vector<unsigned int>;

constexpr char kOne[] =
    "[[service]]\nname = \"leaver\"\nid = 32\ncommand = [\"" KL_BIN_DIR "/kl-test-leaver\"]\n";
constexpr char kOther[] =
    "[[service]]\nname = \"other\"\nid = 33\ncommand = [\"" KL_BIN_DIR "/kl-test-leaver\"]\n";

class Leaving : public testing::Test {
 protected:
  Leaving() {
    std::filesystem::remove_all(kl::underRoot("/kelo/loader"));
    std::filesystem::remove(goFile());
  }

  void begin(const std::string& configuration = kOne) {
    loader_.emplace(configuration);
    a_ = RawPeer::registered(500);
    watcher_ = RawPeer::registered(501);
  }
  // Another loader in place of the first, which ends in order or is killed.
  void beginAgain(int signal, const std::string& configuration = kOne) {
    loader_->signal(signal);
    (void)loader_->waitForEnd();
    loader_.reset();
    begin(configuration);
  }

  // One of whose end the watcher hears.
  RawPeer peer(unsigned int id) {
    RawPeer p = RawPeer::registered(id);
    EXPECT_TRUE(p.meet(501, watcher_));
    return p;
  }

  std::optional<kl::message> ask(kl::message m) {
    const unsigned int id = nextId_++;
    m.insert(kl::SYS_REQID, id);
    if (!a_.send(m)) return {};
    return a_.receiveReply(id);
  }
  std::optional<kl::message> ask(const Ids& to, unsigned int command) {
    return ask(request(to, command, 0, {7}));
  }

  static unsigned int errorOf(const std::optional<kl::message>& m) {
    unsigned int code = kl::ERROR_OK;
    if (!m) return kl::ERROR_UNKNOWN;
    (void)kl::isError(*m, &code);
    return code;
  }

  kl::message row(unsigned int id = 32) {
    kl::message m = request({1}, kl::CMD_GETOBJ, 0, {7});
    m.insert(kl::STD_ID, id);
    return ask(m).value_or(kl::message());
  }
  unsigned int state(unsigned int id = 32) { return row(id).get(kl::SVC_STATE, 0); }

  bool reaches(unsigned int wanted, unsigned int id = 32) {
    const auto end = Clock::now() + std::chrono::seconds(10);
    while (state(id) != wanted) {
      if (Clock::now() >= end) return false;
      ::usleep(2000);
    }
    return true;
  }
  // It has said that it may leave: it says so before it answers anything.
  bool isUp(unsigned int id = 32) {
    return reaches(kl::SVC_STATE_RUNNING, id) && errorOf(ask({id}, kl::CMD_NOOP)) == kl::ERROR_OK;
  }

  kl::message order(unsigned int action, unsigned int id = 32) {
    kl::message m = request({1}, kl::CMD_SETOBJ, 0, {7});
    m.insert(kl::STD_ID, id);
    m.insert(kl::SVC_ACTION, action);
    return m;
  }
  unsigned int act(unsigned int action, unsigned int id = 32) { return errorOf(ask(order(action, id))); }
  unsigned int leave(unsigned int id = 32) { return act(kl::SVC_LEAVE, id); }

  kl::message setting(unsigned int id = 32) { return request({id}, kl::CMD_SET, 0, {7}); }
  bool setReaction(Reaction reaction, Reaction afterwards = kSaveAndEnd, unsigned int id = 32) {
    kl::message m = setting(id);
    m.insert(kReaction, reaction);
    m.insert(kAfterwards, afterwards);
    return errorOf(ask(m)) == kl::ERROR_OK;
  }

  bool setWakeTime(unsigned int second, unsigned int id = 32) {
    kl::message m = setting(id);
    m.insert(kWakeAt, second);
    if (errorOf(ask(m)) != kl::ERROR_OK) return false;
    return errorOf(ask(setting(id))) ==
           kl::ERROR_OK;  // the second answer comes behind what it then has told the loader
  }
  // Nothing starts it in some passes of the loader.
  bool staysAway(unsigned int id = 32) {
    for (int i = 0; i < 10; ++i)
      if (state(id) != kl::SVC_STATE_LEFT) return false;
    return true;
  }

  // The number of the start that saved the data which the service was last started with; 0 without data.
  unsigned int dataFrom(unsigned int id = 32) {
    const auto answer = ask({id}, kl::CMD_GET);
    if (!answer || !answer->has(kl::READY_DATA)) return 0;
    return kl::message(answer->get(kl::READY_DATA, {})).get(kStart, 0);
  }

  // The messages that the service has got since it started: the ids of services that ended, negative, and request ids.
  std::vector<int> story(unsigned int id = 32) {
    std::vector<int> result;
    const auto answer = ask({id}, kl::CMD_GETALL);
    if (!answer) return result;
    for (const auto& bytes : answer->get(kl::STD_OBJS, {})) {
      const kl::message m(bytes);
      const bool isEnd = m.get(kl::SYS_CMD, 0) == kl::CMD_DISCONNECTED;
      result.push_back(isEnd ? -static_cast<int>(m.get(kl::SYS_FROM, {0}).at(0))
                             : static_cast<int>(m.get(kl::SYS_REQID, 0)));
    }
    return result;
  }

  // The news of its subscriptions come to it when they come to others, or a little later.
  bool getsNotification() {
    const auto end = Clock::now() + std::chrono::seconds(10);
    for (;;) {
      const std::vector<int> all = story();
      if (std::find(all.begin(), all.end(), 0) != all.end()) return true;
      if (Clock::now() >= end) return false;
      ::usleep(2000);
    }
  }

  static void go() { std::ofstream file(goFile()); }

  // The watcher has heard of no end; it hears what is sent to it behind.
  bool heardOfNoEnd() {
    kl::message last = notification({501});
    last.insert(kl::SYS_CMD, kl::CMD_START);
    EXPECT_TRUE(a_.send(last));
    while (const auto m = watcher_.receive()) {
      if (m->get(kl::SYS_CMD, 0) == kl::CMD_START) return true;
      if (m->get(kl::SYS_CMD, 0) == kl::CMD_DISCONNECTED) return false;
    }
    return false;
  }
  bool heardOfEndOf(unsigned int id) {
    const auto told = watcher_.receiveCommand(kl::CMD_DISCONNECTED);
    return told && told->get(kl::SYS_FROM, {}) == Ids{id};
  }

  std::optional<LoaderProcess> loader_;
  RawPeer a_;
  RawPeer watcher_;
  unsigned int nextId_ = 1000;
};

TEST_F(Leaving, AServiceThatIsAskedLeavesAndTheNextRequestStartsItWithItsData) {
  begin();
  ASSERT_TRUE(isUp());
  EXPECT_EQ(dataFrom(), 0u);
  EXPECT_EQ(leave(), kl::ERROR_OK);
  EXPECT_EQ(state(), kl::SVC_STATE_LEFT);
  EXPECT_FALSE(row().has(kl::SVC_PID));
  EXPECT_TRUE(loader_->logs(": left"));
  EXPECT_EQ(dataFrom(), 1u);
  EXPECT_EQ(row().get(kl::SVC_STARTS, 0), 2u);
  EXPECT_TRUE(heardOfNoEnd());
}

// Names a time and leaves; it says so in order, so the time is there first.
TEST_F(Leaving, WhoNamesATimeIsStartedThenAndOnlyOnce) {
  begin();
  ASSERT_TRUE(isUp());
  ASSERT_TRUE(setWakeTime(1));
  ASSERT_EQ(leave(), kl::ERROR_OK);
  EXPECT_TRUE(loader_->logs("its time has come"));
  EXPECT_TRUE(isUp());
  EXPECT_EQ(dataFrom(), 1u);
  EXPECT_EQ(row().get(kl::SVC_STARTS, 0), 2u);
  EXPECT_EQ(leave(), kl::ERROR_OK);
  EXPECT_TRUE(staysAway()) << "the next life named none";
  EXPECT_EQ(row().get(kl::SVC_STARTS, 0), 2u);
  EXPECT_TRUE(heardOfNoEnd());
}

TEST_F(Leaving, OfSeveralTimesTheLastOneCountsAndZeroIsNone) {
  begin(std::string(kOne) + kOther);
  ASSERT_TRUE(isUp());
  ASSERT_TRUE(isUp(33));
  ASSERT_TRUE(setWakeTime(1) && setWakeTime(0));
  ASSERT_TRUE(setWakeTime(1, 33) && setWakeTime(4000000000, 33));
  ASSERT_EQ(leave(), kl::ERROR_OK);
  ASSERT_EQ(leave(33), kl::ERROR_OK);
  EXPECT_TRUE(staysAway());
  EXPECT_TRUE(staysAway(33));
  EXPECT_EQ(act(kl::SVC_STOP, 33), kl::ERROR_OK);
  EXPECT_EQ(state(33), kl::SVC_STATE_STOPPED);
}

// The next loader finds the time in its store, where this test lets it come early.
TEST_F(Leaving, ATimeOutlivesTheLoader) {
  const std::string configuration = std::string(kOne) + "start = false\n";
  begin(configuration);
  ASSERT_EQ(act(kl::SVC_START), kl::ERROR_OK);
  ASSERT_TRUE(isUp());
  ASSERT_TRUE(setWakeTime(4000000000));
  EXPECT_EQ(row().get(kl::SVC_WAKE_AT, 0), 4000000000u);
  ASSERT_EQ(leave(), kl::ERROR_OK);
  beginAgain(SIGKILL, configuration);
  EXPECT_TRUE(staysAway());
  EXPECT_EQ(row().get(kl::SVC_WAKE_AT, 0), 4000000000u);
  loader_->signal(SIGTERM);
  ASSERT_EQ(loader_->waitForEnd(), 0);
  {
    kl::Store store(kl::underRoot("/kelo/loader/leave"), 1);
    kl::message record = store.get(32);
    ASSERT_EQ(record.get_u32(0x08000005, 0), 4000000000);
    record.insert_u32(0x08000005, 1);
    store.set(32, record);
  }
  loader_.reset();
  begin(configuration);
  EXPECT_TRUE(isUp());
  EXPECT_EQ(dataFrom(), 1u);
  EXPECT_TRUE(loader_->logs("its time has come"));
}

TEST_F(Leaving, ANotificationStartsItToo) {
  begin();
  ASSERT_TRUE(isUp());
  ASSERT_EQ(leave(), kl::ERROR_OK);
  ASSERT_TRUE(a_.send(notification({32, 4}, {7})));
  EXPECT_TRUE(reaches(kl::SVC_STATE_RUNNING));
  EXPECT_EQ(story().size(), 1u);
}

TEST_F(Leaving, NeitherAReplyNorWhatIsSentToAllNorAnEndStartsIt) {
  begin();
  ASSERT_TRUE(isUp());
  ASSERT_EQ(leave(), kl::ERROR_OK);
  ASSERT_TRUE(a_.send(replyTo(request({500}, kl::CMD_GET, 1, {32}))));
  kl::message toAll = notification({kl::PATH_ALL});  // by which a_ and the watcher know each other, too
  toAll.insert(kl::SYS_CMD, kl::CMD_RESET);
  ASSERT_TRUE(a_.send(toAll));
  kl::message ended = notification({32});
  ended.insert(kl::SYS_CMD, kl::CMD_DISCONNECTED);
  ASSERT_TRUE(a_.send(ended));
  ASSERT_TRUE(watcher_.receiveCommand(kl::CMD_RESET));
  watcher_.close();
  ASSERT_TRUE(a_.receiveCommand(kl::CMD_DISCONNECTED));
  EXPECT_EQ(state(), kl::SVC_STATE_LEFT);
  EXPECT_EQ(row().get(kl::SVC_STARTS, 0), 1u);
}

TEST_F(Leaving, WhoRefusesStaysAsItWas) {
  begin();
  ASSERT_TRUE(isUp());
  ASSERT_TRUE(setReaction(kRefuse));
  const unsigned int pid = row().get(kl::SVC_PID, 0);
  EXPECT_EQ(leave(), kl::ERROR_BUSY);
  EXPECT_EQ(state(), kl::SVC_STATE_RUNNING);
  EXPECT_EQ(row().get(kl::SVC_PID, 0), pid);
  EXPECT_TRUE(loader_->logs("refuses to leave"));
  ASSERT_TRUE(setReaction(kSaveAndEnd));
  EXPECT_EQ(leave(), kl::ERROR_OK);  // another time it may
}

TEST_F(Leaving, WhoMayNotOrIsNotThereIsNotAsked) {
  begin(std::string(kOne) + kOther + "start = false\n");
  ASSERT_TRUE(isUp());
  kl::message m = setting();
  m.insert(kValue, 0);
  ASSERT_EQ(errorOf(ask(m)), kl::ERROR_OK);
  ASSERT_EQ(errorOf(ask({32}, kl::CMD_NOOP)), kl::ERROR_OK);  // the value has arrived before this
  EXPECT_EQ(leave(), kl::ERROR_FAILED);
  EXPECT_EQ(leave(33), kl::ERROR_FAILED);   // it was never started
  EXPECT_EQ(leave(500), kl::ERROR_FAILED);  // the loader could not start it again
  EXPECT_EQ(leave(4711), kl::ERROR_UNKNOWNID);
  EXPECT_EQ(state(), kl::SVC_STATE_RUNNING);
}

TEST_F(Leaving, WhoHasLeftAlreadyNeedNotBeAsked) {
  begin();
  ASSERT_TRUE(isUp());
  ASSERT_EQ(leave(), kl::ERROR_OK);
  EXPECT_EQ(leave(), kl::ERROR_OK);
  EXPECT_EQ(row().get(kl::SVC_STARTS, 0), 1u);
}

TEST_F(Leaving, WhileItIsAskedEverythingForItIsHeldAndComesInOrderAfterItsRefusal) {
  begin();
  ASSERT_TRUE(isUp());
  ASSERT_TRUE(setReaction(kWait, kRefuse));
  RawPeer shortLived = peer(600);
  ASSERT_TRUE(shortLived.send(request({32}, kl::CMD_NOOP, 9)));  // so that it can be known
  ASSERT_TRUE(shortLived.receiveReply(9));
  const std::size_t before = story().size();
  ASSERT_TRUE(a_.send(order(kl::SVC_LEAVE)));
  ASSERT_TRUE(reaches(kl::SVC_STATE_LEAVING));
  ASSERT_TRUE(a_.send(request({32}, kl::CMD_NOOP, 1, {7})));
  ASSERT_GT(row().get(kl::SVC_QUEUE, 0), 0u);  // it has come through
  shortLived.close();
  ASSERT_TRUE(heardOfEndOf(600));
  ASSERT_TRUE(a_.send(request({32}, kl::CMD_NOOP, 2, {7})));
  go();
  ASSERT_TRUE(a_.receiveReply(1));
  ASSERT_TRUE(a_.receiveReply(2));
  const std::vector<int> all = story();
  const std::vector<int> since(all.end() - 3, all.end());
  EXPECT_EQ(since, (std::vector<int>{1, -600, 2}));
  EXPECT_EQ(all.size(), before + 1 + 3);
  EXPECT_EQ(row().get(kl::SVC_STARTS, 0), 1u);
}

TEST_F(Leaving, WhatIsHeldWhileItIsAskedStartsItAgainAndIsAnsweredByTheNext) {
  begin();
  ASSERT_TRUE(isUp());
  ASSERT_TRUE(setReaction(kWait, kSaveAndEnd));
  kl::message leaveOrder = order(kl::SVC_LEAVE);
  leaveOrder.insert(kl::SYS_REQID, 3);
  ASSERT_TRUE(a_.send(leaveOrder));
  ASSERT_TRUE(reaches(kl::SVC_STATE_LEAVING));
  for (unsigned int id = 10; id < 20; ++id) ASSERT_TRUE(a_.send(request({32}, kl::CMD_NOOP, id, {7})));
  ASSERT_EQ(state(), kl::SVC_STATE_LEAVING);  // they have come through
  RawPeer late = peer(600);                   // the saved data cannot know of it
  late.close();
  ASSERT_TRUE(heardOfEndOf(600));
  ASSERT_TRUE(a_.send(request({32}, kl::CMD_NOOP, 20, {7})));
  go();
  EXPECT_EQ(errorOf(a_.receiveReply(3)), kl::ERROR_OK);
  for (unsigned int id = 10; id <= 20; ++id) EXPECT_EQ(errorOf(a_.receiveReply(id)), kl::ERROR_OK) << id;
  EXPECT_EQ(story(), (std::vector<int>{10, 11, 12, 13, 14, 15, 16, 17, 18, 19, 20}));
  EXPECT_EQ(row().get(kl::SVC_STARTS, 0), 2u);
  EXPECT_TRUE(heardOfNoEnd());
}

TEST_F(Leaving, TheNextHearsOfTheEndOfWhomItKnowsOnlyByWhatWasHeld) {
  begin();
  ASSERT_TRUE(isUp());
  ASSERT_TRUE(setReaction(kWait, kSaveAndEnd));
  ASSERT_TRUE(a_.send(order(kl::SVC_LEAVE)));
  ASSERT_TRUE(reaches(kl::SVC_STATE_LEAVING));
  RawPeer late = peer(600);
  kl::message subscribe = notification({32}, {7});
  subscribe.insert(kl::SYS_CMD, kl::CMD_SUBSCRIBE);
  ASSERT_TRUE(late.send(subscribe));
  late.close();
  ASSERT_TRUE(heardOfEndOf(600));
  ASSERT_TRUE(a_.send(request({32}, kl::CMD_NOOP, 20, {7})));
  go();
  ASSERT_EQ(errorOf(a_.receiveReply(20)), kl::ERROR_OK);
  EXPECT_EQ(story(), (std::vector<int>{0, -600, 20}));
}

TEST_F(Leaving, ARequestThatItHadAndDidNotAnswerIsBroken) {
  begin();
  ASSERT_TRUE(isUp());
  ASSERT_TRUE(a_.send(request({32, 4}, kl::CMD_POLL, 5, {7})));
  ASSERT_TRUE(a_.send(order(kl::SVC_LEAVE)));
  EXPECT_EQ(errorOf(a_.receiveReply(5)), kl::ERROR_BRKPATH);
  EXPECT_EQ(state(), kl::SVC_STATE_LEFT);
}

TEST_F(Leaving, ItIsFirstToldWhoHasEndedSinceAndOnlyOfThoseWhomItCanKnow) {
  begin();
  RawPeer b = peer(600);
  RawPeer c = peer(601);
  RawPeer stays = peer(602);
  ASSERT_TRUE(isUp());
  ASSERT_EQ(leave(), kl::ERROR_OK);
  c.close();
  ASSERT_TRUE(heardOfEndOf(601));
  b.close();
  ASSERT_TRUE(heardOfEndOf(600));
  RawPeer again = peer(601);  // a stranger with the id of one that it knew
  RawPeer late = peer(603);
  late.close();
  ASSERT_TRUE(heardOfEndOf(603));
  ASSERT_EQ(errorOf(ask(request({32}, kl::CMD_NOOP, 0, {7}))), kl::ERROR_OK);
  const std::vector<int> all = story();
  ASSERT_EQ(all.size(), 3u);
  EXPECT_EQ(all[0], -600);
  EXPECT_EQ(all[1], -601);
  EXPECT_GT(all[2], 0);
}

TEST_F(Leaving, ALeaveWithoutDataClearsWhatWasKept) {
  begin();
  ASSERT_TRUE(isUp());
  ASSERT_EQ(leave(), kl::ERROR_OK);
  EXPECT_EQ(dataFrom(), 1u);
  ASSERT_TRUE(setReaction(kEndWithoutData));
  EXPECT_EQ(leave(), kl::ERROR_OK);
  EXPECT_EQ(dataFrom(), 0u);
  EXPECT_EQ(row().get(kl::SVC_STARTS, 0), 3u);
  EXPECT_TRUE(heardOfNoEnd());
}

TEST_F(Leaving, WhoCrashesGetsTheDataOfItsLastLeaveAndNoOther) {
  begin();
  ASSERT_TRUE(isUp());
  ASSERT_EQ(leave(), kl::ERROR_OK);
  ASSERT_EQ(dataFrom(), 1u);
  ASSERT_EQ(leave(), kl::ERROR_OK);
  ASSERT_EQ(dataFrom(), 2u);
  ASSERT_EQ(::kill(static_cast<pid_t>(row().get(kl::SVC_PID, 0)), SIGSEGV), 0);
  ASSERT_TRUE(heardOfEndOf(32));
  ASSERT_TRUE(isUp());
  EXPECT_EQ(dataFrom(), 2u);
  EXPECT_EQ(row().get(kl::SVC_STARTS, 0), 4u);
}

TEST_F(Leaving, ACrashInsteadOfAnAnswerIsNoLeave) {
  for (const Reaction crash : {kCrash, kEndWithStatus3}) {
    std::filesystem::remove_all(kl::underRoot("/kelo/loader"));
    begin();
    ASSERT_TRUE(isUp());
    ASSERT_EQ(leave(), kl::ERROR_OK);
    ASSERT_EQ(dataFrom(), 1u);
    ASSERT_TRUE(setReaction(crash));
    EXPECT_EQ(leave(), kl::ERROR_FAILED);
    EXPECT_TRUE(heardOfEndOf(32));
    ASSERT_TRUE(isUp());
    EXPECT_EQ(dataFrom(), 1u);
    loader_.reset();
  }
}

TEST_F(Leaving, WhatIsHeldForOneThatCrashesInsteadIsBroken) {
  begin();
  ASSERT_TRUE(isUp());
  ASSERT_TRUE(setReaction(kWait, kCrash));
  ASSERT_TRUE(a_.send(order(kl::SVC_LEAVE)));
  ASSERT_TRUE(reaches(kl::SVC_STATE_LEAVING));
  ASSERT_TRUE(a_.send(request({32}, kl::CMD_NOOP, 5, {7})));
  go();
  EXPECT_EQ(errorOf(a_.receiveReply(5)), kl::ERROR_BRKPATH);
  EXPECT_TRUE(heardOfEndOf(32));
}

TEST_F(Leaving, WhoCrashesAfterItHasSavedHasLeft) {
  begin();
  ASSERT_TRUE(isUp());
  ASSERT_TRUE(setReaction(kSaveAndCrash));
  EXPECT_EQ(leave(), kl::ERROR_OK);
  EXPECT_EQ(dataFrom(), 1u);
  EXPECT_TRUE(heardOfNoEnd());
}

TEST_F(Leaving, WhoHasSavedAndDoesNotEndIsKilledAndHasLeft) {
  begin();
  ASSERT_TRUE(isUp());
  ASSERT_TRUE(setReaction(kSaveAndStay));
  EXPECT_EQ(leave(), kl::ERROR_OK);
  EXPECT_TRUE(loader_->logs("does not end, is killed"));
  EXPECT_EQ(dataFrom(), 1u);
  EXPECT_TRUE(heardOfNoEnd());
}

TEST_F(Leaving, WhoAnnouncesThatItWantsToLeaveIsAsked) {
  begin();
  ASSERT_TRUE(isUp());
  kl::message m = setting();
  m.insert(kWish, true);
  ASSERT_EQ(errorOf(ask(m)), kl::ERROR_OK);
  EXPECT_TRUE(reaches(kl::SVC_STATE_LEFT));
  EXPECT_EQ(dataFrom(), 1u);
}

TEST_F(Leaving, AWishThatComesWhileItMayNotIsGrantedWhenItMay) {
  begin();
  ASSERT_TRUE(isUp());
  kl::message m = setting();
  m.insert(kValue, 0);
  m.insert(kWish, true);
  m.insert(kValueAfterWish, 5);
  ASSERT_EQ(errorOf(ask(m)), kl::ERROR_OK);
  EXPECT_TRUE(reaches(kl::SVC_STATE_LEFT));
}

TEST_F(Leaving, AnIdleServiceLeavesAndOneWithWorkDoesNot) {
  begin(std::string(kOne) + "leave_idle_seconds = 1\n" + kOther + "leave_idle_seconds = 1\n");
  ASSERT_TRUE(isUp());
  ASSERT_TRUE(isUp(33));
  ASSERT_TRUE(a_.send(request({33}, kl::CMD_POLL, 5, {7})));  // never answered
  EXPECT_TRUE(reaches(kl::SVC_STATE_LEFT));
  EXPECT_TRUE(loader_->logs("is idle and asked to leave"));
  EXPECT_EQ(state(33), kl::SVC_STATE_RUNNING);
  EXPECT_EQ(dataFrom(), 1u);
}

TEST_F(Leaving, AtItsOrderlyEndTheLoaderAsksAndTheNextOneGivesTheDataBack) {
  begin(std::string(kOne) + kOther);
  ASSERT_TRUE(isUp());
  ASSERT_TRUE(isUp(33));
  ASSERT_TRUE(setReaction(kRefuse, kRefuse, 33));
  beginAgain(SIGTERM, std::string(kOne) + kOther);
  EXPECT_EQ(dataFrom(), 1u);
  EXPECT_EQ(dataFrom(33), 0u);
}

TEST_F(Leaving, WhoDoesNotAnswerAtTheOrderlyEndIsTold) {
  begin();
  ASSERT_TRUE(isUp());
  ASSERT_TRUE(setReaction(kWait));  // for a file that never comes
  loader_->signal(SIGTERM);
  EXPECT_EQ(loader_->waitForEnd(), 0);
  EXPECT_NE(loader_->log().find("ended as told"), std::string::npos) << loader_->log();
}

TEST_F(Leaving, ASecondSignalDoesNotWaitForAnswers) {
  begin();
  ASSERT_TRUE(isUp());
  ASSERT_TRUE(setReaction(kWait));
  loader_->signal(SIGTERM);
  ASSERT_TRUE(loader_->logs("ends because of signal 15"));
  loader_->signal(SIGTERM);
  EXPECT_EQ(loader_->waitForEnd(), 0);
  EXPECT_NE(loader_->log().find("does not end, is killed"), std::string::npos) << loader_->log();
}

TEST_F(Leaving, TheDataSurviveALoaderThatIsKilled) {
  const std::string configuration = std::string(kOne) + "start = \"demand\"\n";
  begin(configuration);
  RawPeer known = peer(600);
  ASSERT_EQ(errorOf(ask({32}, kl::CMD_NOOP)), kl::ERROR_OK);
  ASSERT_TRUE(isUp());
  ASSERT_EQ(leave(), kl::ERROR_OK);
  beginAgain(SIGKILL, configuration);
  EXPECT_EQ(state(), kl::SVC_STATE_LEFT);
  EXPECT_EQ(dataFrom(), 1u);
  const std::vector<int> all = story();
  ASSERT_GE(all.size(), 3u);
  EXPECT_EQ((std::vector<int>{all[0], all[1], all[2]}), (std::vector<int>{-500, -501, -600}));
}

TEST_F(Leaving, TwoServicesThatLeftKnowEachOtherAfterTheNextStartOfTheLoader) {
  begin(std::string(kOne) + kOther);
  ASSERT_TRUE(isUp());
  ASSERT_TRUE(isUp(33));
  ASSERT_EQ(leave(33), kl::ERROR_OK);
  ASSERT_EQ(leave(32), kl::ERROR_OK);
  beginAgain(SIGTERM, std::string(kOne) + kOther);
  EXPECT_EQ(dataFrom(33), 1u);
  for (const unsigned int id : {32u, 33u}) {
    const std::vector<int> all = story(id);
    EXPECT_EQ(std::count(all.begin(), all.end(), -32), 0);
    EXPECT_EQ(std::count(all.begin(), all.end(), -33), 0);
    EXPECT_EQ(std::count(all.begin(), all.end(), -500), 1);
  }
}

TEST_F(Leaving, OneThatCameAgainAndDiedWithTheLoaderHasEnded) {
  begin(std::string(kOne) + kOther);
  ASSERT_TRUE(isUp());
  ASSERT_TRUE(isUp(33));
  ASSERT_EQ(leave(33), kl::ERROR_OK);
  ASSERT_EQ(leave(32), kl::ERROR_OK);
  ASSERT_EQ(dataFrom(33), 1u);  // it is there again
  beginAgain(SIGKILL, std::string(kOne) + kOther);
  EXPECT_EQ(dataFrom(32), 1u);
  EXPECT_EQ(dataFrom(33), 1u);
  const std::vector<int> all = story(32);
  EXPECT_EQ(std::count(all.begin(), all.end(), -33), 1);
}

TEST_F(Leaving, AServiceOnDemandIsStartedByTheFirstMessageForIt) {
  begin(std::string(kOne) + "start = \"demand\"\n");
  EXPECT_EQ(state(), kl::SVC_STATE_LEFT);
  EXPECT_EQ(row().get(kl::SVC_STARTS, 1), 0u);
  for (unsigned int id = 1; id <= 5; ++id) ASSERT_TRUE(a_.send(request({32}, kl::CMD_NOOP, id, {7})));
  for (unsigned int id = 1; id <= 5; ++id) EXPECT_EQ(errorOf(a_.receiveReply(id)), kl::ERROR_OK);
  EXPECT_EQ(story(), (std::vector<int>{1, 2, 3, 4, 5}));
}

TEST_F(Leaving, AServiceOnDemandThatHasNoMoreToDoIsStartedAgainByTheNextMessage) {
  begin(std::string(kOne) + "start = \"demand\"\n");
  ASSERT_EQ(errorOf(ask({32}, kl::CMD_NOOP)), kl::ERROR_OK);
  ASSERT_TRUE(a_.send(notification({32})));
  kl::message end = notification({32});
  end.insert(kl::SYS_CMD, kl::CMD_SHUTDOWN);
  ASSERT_TRUE(a_.send(end));
  EXPECT_TRUE(heardOfEndOf(32));  // it did not leave
  EXPECT_TRUE(reaches(kl::SVC_STATE_LEFT));
  EXPECT_EQ(errorOf(ask({32}, kl::CMD_NOOP)), kl::ERROR_OK);
  EXPECT_EQ(row().get(kl::SVC_STARTS, 0), 2u);
}

TEST_F(Leaving, WhoLeftAndIsStoppedHasEndedAndIsNotStartedByMessages) {
  begin();
  ASSERT_TRUE(isUp());
  ASSERT_EQ(leave(), kl::ERROR_OK);
  ASSERT_TRUE(heardOfNoEnd());
  EXPECT_EQ(act(kl::SVC_STOP), kl::ERROR_OK);
  EXPECT_TRUE(heardOfEndOf(32));
  EXPECT_EQ(errorOf(ask({32}, kl::CMD_NOOP)), kl::ERROR_BRKPATH);
  EXPECT_EQ(state(), kl::SVC_STATE_STOPPED);
  EXPECT_EQ(act(kl::SVC_START), kl::ERROR_OK);
  ASSERT_TRUE(isUp());
  EXPECT_EQ(dataFrom(), 1u);
}

TEST_F(Leaving, WhoLeftMayBeStartedByOrder) {
  begin();
  ASSERT_TRUE(isUp());
  ASSERT_EQ(leave(), kl::ERROR_OK);
  EXPECT_EQ(act(kl::SVC_START), kl::ERROR_OK);
  EXPECT_TRUE(reaches(kl::SVC_STATE_RUNNING));
  EXPECT_EQ(dataFrom(), 1u);
}

TEST_F(Leaving, AStartThatIsOrderedWhileItLeavesIsDoneWhenItHas) {
  begin();
  ASSERT_TRUE(isUp());
  ASSERT_TRUE(setReaction(kWait));
  kl::message leaveOrder = order(kl::SVC_LEAVE);
  leaveOrder.insert(kl::SYS_REQID, 3);
  ASSERT_TRUE(a_.send(leaveOrder));
  ASSERT_TRUE(reaches(kl::SVC_STATE_LEAVING));
  EXPECT_EQ(act(kl::SVC_START), kl::ERROR_OK);
  go();
  EXPECT_EQ(errorOf(a_.receiveReply(3)), kl::ERROR_OK);
  EXPECT_TRUE(reaches(kl::SVC_STATE_RUNNING));
  EXPECT_EQ(row().get(kl::SVC_STARTS, 0), 2u);
  EXPECT_EQ(dataFrom(), 1u);
}

TEST_F(Leaving, WhoIsStoppedWhileItIsAskedHasNotLeft) {
  begin();
  ASSERT_TRUE(isUp());
  ASSERT_TRUE(setReaction(kWait));
  kl::message leaveOrder = order(kl::SVC_LEAVE);
  leaveOrder.insert(kl::SYS_REQID, 3);
  ASSERT_TRUE(a_.send(leaveOrder));
  ASSERT_TRUE(reaches(kl::SVC_STATE_LEAVING));
  ASSERT_TRUE(a_.send(request({32}, kl::CMD_NOOP, 5, {7})));
  ASSERT_TRUE(a_.send(order(kl::SVC_STOP)));
  EXPECT_EQ(errorOf(a_.receiveReply(3)), kl::ERROR_FAILED);
  EXPECT_EQ(errorOf(a_.receiveReply(5)), kl::ERROR_BRKPATH);
  EXPECT_TRUE(heardOfEndOf(32));
  EXPECT_TRUE(reaches(kl::SVC_STATE_STOPPED));
}

TEST_F(Leaving, ASubscriberOfTheTableThatLeftIsNotStartedByItsOwnLeave) {
  begin();
  ASSERT_TRUE(isUp());
  kl::message m = setting();
  m.insert(kSubscribe, true);
  ASSERT_EQ(errorOf(ask(m)), kl::ERROR_OK);
  kl::message subscribe = notification({1});
  subscribe.insert(kl::SYS_CMD, kl::CMD_SUBSCRIBE);
  ASSERT_TRUE(watcher_.send(subscribe));
  ASSERT_EQ(leave(), kl::ERROR_OK);
  ASSERT_TRUE(watcher_.receiveCommand(kl::CMD_NOTIFY));  // what the two subscribed to has been sent
  EXPECT_EQ(state(), kl::SVC_STATE_LEFT);
  ASSERT_EQ(errorOf(ask({32}, kl::CMD_NOOP)), kl::ERROR_OK);
  ASSERT_TRUE(isUp());
  RawPeer change = RawPeer::registered(600);
  ASSERT_TRUE(watcher_.receiveCommand(kl::CMD_NOTIFY));
  EXPECT_TRUE(getsNotification());  // its subscription has outlived its leave
}

}  // namespace

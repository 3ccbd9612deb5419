// A change goes through the library, the loader, the undo service and the client, and back.

#include "tests/services/undo/lamp.h"

#include <gtest/gtest.h>

#include "tests/services/undo/fixture.h"
#include "tests/support/process/child.h"

namespace undo {
namespace {

const Ids kLamp = {Lamp::kService, Lamp::kHandler};

class Undoing : public UndoProcess {
 protected:
  void SetUp() override {
    user_ = connected();
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (kl::isError(lamp())) ASSERT_LT(std::chrono::steady_clock::now(), end);
  }

  kl::message lamp() {
    kl::message m;
    m.insert(kl::SYS_TO, kLamp);
    m.insert(kl::SYS_CMD, kl::CMD_GET);
    return ask(user_, m);
  }

  unsigned int brightness() { return lamp().get(Lamp::BRIGHTNESS, kl::BADID); }

  kl::message set(unsigned int brightness) {
    kl::message m;
    m.insert(kl::SYS_TO, kLamp);
    m.insert(kl::SYS_CMD, kl::CMD_SET);
    m.insert(kl::SYS_USER, "alice");
    m.insert(kl::SYS_POLICY, 192);
    m.insert(Lamp::BRIGHTNESS, brightness);
    return ask(user_, m);
  }

  // CMD_START by daemon with these rights.
  kl::message start(unsigned int id, unsigned int rights = 192) {
    kl::message m = to(kl::CMD_START, id);
    m.insert(kl::SYS_USER, "daemon");
    m.insert(kl::SYS_POLICY, rights);
    return ask(user_, m);
  }

  unsigned int newest() {
    const Ids ids = all(user_);
    return ids.empty() ? kl::BADID : ids.front();
  }

  bool isUndone(unsigned int id) { return ask(user_, kl::CMD_GETOBJ, id).get(kl::UNDO_UNDONE, false); }

  // The output of klctl, or its complaint; the exit status must be the given one.
  static std::string klctl(int status, std::vector<std::string> words) {
    words.insert(words.begin(), KL_BIN_DIR "/klctl");
    const auto result = kl::test::runProgram(words);
    EXPECT_EQ(result.exitStatus, status) << result.out << result.err;
    return status == 0 ? result.out : result.err;
  }

  LampProcess process_;
  RawPeer user_;
};

}  // namespace

TEST_F(Undoing, AChangeIsUndoneDoneAgainAndUndone) {
  EXPECT_FALSE(kl::isError(set(50)));
  EXPECT_EQ(brightness(), 50u);
  const unsigned int id = newest();
  const kl::message record = ask(user_, kl::CMD_GETOBJ, id);
  EXPECT_EQ(record.get(kl::UNDO_DESCRIPTION, ""), "brightness 50");
  EXPECT_EQ(record.get(kl::UNDO_USER, ""), "alice");
  EXPECT_EQ(record.get(kl::UNDO_RIGHTS, 0), 128u);
  EXPECT_EQ(record.get(kl::UNDO_SOURCE, {}), kLamp);
  EXPECT_FALSE(isUndone(id));

  EXPECT_FALSE(kl::isError(start(id)));
  EXPECT_EQ(brightness(), 0u);
  EXPECT_EQ(lamp().get(Lamp::CHANGED_BY, ""), "daemon");
  EXPECT_TRUE(isUndone(id));

  EXPECT_FALSE(kl::isError(start(id)));
  EXPECT_EQ(brightness(), 50u);
  EXPECT_FALSE(isUndone(id));

  EXPECT_FALSE(kl::isError(start(id)));
  EXPECT_EQ(brightness(), 0u);
  EXPECT_TRUE(isUndone(id));
  EXPECT_EQ(all(user_), Ids{id});  // an undo makes no record of its own
}

TEST_F(Undoing, ChangesAreUndoneOneByOne) {
  for (const unsigned int brightness : {10u, 20u, 30u}) EXPECT_FALSE(kl::isError(set(brightness)));
  const Ids ids = all(user_);
  ASSERT_EQ(ids.size(), 3u);
  for (std::size_t i = 0; i < 3; ++i) {
    EXPECT_FALSE(kl::isError(start(ids[i])));
    EXPECT_EQ(brightness(), 20 - 10 * i);
  }
}

TEST_F(Undoing, WhoMayOnlyReadUndoesNothing) {
  EXPECT_FALSE(kl::isError(set(50)));
  EXPECT_EQ(errorOf(start(newest(), 64)), kl::ERROR_NOTALLOWED);
  EXPECT_EQ(brightness(), 50u);
  EXPECT_FALSE(isUndone(newest()));
}

TEST_F(Undoing, AChangeByACommandWithoutRightsIsUndoneByWhoMayChange) {
  EXPECT_FALSE(kl::isError(set(50)));
  kl::message off;
  off.insert(kl::SYS_TO, kLamp);
  off.insert(kl::SYS_CMD, Lamp::kTurnOff);
  EXPECT_FALSE(kl::isError(ask(user_, off)));
  const unsigned int id = newest();
  EXPECT_EQ(ask(user_, kl::CMD_GETOBJ, id).get(kl::UNDO_RIGHTS, 1), 0u);
  EXPECT_EQ(errorOf(start(id, 64)), kl::ERROR_NOTALLOWED);
  EXPECT_EQ(brightness(), 0u);
  EXPECT_FALSE(kl::isError(start(id)));
  EXPECT_EQ(brightness(), 50u);
}

TEST_F(Undoing, WhatIsRefusedIsNotReported) {
  EXPECT_EQ(errorOf(set(101)), kl::ERROR_FAILED);
  EXPECT_EQ(newest(), kl::BADID);
}

TEST_F(Undoing, ARecordOutlivesACrashOfTheUndoService) {
  EXPECT_FALSE(kl::isError(set(50)));
  const unsigned int id = newest();
  const auto pid = static_cast<pid_t>(askLoader(user_, kl::CMD_GETOBJ).get(kl::SVC_PID, 0));
  ASSERT_GT(pid, 1);
  ASSERT_EQ(::kill(pid, SIGKILL), 0);
  awaitStart(user_, 2);
  EXPECT_FALSE(kl::isError(start(id)));
  EXPECT_EQ(brightness(), 0u);
  EXPECT_TRUE(isUndone(id));
}

TEST_F(Undoing, TheClientListsShowsAndRuns) {
  EXPECT_FALSE(kl::isError(set(50)));
  const std::string id = std::to_string(newest());
  const std::string list = klctl(0, {"undo", "list"});
  EXPECT_NE(list.find("alice"), std::string::npos) << list;
  EXPECT_NE(list.find("brightness 50"), std::string::npos) << list;
  EXPECT_NE(klctl(0, {"undo", "show", id}).find("what undoes it:"), std::string::npos);
  EXPECT_EQ(klctl(0, {"undo", "run", id}), "");
  EXPECT_EQ(brightness(), 0u);
  EXPECT_NE(klctl(0, {"undo", "show", id}).find("what does it again:"), std::string::npos);
  EXPECT_NE(klctl(0, {"undo", "list", "--json"}).find("\"undone\": true"), std::string::npos);
  EXPECT_EQ(klctl(1, {"undo", "run", "4711"}), "klctl: undo:4711: std failure: unknown id (4)\n");
}

}  // namespace undo

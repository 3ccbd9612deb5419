// A service of the library's own kind saves its state, leaves, and is there again when it is needed.

#include <ctime>
#include <filesystem>
#include <optional>

#include "kl/utilities.h"
#include "tests/scenarios/fixture.h"
#include "tests/scenarios/keeper_service.h"

namespace scenarios {
namespace {

constexpr char kKeeper[] =
    "[[service]]\nname = \"keeper\"\nid = 41\ncommand = [\"" KL_BIN_DIR "/kl-test-keeper\"]\n";

class LeavingScenario : public testing::Test {
 protected:
  LeavingScenario() {
    std::filesystem::remove_all(kl::underRoot("/kelo/loader"));
    begin();
  }

  void begin() {
    driver_.reset();
    loader_.reset();
    loader_.emplace(kKeeper);
    driver_.emplace();
    while (driver_->row(keeper::kService).get(kl::SVC_STATE, 0) != kl::SVC_STATE_RUNNING) {
    }
    (void)driver_->ask({keeper::kService, 3}, kl::CMD_NOOP);  // it has said that it may leave
  }

  static RawPeer subscriber(unsigned int id, unsigned int handler) {
    RawPeer peer;
    EXPECT_TRUE(peer.connect(kPatienceMs));
    EXPECT_EQ(peer.registerAs(id), id);
    kl::message m = kl::test::notification({keeper::kService, handler}, {7});
    m.insert(kl::SYS_CMD, kl::CMD_SUBSCRIBE);
    EXPECT_TRUE(peer.send(m));
    return peer;
  }

  static unsigned int heardValue(RawPeer& peer) {
    const auto m = peer.receiveCommand(kl::CMD_NOTIFY, kPatienceMs);
    if (!m) return 0;
    return kl::message(m->get(kl::STD_OBJS, {}).at(0)).get(keeper::VALUE, 0);
  }

  kl::message look(unsigned int handler) { return driver_->ask({keeper::kService, handler}, kl::CMD_GET); }
  unsigned int value(unsigned int handler) { return look(handler).get(keeper::VALUE, 0); }
  void command(unsigned int code) { (void)driver_->ask({keeper::kService, 3}, code); }
  void set(unsigned int handler, unsigned int value) {
    kl::message m;
    m.insert(kl::STD_ID, 1);
    m.insert(keeper::VALUE, value);
    (void)driver_->ask({keeper::kService, handler}, kl::CMD_SETOBJ, m);
  }

  static kl::message leaveOrder() {
    kl::message m;
    m.insert(kl::STD_ID, keeper::kService);
    m.insert(kl::SVC_ACTION, kl::SVC_LEAVE);
    return m;
  }
  unsigned int leave() {
    unsigned int code = kl::ERROR_OK;
    (void)kl::isError(driver_->ask({kl::SERVICE_LOADER}, kl::CMD_SETOBJ, leaveOrder()), &code);
    return code;
  }
  unsigned int state() { return driver_->row(keeper::kService).get(kl::SVC_STATE, 0); }
  unsigned int starts() { return driver_->row(keeper::kService).get(kl::SVC_STARTS, 0); }

  std::optional<LoaderProcess> loader_;
  std::optional<Driver> driver_;
};

TEST_F(LeavingScenario, TwoHandlersHaveTheirStateAgainAndTheirSubscribersHearWithoutSubscribingAgain) {
  RawPeer a = subscriber(500, 3);
  RawPeer b = subscriber(501, 4);
  set(3, 5);
  set(4, 6);
  EXPECT_EQ(heardValue(a), 5u);
  EXPECT_EQ(heardValue(b), 6u);
  ASSERT_EQ(leave(), kl::ERROR_OK);
  ASSERT_EQ(state(), kl::SVC_STATE_LEFT);
  const kl::message back = look(3);
  EXPECT_EQ(starts(), 2u);
  EXPECT_EQ(back.get(keeper::VALUE, 0), 5u);
  EXPECT_EQ(back.get(keeper::SUBSCRIPTIONS, 0), 1u);
  EXPECT_EQ(back.get(keeper::TOLD, 0), 1u);  // its own hook heard of the one that came back
  EXPECT_EQ(value(4), 6u);
  set(3, 7);
  set(4, 8);
  EXPECT_EQ(heardValue(a), 7u);
  EXPECT_EQ(heardValue(b), 8u);
}

TEST_F(LeavingScenario, ChangesThatWaitAreSentBeforeTheStateIsSaved) {
  RawPeer a = subscriber(500, 3);
  set(3, 5);  // its batch would be sent after a fifth of a second
  ASSERT_EQ(leave(), kl::ERROR_OK);
  EXPECT_EQ(heardValue(a), 5u);
  EXPECT_EQ(state(), kl::SVC_STATE_LEFT);
}

TEST_F(LeavingScenario, ASubscriberThatEndedMeanwhileIsNoSubscriberAnyMore) {
  RawPeer stays = subscriber(500, 3);
  RawPeer goes = subscriber(501, 3);
  ASSERT_TRUE(goes.meet(500, stays));
  while (look(3).get(keeper::SUBSCRIPTIONS, 0) != 2) {
  }
  ASSERT_EQ(leave(), kl::ERROR_OK);
  goes.close();
  ASSERT_TRUE(stays.receiveCommand(kl::CMD_DISCONNECTED, kPatienceMs));
  EXPECT_EQ(look(3).get(keeper::SUBSCRIPTIONS, 0), 1u);
}

TEST_F(LeavingScenario, ACrashBringsTheStateOfTheLastLeaveAndNoOther) {
  set(3, 5);
  ASSERT_EQ(leave(), kl::ERROR_OK);
  ASSERT_EQ(value(3), 5u);
  set(3, 6);
  ASSERT_EQ(::kill(static_cast<pid_t>(driver_->row(keeper::kService).get(kl::SVC_PID, 0)), SIGSEGV), 0);
  while (starts() != 3 || state() != kl::SVC_STATE_RUNNING) {
  }
  EXPECT_EQ(value(3), 5u);
}

TEST_F(LeavingScenario, TheStateSurvivesTheLoader) {
  RawPeer a = subscriber(500, 3);
  set(3, 5);
  begin();  // the orderly end asks it to leave
  EXPECT_EQ(value(3), 5u);
  EXPECT_EQ(look(3).get(keeper::SUBSCRIPTIONS, 9), 0u);  // its subscriber has ended with the loader
}

TEST_F(LeavingScenario, WhileItBlocksLeavingItIsNotAsked) {
  command(kl::CMD_START);
  command(kl::CMD_START);
  EXPECT_EQ(leave(), kl::ERROR_FAILED);
  command(kl::CMD_CANCEL);
  EXPECT_EQ(leave(), kl::ERROR_FAILED);
  command(kl::CMD_CANCEL);
  EXPECT_EQ(leave(), kl::ERROR_OK);
}

TEST_F(LeavingScenario, WithinAnExchangeItRefuses) {
  RawPeer asked;
  ASSERT_TRUE(asked.connect(kPatienceMs));
  ASSERT_EQ(asked.registerAs(500), 500u);
  ASSERT_TRUE(asked.send(kl::test::request({keeper::kService, 3}, kl::CMD_POLL, 9)));
  const auto question = asked.receiveCommand(kl::CMD_GET, kPatienceMs);
  ASSERT_TRUE(question);
  EXPECT_EQ(leave(), kl::ERROR_BUSY);
  ASSERT_TRUE(asked.send(kl::test::replyTo(*question)));
  EXPECT_TRUE(asked.receiveReply(9, kPatienceMs));
  EXPECT_EQ(leave(), kl::ERROR_OK);
}

TEST_F(LeavingScenario, ItLeavesByItsOwnWish) {
  command(kl::CMD_RESET);
  while (state() != kl::SVC_STATE_LEFT) {
  }
  EXPECT_EQ(value(3), 0u);
  EXPECT_EQ(starts(), 2u);
}

TEST_F(LeavingScenario, LocalTimeIsThatOfTheSystemService) {
  RawPeer system;
  ASSERT_TRUE(system.connect(kPatienceMs));
  ASSERT_EQ(system.registerAs(kl::SERVICE_SYSTEM), kl::SERVICE_SYSTEM);
  ASSERT_TRUE(system.send(kl::test::request({keeper::kService, 3}, kl::CMD_GETCOUNT, 9)));
  ASSERT_TRUE(system.receiveCommand(kl::CMD_SUBSCRIBE, kPatienceMs));
  const auto question = system.receiveCommand(kl::CMD_GET, kPatienceMs);
  ASSERT_TRUE(question);
  kl::message zone = kl::test::replyTo(*question);
  zone.insert_u32(0x0800001b, 7200);
  const auto before = static_cast<unsigned int>(std::time(nullptr));
  ASSERT_TRUE(system.send(zone));
  const auto answer = system.receiveReply(9, kPatienceMs);
  ASSERT_TRUE(answer);
  const auto after = static_cast<unsigned int>(std::time(nullptr));
  EXPECT_GE(answer->get(keeper::LOCALTIME, 0), before + 7200);
  EXPECT_LE(answer->get(keeper::LOCALTIME, 0), after + 7200);
}

}  // namespace
}  // namespace scenarios

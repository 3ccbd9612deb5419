// bell, with a loader that the test plays: who gets a reply, when, and what becomes of it otherwise.

#include <fcntl.h>
#include <gtest/gtest.h>

#include <chrono>
#include <optional>

#include "bell.kl.h"
#include "kl/conventions.h"
#include "kl/services.h"
#include "tests/support/doubles/loader_double.h"
#include "tests/support/process/child.h"
#include "tests/support/process/child_process.h"

namespace {

using kl::message;

unsigned long long wallMs(std::chrono::milliseconds ahead) {
  using namespace std::chrono;
  return static_cast<unsigned long long>(
      floor<milliseconds>((system_clock::now() + ahead).time_since_epoch()).count());
}

class BellService : public testing::Test {
 protected:
  BellService() {
    loader_.sendReady();
    bell_.emplace([this] {
      (void)::fcntl(loader_.fd(), F_SETFD, FD_CLOEXEC);
      kl::test::become({KL_BIN_DIR "/bell"});
    });
    EXPECT_EQ(nextCtrl(), kl::CTRL_HELLO);
    EXPECT_EQ(nextCtrl(), kl::CTRL_RUNNING);
    EXPECT_EQ(nextCtrl(), kl::CTRL_LEAVE_VALUE);
  }
  ~BellService() override {
    loader_.close();
    EXPECT_NE(bell_->waitForEnd(), -1);
  }

  unsigned int nextCtrl() {
    last_ = loader_.receive();
    return last_.get(kl::SYS_CTRL, 0);
  }
  void send(unsigned int command, unsigned int id, unsigned int asker, const message& fields = {}) {
    message m = kl::test::request({0}, command, id, {asker, 3});
    m.merge(fields);
    loader_.send(m);
  }
  void poll(unsigned int id, unsigned int asker, std::chrono::milliseconds ahead) {
    message m;
    m.insert(bell::AT, wallMs(ahead));
    send(kl::CMD_POLL, id, asker, m);
  }
  // "7 to 9", and its error if it is one.
  std::string nextReply() {
    last_ = loader_.receive();
    const std::string error = kl::isError(last_) ? ": " + kl::getError(last_) : "";
    return std::to_string(last_.get(kl::SYS_REQID, 0)) + " to " +
           std::to_string(last_.get(kl::SYS_TO, {0}).front()) + error;
  }
  unsigned int waiting() {
    send(kl::CMD_GETCOUNT, 99, 9);
    EXPECT_EQ(nextReply(), "99 to 9");
    return last_.get(kl::STD_GETALLNO, 77);
  }
  // It permits to be asked, or no longer.
  bool mayLeave() {
    EXPECT_EQ(nextCtrl(), kl::CTRL_LEAVE_VALUE);
    return last_.get(kl::SYS_CTRL_ARG, 0) != 0;
  }

  kl::test::LoaderDouble loader_;
  std::optional<kl::test::ChildProcess> bell_;
  message last_;
};

}  // namespace

TEST_F(BellService, AnswersInTheOrderOfTheTimes) {
  using namespace std::chrono_literals;
  poll(1, 9, 1h);
  EXPECT_FALSE(mayLeave());
  poll(2, 9, 40ms);
  poll(3, 10, -1h);
  EXPECT_EQ(nextReply(), "3 to 10");
  EXPECT_EQ(nextReply(), "2 to 9");
  EXPECT_EQ(waiting(), 1u);
}

TEST_F(BellService, MayLeaveWhenNobodyWaits) {
  using namespace std::chrono_literals;
  poll(1, 9, 20ms);
  EXPECT_FALSE(mayLeave());
  EXPECT_EQ(nextReply(), "1 to 9");
  EXPECT_TRUE(mayLeave());
}

TEST_F(BellService, ForgetsWhoEnds) {
  using namespace std::chrono_literals;
  poll(1, 9, 1h);
  EXPECT_FALSE(mayLeave());
  poll(2, 10, 1h);
  EXPECT_EQ(waiting(), 2u);
  for (const unsigned int gone : {10u, 11u, 9u}) {
    message notice = kl::test::notification({}, {gone});
    notice.insert(kl::SYS_CMD, kl::CMD_DISCONNECTED);
    loader_.send(notice);
    if (gone != 9) {
      EXPECT_EQ(waiting(), 1u) << gone;
    }
  }
  EXPECT_TRUE(mayLeave());
  EXPECT_EQ(waiting(), 0u);
}

TEST_F(BellService, RefusesWhatItCannotKeep) {
  using namespace std::chrono_literals;
  send(kl::CMD_POLL, 1, 9);
  EXPECT_EQ(nextReply(), "1 to 9: std failure: missing fields (5)");
  poll(2, 9, 25h);
  EXPECT_EQ(nextReply(), "2 to 9: more than a day (6)");
  send(kl::CMD_START, 3, 9);
  EXPECT_EQ(nextReply(), "3 to 9: std failure: not implemented (3)");
  poll(4, 9, 1h);
  EXPECT_FALSE(mayLeave());
  for (unsigned int id = 5; id < 104; ++id) poll(id, 9, 1h);
  poll(104, 9, 1h);
  EXPECT_EQ(nextReply(), "104 to 9: std failure: busy (12)");
}

#include "services/loader/transport/pending_connections.h"

#include <gtest/gtest.h>
#include <sys/socket.h>

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include "kl/runner.h"
#include "tests/support/calls/scripted_calls.h"

namespace loader {
namespace {

constexpr unsigned int kMany = 10;
constexpr unsigned int kBurst = 30;
constexpr uid_t kLoader = 900;
constexpr uid_t kAlice = 1000;
constexpr uid_t kBob = 1001;

Limits limitsOf(unsigned int registrations, unsigned int burst) {
  Limits limits;
  limits.registrations = registrations;
  limits.registrationBurst = burst;
  return limits;
}

// Connections on socket pairs, and what their hosts hear: 'f' a frame, 'e' the end.
class PendingConnectionsTest : public testing::Test {
 protected:
  // A connection of this user comes.
  void comes(uid_t uid = kAlice) {
    int ends[2];
    ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, ends), 0);
    others_.emplace_back(ends[0]);
    clients_.push_back(std::make_unique<Client>(*this, clients_.size(), Descriptor(ends[1]), uid));
  }
  void come(unsigned int count, uid_t uid = kAlice) {
    for (unsigned int i = 0; i < count; ++i) comes(uid);
  }

  void says(unsigned int i, const std::vector<unsigned char>& bytes) {
    EXPECT_EQ(::send(others_[i].get(), bytes.data(), bytes.size(), 0), static_cast<ssize_t>(bytes.size()));
  }
  void allSay(const std::vector<unsigned char>& bytes) {
    for (unsigned int i = 0; i < others_.size(); ++i) says(i, bytes);
  }

  void ends(unsigned int i) { clients_[i]->onConnectionClosed(""); }

  // One pass of the loop: the queue is served, and whoever can be read is queued.
  std::string pass() {
    heard_.clear();
    pending_.serve();
    runner_.addTimer(
        nullptr, [](void*) {}, 0);
    runner_.runSocks(kl::getJiffies());
    return heard_;
  }

  Account& accountOf(uid_t uid) { return accounts_.ofUser(uid, kl::getJiffies()); }

  Accounts accounts_{limitsOf(1, kBurst), kLoader};
  kl::Runner runner_;
  Sockets sockets_{runner_};
  PendingConnections pending_{runner_};
  const std::vector<unsigned char> kFrame = {2, 0, 0, 0, 'M', '2'};
  const std::vector<unsigned char> kHalf = {2, 0};
  const std::vector<unsigned char> kTooLong = {255, 255, 255, 255};

 private:
  class Client final : public ConnectionHost {
   public:
    Client(PendingConnectionsTest& test, std::size_t number, Descriptor socket, uid_t uid)
        : test_(test),
          name_(std::to_string(number) + " "),
          connection_(test.sockets_, *this, test.area_, test.turns_, std::move(socket),
                      Connection::Origin::kAccepted, Patience{1, 0}) {
      charge_.bind(&test.accountOf(uid), Resource::kConnections);
      charge_.set(1);
      connection_.chargeTo(charge_.account());
    }

    void onBatch() override {}
    const char* onFrame(std::span<const unsigned char>) override {
      test_.heard_ += "f" + name_;
      return nullptr;
    }
    void onPendingReadable() override { test_.pending_.add(connection_); }
    void onConnectionClosed(const std::string&) override {
      test_.heard_ += "e" + name_;
      test_.pending_.forget(connection_);
      connection_.close();
    }
    void writeQueues() override {}

   private:
    PendingConnectionsTest& test_;
    std::string name_;
    Connection connection_;
    Charge charge_;
  };

  ReadArea area_;
  Work work_;
  Turns turns_{work_};
  std::vector<Descriptor> others_;
  std::vector<std::unique_ptr<Client>> clients_;
  std::string heard_;
};

TEST_F(PendingConnectionsTest, NobodyIsServedInThePassThatReportsHim) {
  come(1);
  says(0, kFrame);
  EXPECT_EQ(pass(), "");
  EXPECT_EQ(pass(), "f0 ");
  EXPECT_EQ(pass(), "");
}

TEST_F(PendingConnectionsTest, FourAreServedInAPassInTheOrderOfTheQueue) {
  come(kMany);
  allSay(kTooLong);
  EXPECT_EQ(pass(), "");
  EXPECT_EQ(pass(), "e9 e8 e7 e6 ") << "poll reports the newest first";
  EXPECT_EQ(pass(), "e5 e4 e3 e2 ");
  EXPECT_EQ(pass(), "e1 e0 ");
}

TEST_F(PendingConnectionsTest, WhoTalksOnStandsBehindTheOthers) {
  come(6);
  allSay(kFrame);
  (void)pass();
  for (const unsigned int i : {2U, 3U, 4U, 5U}) says(i, kFrame);
  EXPECT_EQ(pass(), "f5 f5 f4 f4 f3 f3 f2 f2 ");
  for (const unsigned int i : {2U, 3U, 4U, 5U}) says(i, kFrame);
  EXPECT_EQ(pass(), "f1 f0 ");
  EXPECT_EQ(pass(), "f2 f3 f4 f5 ");
}

TEST_F(PendingConnectionsTest, WhoHasEndedIsNotServed) {
  come(2);
  allSay(kHalf);
  (void)pass();
  ends(1);
  says(0, {0, 0, 'M', '2'});
  EXPECT_EQ(pass(), "f0 ");
}

TEST_F(PendingConnectionsTest, UsersAreServedInTurnsHoweverManyEachHas) {
  come(kMany, kAlice);
  comes(kBob);
  allSay(kTooLong);
  (void)pass();
  EXPECT_NE(pass().find("e10 "), std::string::npos) << "Bob came last and is served in the first pass";
}

TEST_F(PendingConnectionsTest, RootIsServedBesideAnyNumberOfUsers) {
  for (uid_t uid = 2000; uid < 2000 + kMany; ++uid) comes(uid);
  comes(0);
  allSay(kTooLong);
  (void)pass();
  EXPECT_EQ(pass().substr(0, 4), "e10 ");
}

TEST_F(PendingConnectionsTest, WhoIsAboveHisRateWaitsAndOthersDoNot) {
  come(kBurst + 5, kAlice);
  allSay(kTooLong);
  (void)pass();
  std::string all;
  for (unsigned int passes = 0; passes < kBurst; ++passes) all += pass();
  EXPECT_EQ(std::count(all.begin(), all.end(), 'e'), kBurst);
  comes(kBob);
  says(kBurst + 5, kTooLong);
  (void)pass();
  EXPECT_EQ(pass(), "e35 ");
}

TEST_F(PendingConnectionsTest, AfterTooManyFailuresOfAUserHisNextOnesWaitForTheTick) {
  come(2, kAlice);
  comes(kBob);
  {
    const kl::test::ScriptedClock sameTick(kl::getJiffies());
    for (unsigned int i = 0; i < Pace::kMostFailures; ++i)
      (void)accountOf(kAlice).pace().countFailure(kl::getJiffies());
    allSay(kTooLong);
    (void)pass();
    EXPECT_EQ(pass(), "e2 ");
    EXPECT_EQ(pass(), "");
  }
  std::string all;
  while (all.size() < 6) all += pass();
  EXPECT_EQ(std::count(all.begin(), all.end(), 'e'), 2);
}

TEST_F(PendingConnectionsTest, WhoWaitsWakesNobody) {
  comes(kAlice);
  for (unsigned int i = 0; i < kBurst; ++i) (void)accountOf(kAlice).pace().admitOne(kl::getJiffies());
  says(0, kFrame);
  (void)pass();
  unsigned int passes = 0;
  bool isOver = false;
  runner_.addTimer(
      &isOver, [](void* over) { *static_cast<bool*>(over) = true; }, 10);
  while (!isOver) {
    ++passes;
    pending_.serve();
    runner_.runSocks(kl::getJiffies());
    runner_.runTimers();
  }
  EXPECT_LT(passes, 40u) << "a queued connection is not polled";
}

TEST_F(PendingConnectionsTest, WhoWasLetInGoesOnWithoutWaitingAgain) {
  comes(kAlice);
  says(0, kHalf);
  (void)pass();
  (void)pass();
  while (accountOf(kAlice).pace().admitOne(kl::getJiffies())) {
  }
  says(0, {0, 0, 'M', '2'});
  (void)pass();
  EXPECT_EQ(pass(), "f0 ");
}

}  // namespace
}  // namespace loader

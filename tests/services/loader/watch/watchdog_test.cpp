#include "services/loader/watch/watchdog.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <csignal>

#include "services/loader/life/states.h"
#include "tests/services/loader/fixture.h"

namespace {

using namespace loader::test;
using loader::ProcessTime;
using loader::Service;
using loader::Watchdog;

// A service has 4 s, so there is a look in each second.
class WatchdogTest : public testing::Test {
 protected:
  void SetUp() override {
    for (Service* const service : {&a_, &b_}) {
      service->life = loader::LifeState::kRunning;
      service->pid = ::getpid();
    }
    watchdog_.watch(10, 4);
    former_ = ::signal(SIGUSR2, SIG_IGN);  // an emulator catches what nobody ignores
  }
  void TearDown() override { (void)::signal(SIGUSR2, former_); }

  void look(unsigned int seconds = 1) {
    now_.seconds += seconds;
    watchdog_.onTimer();
  }
  void looks(int count) {
    for (int i = 0; i < count; ++i) look();
  }
  // Looks of a second in which it ran and waited for so many milliseconds.
  void looksAt(int count, char state, unsigned int ran, unsigned int waited) {
    for (int i = 0; i < count; ++i) {
      time_.state = state;
      time_.ranMs += ran;
      *time_.waitedMs += waited;
      look();
    }
  }
  void answer(Service& service) {
    for (const kl::message& m : takeMessages(service)) {
      ++service.traffic.messagesOut;
      (void)probes_.onAnswer(service, m.get(kl::SYS_REQID, 0));
    }
  }
  void wait(Service& asker, Service& asked) {
    const auto body = flat(request({0}, kl::CMD_GET, 77, {7}));
    loader::Envelope e;
    ASSERT_EQ(loader::readEnvelope(body, e), nullptr);
    requests_.add(asker, asked, e, e.path(), now_);
  }

  void (*former_)(int) = SIG_DFL;
  kl::ThinRunner runner_;
  loader::ServiceTable services_;
  loader::OpenRequests requests_{1};
  loader::Outbox outbox_{1 << 20};
  loader::Probes probes_{outbox_};
  common::Moment now_{100};
  ProcessTime time_{'S', 0, 0};
  bool isThere_ = true;
  std::vector<std::string> told_;
  std::vector<std::string> ended_;
  Watchdog watchdog_{runner_,
                     services_,
                     requests_,
                     probes_,
                     [this] { return now_; },
                     [this](const std::string& line) { told_.push_back(line); },
                     [this](Service&, const std::string& why) { ended_.push_back(why); },
                     [this] { outbox_.eachDirty([](Service&) {}); },
                     [this](pid_t) { return isThere_ ? std::optional(time_) : std::nullopt; }};
  Service& a_ = connected(services_, 10);
  Service& b_ = connected(services_, 20);
};

TEST_F(WatchdogTest, WhoAnswersIsAskedAgainAndAgain) {
  for (int i = 0; i < 20; ++i) {
    look();
    answer(a_);
  }
  EXPECT_EQ(a_.traffic.messagesIn, 10u);
  EXPECT_TRUE(takeMessages(b_).empty());
  EXPECT_TRUE(told_.empty());
}

TEST_F(WatchdogTest, WhoCouldHaveRunForItsTimeIsEnded) {
  look();
  looksAt(3, 'R', 990, 0);
  EXPECT_TRUE(told_.empty());
  looksAt(1, 'R', 990, 0);
  ASSERT_EQ(told_.size(), 1u);
  EXPECT_EQ(told_[0], "s10 (10, pid " + std::to_string(::getpid()) +
                          "): has not answered for 4.0 s, ran for 3.9 s and could have for 4.0 s; is ended");
  EXPECT_TRUE(ended_.empty());
  look();
  ASSERT_EQ(ended_.size(), 1u);
  EXPECT_EQ(ended_[0], "did not answer for 5.0 s and was ended");
}

TEST_F(WatchdogTest, WhoAnswersAtTheLastMomentStays) {
  looks(5);
  ASSERT_EQ(told_.size(), 1u);
  answer(a_);
  look();
  EXPECT_TRUE(ended_.empty());
  ASSERT_EQ(told_.size(), 2u);
  EXPECT_NE(told_[1].find("answers after 5.0 s; is left alone"), std::string::npos);
}

TEST_F(WatchdogTest, TimeInWhichTheMachineRanOthersDoesNotCount) {
  look();
  looksAt(50, 'R', 20, 980);
  EXPECT_TRUE(told_.empty());
  looksAt(3, 'R', 1000, 0);
  EXPECT_EQ(told_.size(), 1u);
}

TEST_F(WatchdogTest, ALoaderThatStoodStillReadsWhatHasComeFirst) {
  look();
  look(1000);
  EXPECT_TRUE(told_.empty());
  answer(a_);
  look();
  EXPECT_TRUE(told_.empty());
}

TEST_F(WatchdogTest, AStoppedProcessIsLeftAloneAndThatIsToldOnce) {
  look();
  looksAt(20, 'T', 0, 0);
  EXPECT_TRUE(ended_.empty());
  ASSERT_EQ(told_.size(), 1u);
  EXPECT_NE(told_[0].find("has not answered for 4.0 s, as it is stopped, or traced; is left alone"),
            std::string::npos);
  looksAt(4, 'S', 0, 0);
  EXPECT_EQ(told_.size(), 2u);
}

TEST_F(WatchdogTest, WaitingForADiskDoesNotCount) {
  look();
  looksAt(20, 'D', 0, 0);
  EXPECT_TRUE(told_.empty());
}

TEST_F(WatchdogTest, WhoWaitsForAnotherIsLeftAloneAndTheEndOfTheChainIsNamed) {
  Service& c = connected(services_, 30);
  wait(a_, b_);
  wait(b_, c);
  looks(20);
  EXPECT_TRUE(ended_.empty());
  ASSERT_EQ(told_.size(), 1u);
  EXPECT_NE(told_[0].find("as it waits for s20 (20"), std::string::npos);
  EXPECT_NE(told_[0].find("which waits for s30 (30"), std::string::npos);
}

TEST_F(WatchdogTest, TheOneAtTheEndOfTheChainIsEnded) {
  watchdog_.watch(20, 4);
  wait(a_, b_);
  looks(6);
  EXPECT_EQ(ended_.size(), 1u);
  ASSERT_EQ(told_.size(), 2u);
  EXPECT_TRUE(told_[0].starts_with("s10"));
  EXPECT_TRUE(told_[1].starts_with("s20"));
}

TEST_F(WatchdogTest, ACircleIsToldAndEndsNobody) {
  wait(a_, b_);
  wait(b_, a_);
  looks(20);
  EXPECT_TRUE(ended_.empty());
  EXPECT_EQ(told_.size(), 1u);
}

TEST_F(WatchdogTest, WhoRunsWithoutEndWaitsForNobody) {
  wait(a_, b_);
  look();
  looksAt(5, 'R', 1000, 0);
  EXPECT_EQ(ended_.size(), 1u);
}

TEST_F(WatchdogTest, WhoSaysSomethingElseIsAlive) {
  for (int i = 0; i < 20; ++i) {
    look();
    ++a_.traffic.messagesOut;
  }
  EXPECT_TRUE(told_.empty());
  EXPECT_EQ(takeMessages(a_).size(), 1u);
}

TEST_F(WatchdogTest, AProbeOfSomebodyElseIsItsOwn) {
  ASSERT_TRUE(probes_.ask(a_));
  looks(6);
  EXPECT_EQ(takeMessages(a_).size(), 1u);
  EXPECT_EQ(ended_.size(), 1u);
}

TEST_F(WatchdogTest, ItsNextProcessHasItsOwnTime) {
  looks(4);
  a_.pid = 1;
  probes_.forget(a_);
  looks(4);
  EXPECT_TRUE(told_.empty());
}

TEST_F(WatchdogTest, WhoDoesNotRunYetIsNotAsked) {
  for (const auto state : {loader::LifeState::kRegistered, loader::LifeState::kLeaving,
                           loader::LifeState::kGuestRunning, loader::LifeState::kStopping}) {
    a_.life = state;
    looks(10);
  }
  EXPECT_TRUE(takeMessages(a_).empty());
  EXPECT_TRUE(told_.empty());
}

TEST_F(WatchdogTest, WithoutATimeNobodyIsAsked) {
  watchdog_.watch(10, 0);
  looks(10);
  EXPECT_TRUE(takeMessages(a_).empty());
}

TEST_F(WatchdogTest, AProcessThatHasEndedIsTheLifecyclesAffair) {
  isThere_ = false;
  looks(10);
  EXPECT_TRUE(told_.empty());
}

}  // namespace

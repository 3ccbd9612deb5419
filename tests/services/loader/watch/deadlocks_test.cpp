#include "services/loader/watch/deadlocks.h"

#include <gtest/gtest.h>

#include "tests/services/loader/fixture.h"

namespace {

using namespace loader::test;
using loader::Deadlocks;
using loader::Service;

class DeadlocksTest : public testing::Test {
 protected:
  void wait(Service& asker, Service& asked, unsigned int command = kl::CMD_GET) {
    const auto body = flat(request({0}, command, ++lastId_, {7}));
    loader::Envelope e;
    ASSERT_EQ(loader::readEnvelope(body, e), nullptr);
    requests_.add(asker, asked, e, e.path(), now_);
    deadlocks_.onChain();
  }
  void closeCircle() {
    wait(a_, b_);
    wait(b_, a_, kl::CMD_SET);
    now_.seconds += 1;
  }

  // The number of the probe that a service has been sent; 0: none.
  static unsigned int probeOf(Service& service) {
    const kl::message probe = takeOnly(service);
    if (probe.get(kl::SYS_CMD, 99) != kl::CMD_NOOP || !probe.get(kl::SYS_REPLYEXP, false)) return 0;
    EXPECT_EQ(probe.get(kl::SYS_FROM, {}), (Ids{1, kl::LOADER_REQUESTS}));
    return probe.get(kl::SYS_REQID, 0);
  }

  void answer(Service& service, unsigned int probe) {
    if (probes_.onAnswer(service, probe)) deadlocks_.onAnswer(service);
  }
  void forget(const Service& service) {
    probes_.forget(service);
    deadlocks_.forget(service);
  }

  kl::ThinRunner runner_;
  loader::ServiceTable services_;
  loader::OpenRequests requests_{1};
  loader::Outbox outbox_{1 << 20};
  loader::Probes probes_{outbox_};
  common::Moment now_{100};
  std::vector<std::string> told_;
  int written_ = 0;
  unsigned int lastId_ = 0;
  Deadlocks deadlocks_{runner_,
                       services_,
                       requests_,
                       probes_,
                       [this] { return now_; },
                       [this](const std::string& line) { told_.push_back(line); },
                       [this] { ++written_; }};
  Service& a_ = connected(services_, 10);
  Service& b_ = connected(services_, 20);
};

TEST_F(DeadlocksTest, NobodyIsAskedWhereThereIsNoCircle) {
  wait(a_, b_);
  now_.seconds += 1;
  deadlocks_.onTimer();
  EXPECT_TRUE(deadlocks_.isAtRest());
  EXPECT_TRUE(takeMessages(a_).empty());
  EXPECT_TRUE(takeMessages(b_).empty());
}

TEST_F(DeadlocksTest, ACircleInWhichNobodyAnswersIsNamedWithAllItsMembers) {
  a_.pid = 812;
  b_.pid = 813;
  closeCircle();
  deadlocks_.onTimer();
  EXPECT_NE(probeOf(a_), 0u);
  EXPECT_NE(probeOf(b_), 0u);
  EXPECT_EQ(written_, 1);
  EXPECT_TRUE(told_.empty());
  deadlocks_.onTimer();
  ASSERT_EQ(told_.size(), 1u);
  EXPECT_EQ(
      told_[0],
      "a circle of requests: s10 (10, pid 812) waits for s20 (CMD_GET), s20 (20, pid 813) waits for s10 "
      "(CMD_SET); none of them answers");
  EXPECT_TRUE(deadlocks_.isAtRest());
}

TEST_F(DeadlocksTest, OneAnswerSuffices) {
  closeCircle();
  deadlocks_.onTimer();
  answer(b_, probeOf(b_));
  deadlocks_.onTimer();
  EXPECT_TRUE(told_.empty());
  EXPECT_TRUE(deadlocks_.isAtRest());
}

TEST_F(DeadlocksTest, WhoHasAnsweredAndThenWaitsIsLookedAtOnceMore) {
  closeCircle();
  deadlocks_.onTimer();
  answer(b_, probeOf(b_));
  wait(b_, a_);
  deadlocks_.onTimer();
  EXPECT_FALSE(deadlocks_.isAtRest());
  now_.seconds += 1;
  deadlocks_.onTimer();
  EXPECT_NE(probeOf(b_), 0u);
  deadlocks_.onTimer();
  EXPECT_EQ(told_.size(), 1u);
}

TEST_F(DeadlocksTest, AnotherNumberIsNoAnswer) {
  closeCircle();
  deadlocks_.onTimer();
  answer(b_, probeOf(b_) + 1);
  answer(a_, probeOf(b_));
  deadlocks_.onTimer();
  EXPECT_EQ(told_.size(), 1u);
}

TEST_F(DeadlocksTest, ACircleIsNamedOnce) {
  closeCircle();
  deadlocks_.onTimer();
  deadlocks_.onTimer();
  wait(a_, b_);
  now_.seconds += 1;
  deadlocks_.onTimer();
  EXPECT_EQ(told_.size(), 1u);
  EXPECT_TRUE(deadlocks_.isAtRest());
}

TEST_F(DeadlocksTest, WhoHasNotAnsweredAProbeGetsNoSecondOne) {
  Service& c = connected(services_, 30);
  closeCircle();
  deadlocks_.onTimer();
  const unsigned int ofB = probeOf(b_);
  answer(a_, probeOf(a_));  // no deadlock, and b still has its probe
  deadlocks_.onTimer();
  requests_.forgetOldestFrom(a_);
  wait(b_, c);
  wait(c, b_);
  now_.seconds += 1;
  deadlocks_.onTimer();
  EXPECT_NE(probeOf(c), 0u);
  EXPECT_EQ(probeOf(b_), 0u);
  EXPECT_NE(ofB, 0u);
  deadlocks_.onTimer();
  EXPECT_EQ(told_.size(), 1u) << "the one of b that is open counts";
}

TEST_F(DeadlocksTest, ACircleThatComesAgainIsNamedAgain) {
  closeCircle();
  deadlocks_.onTimer();
  const unsigned int ofA = probeOf(a_);
  const unsigned int ofB = probeOf(b_);
  deadlocks_.onTimer();
  answer(a_, ofA);  // something has ended it
  answer(b_, ofB);
  wait(a_, b_);
  now_.seconds += 1;
  deadlocks_.onTimer();
  deadlocks_.onTimer();
  EXPECT_EQ(told_.size(), 2u);
}

TEST_F(DeadlocksTest, BehindWhoAnswersAnotherCircleMayStand) {
  Service& c = connected(services_, 30);
  closeCircle();
  wait(b_, c);
  wait(c, b_);
  now_.seconds += 1;
  deadlocks_.onTimer();
  answer(a_, probeOf(a_));
  deadlocks_.onTimer();
  EXPECT_NE(probeOf(c), 0u);
  deadlocks_.onTimer();
  ASSERT_EQ(told_.size(), 1u);
  EXPECT_NE(told_[0].find("s30 (30) waits for s20"), std::string::npos) << told_[0];
}

TEST_F(DeadlocksTest, AYoungCircleIsLookedAtAgain) {
  wait(a_, b_);
  wait(b_, a_);
  deadlocks_.onTimer();
  EXPECT_FALSE(deadlocks_.isAtRest());
  EXPECT_TRUE(takeMessages(a_).empty());
  now_.milliseconds += 50;
  deadlocks_.onTimer();
  EXPECT_NE(probeOf(a_), 0u);
}

TEST_F(DeadlocksTest, AMemberThatIsGoneIsNoMember) {
  closeCircle();
  deadlocks_.onTimer();
  requests_.forgetOldestFrom(a_);
  requests_.forgetOldestFrom(b_);
  a_.disconnect();
  forget(a_);
  deadlocks_.onTimer();
  EXPECT_TRUE(told_.empty());
}

TEST_F(DeadlocksTest, CirclesThatAreMadeOnPurposeDoNotFillTheLog) {
  std::vector<Service*> pairs;
  for (unsigned int id = 100; id < 120; ++id) pairs.push_back(&connected(services_, id));
  for (std::size_t i = 0; i < pairs.size(); i += 2) {
    wait(*pairs[i], *pairs[i + 1]);
    wait(*pairs[i + 1], *pairs[i]);
  }
  now_.seconds += 1;
  deadlocks_.onTimer();
  while (!deadlocks_.isAtRest()) deadlocks_.onTimer();
  EXPECT_EQ(told_.size(), Deadlocks::kMostLines);
  now_.seconds += Deadlocks::kLineSeconds;
  closeCircle();
  deadlocks_.onTimer();
  deadlocks_.onTimer();
  ASSERT_EQ(told_.size(), Deadlocks::kMostLines + 1);
  EXPECT_TRUE(told_.back().ends_with("; 5 more were not told")) << told_.back();
}

}  // namespace

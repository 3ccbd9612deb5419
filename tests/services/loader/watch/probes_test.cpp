#include "services/loader/watch/probes.h"

#include <gtest/gtest.h>

#include "tests/services/loader/fixture.h"

namespace {

using namespace loader::test;
using loader::Service;

class ProbesTest : public testing::Test {
 protected:
  loader::ServiceTable services_;
  loader::Outbox outbox_{1 << 20};
  loader::Probes probes_{outbox_};
  Service& service_ = connected(services_, 10);
};

TEST_F(ProbesTest, OneIsOpenUntilItsAnswerComes) {
  EXPECT_FALSE(probes_.isOpen(service_));
  ASSERT_TRUE(probes_.ask(service_));
  const unsigned int id = takeOnly(service_).get(kl::SYS_REQID, 0);
  EXPECT_TRUE(probes_.isOpen(service_));
  EXPECT_FALSE(probes_.onAnswer(service_, id + 1));
  EXPECT_TRUE(probes_.onAnswer(service_, id));
  EXPECT_FALSE(probes_.isOpen(service_));
  EXPECT_FALSE(probes_.onAnswer(service_, id));
}

TEST_F(ProbesTest, NobodyIsAskedTwice) {
  ASSERT_TRUE(probes_.ask(service_));
  ASSERT_TRUE(probes_.ask(service_));
  EXPECT_EQ(takeMessages(service_).size(), 1u);
}

TEST_F(ProbesTest, WhoGetsNothingElseStaysIdle) {
  service_.lastActive = 5;
  ASSERT_TRUE(probes_.ask(service_));
  const unsigned int id = takeOnly(service_).get(kl::SYS_REQID, 0);
  ++service_.traffic.messagesOut;
  service_.lastActive = 9;
  ASSERT_TRUE(probes_.onAnswer(service_, id));
  EXPECT_EQ(service_.lastActive, 5u);
}

TEST_F(ProbesTest, WhoSaysMoreIsNotIdle) {
  ASSERT_TRUE(probes_.ask(service_));
  const unsigned int id = takeOnly(service_).get(kl::SYS_REQID, 0);
  service_.traffic.messagesOut += 2;
  service_.lastActive = 9;
  ASSERT_TRUE(probes_.onAnswer(service_, id));
  EXPECT_EQ(service_.lastActive, 9u);
}

TEST_F(ProbesTest, ItEndsWithItsService) {
  ASSERT_TRUE(probes_.ask(service_));
  probes_.forget(service_);
  EXPECT_FALSE(probes_.isOpen(service_));
}

TEST(Probes, WhoseQueueHasNoRoomIsNotAsked) {
  loader::ServiceTable services;
  loader::Outbox outbox(16);
  loader::Probes probes(outbox);
  Service& service = connected(services, 10);
  while (outbox.send(service, request({10}, kl::CMD_GET, 1, {7}), loader::Urgency::kOrdinary)) {
  }
  EXPECT_FALSE(probes.ask(service));
  EXPECT_FALSE(probes.isOpen(service));
}

}  // namespace

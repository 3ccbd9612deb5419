#include "services/loader/admission/denials.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include "kl/message.h"
#include "services/common/descriptor.h"
#include "tests/services/loader/fixture.h"

namespace {

using namespace loader::test;
using loader::Access;
using loader::Denials;
using loader::Envelope;
using loader::Service;

class DenialsTest : public testing::Test {
 protected:
  void SetUp() override {
    int ends[2] = {};
    ASSERT_EQ(::pipe2(ends, O_NONBLOCK | O_CLOEXEC), 0);
    out_ = common::Descriptor(ends[0]);
    in_ = common::Descriptor(ends[1]);
    log_ = std::make_unique<loader::Log>(in_.get());
    denials_ = std::make_unique<Denials>(configuration_, *log_);
    sender_.name = "netif";
    sender_.user = "bob";
  }

  // The lines about one more request of a user.
  std::string report(uid_t uid, unsigned int now, const kl::message& m = request({24, 3}, 0x60001, 5)) {
    frame_ = flat(m);
    Envelope e;
    EXPECT_EQ(readEnvelope(frame_, e), nullptr);
    Access access;
    access.denial = denial_;
    access.missing = kl::RIGHT_CONTROL;
    sender_.uid = uid;
    denials_->report(sender_, e, e.path()[0], e.path().withoutFirst(), access, now);
    char lines[4096];
    const ssize_t got = ::read(out_.get(), lines, sizeof lines);
    return got > 0 ? std::string(lines, static_cast<std::size_t>(got)) : "";
  }

  loader::Configuration configuration_;
  common::Descriptor out_;
  common::Descriptor in_;
  std::unique_ptr<loader::Log> log_;
  std::unique_ptr<Denials> denials_;
  Access::Denial denial_ = Access::Denial::kLacksRight;
  Service sender_{500};
  std::vector<unsigned char> frame_;
};

TEST_F(DenialsTest, ALineNamesTheCommandThatExplainsIt) {
  EXPECT_EQ(
      report(7001, 0),
      "kl-loader: netif (500): 0x60001 to 24/3 is not allowed: lacks the right control; see: klctl rights "
      "explain bob 24/3 0x60001\n");
  configuration_.services.emplace_back();
  configuration_.services[0].id = 24;
  configuration_.services[0].name = "system";
  EXPECT_NE(report(7001, 0, request({24}, kl::CMD_SET, 5)).find("explain bob system CMD_SET\n"),
            std::string::npos);
  configuration_.services[0].name = "a b";  // no word for a shell
  EXPECT_NE(report(7001, 0, request({24}, kl::CMD_SET, 5)).find("explain bob 24 CMD_SET\n"),
            std::string::npos);
  EXPECT_NE(report(7001, 0, request({1}, kl::CMD_SETOBJ, 5)).find("explain bob loader CMD_SETOBJ\n"),
            std::string::npos);
}

TEST_F(DenialsTest, AServiceWithRightsOfItsOwnIsTheSenderOfTheQuestion) {
  configuration_.services.emplace_back();
  configuration_.services[0].id = 500;
  configuration_.services[0].name = "netif";
  EXPECT_NE(report(7001, 0).find("explain bob 24/3 0x60001\n"), std::string::npos);
  configuration_.services[0].rights = loader::Rights::of(64);
  EXPECT_NE(report(7001, 0).find("explain --sender netif bob 24/3 0x60001\n"), std::string::npos);
  configuration_.services[0].name = "a b";
  EXPECT_NE(report(7001, 0).find("explain --sender 500 bob 24/3 0x60001\n"), std::string::npos);
}

TEST_F(DenialsTest, ALineAboutAGatewayIsAboutTheUserWhomItNames) {
  kl::message m = request({24, 3}, kl::CMD_SET, 5);
  m.insert(kl::SYS_USER, "alice");
  EXPECT_NE(report(7001, 0, m).find("explain bob 24/3 CMD_SET\n"), std::string::npos) << "it is none";
  sender_.rights.speaksFor = std::make_shared<loader::UsersSpokenFor>();
  EXPECT_EQ(report(7001, 0, m),
            "kl-loader: netif (500): CMD_SET to 24/3 in the name of alice is not allowed: lacks the right "
            "control; see: klctl rights explain alice 24/3 CMD_SET\n");
  m.insert(kl::SYS_POLICY, 64);
  EXPECT_NE(report(7001, 0, m).find("in the name of alice, limited to read is not"), std::string::npos);
  denial_ = Access::Denial::kForeignUser;
  m.insert(kl::SYS_USER, "\x1b[2J");
  EXPECT_EQ(report(7001, 0, m),
            "kl-loader: netif (500): CMD_SET to 24/3 is not allowed: names a user for whom it does not "
            "speak; see: the key speaks_for of netif\n");
}

TEST_F(DenialsTest, AUserHasFiveLinesAtOnceAndOneMoreForEachSecond) {
  for (unsigned int i = 0; i < Denials::kBurst; ++i) EXPECT_NE(report(7001, 10), "") << i;
  for (int i = 0; i < 3; ++i) EXPECT_EQ(report(7001, 10), "");
  EXPECT_NE(report(7002, 10), "");  // another user has his own
  EXPECT_NE(report(7001, 11).find("(and 3 more without a line)\n"), std::string::npos);
  EXPECT_EQ(report(7001, 11), "");
  for (unsigned int i = 0; i < Denials::kBurst; ++i) EXPECT_NE(report(7001, 1000), "") << i;
  EXPECT_EQ(report(7001, 1000), "");
}

TEST_F(DenialsTest, TooManyUsersShareOneBucket) {
  for (uid_t uid = 0; uid < Denials::kMostUsers; ++uid)
    for (unsigned int i = 0; i < Denials::kBurst; ++i) EXPECT_NE(report(7000 + uid, 10), "");
  unsigned int lines = 0;
  for (uid_t uid = 0; uid < 100; ++uid)
    if (!report(8000 + uid, 10).empty()) ++lines;
  EXPECT_EQ(lines, Denials::kBurst);
  for (uid_t uid = 0; uid < Denials::kMostUsers; ++uid)
    EXPECT_NE(report(8000 + uid, 100), "") << uid;  // the others have rested and make room
}

}  // namespace

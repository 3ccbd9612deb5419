#include "services/loader/routing/access.h"

#include <gtest/gtest.h>

#include "kl/message.h"
#include "services/loader/admission/rights.h"
#include "tests/support/builders.h"

namespace {

using kl::test::flat;
using loader::Access;
using loader::CommandRights;
using loader::DestinationRules;
using loader::Envelope;
using loader::Rights;
using loader::SenderRights;

// A sender with rights of its own at each of three access lists.
SenderRights bob(const Rights& rights, const Rights& atFirst = Rights::nothing()) {
  SenderRights result = loader::equalRights("bob", rights);
  result.grants.push_back({atFirst, loader::rightsRecords("bob", atFirst)});
  return result;
}

class AccessTest : public testing::Test {
 protected:
  Access decide(const SenderRights& sender, const kl::message& m, const DestinationRules& to = {}) {
    frame_ = flat(m);
    Envelope e;
    EXPECT_EQ(readEnvelope(frame_, e), nullptr);
    return Access::decide(sender, e, to);
  }
  Access decide(const SenderRights& sender, unsigned int command, const DestinationRules& to = {}) {
    return decide(sender, kl::test::request({24}, command, 5), to);
  }

  std::vector<unsigned char> frame_;
};

TEST_F(AccessTest, ARequestCarriesTheRightsOfItsSenderAtItsDestination) {
  const SenderRights sender = bob(Rights::of(64), Rights::of(64 | 128));
  for (const unsigned int list : {0u, 1u}) {
    const Access access = decide(sender, kl::CMD_SET, {list, nullptr});
    EXPECT_FALSE(access.isDenied());
    EXPECT_TRUE(access.mark.replaces);
    EXPECT_EQ(access.mark.records.data(), sender.grants[list].records.data());
  }
}

TEST_F(AccessTest, WithoutAnyRightNoRequestIsDelivered) {
  const Access access = decide(bob(Rights::of(64)), kl::CMD_GET, {1, nullptr});
  EXPECT_EQ(access.denial, Access::Denial::kNoRights);
  EXPECT_EQ(access.reason(), "has no rights there");
  EXPECT_FALSE(decide(bob(Rights::of(0)), kl::CMD_SET).isDenied());  // rights of no bit are rights
}

TEST_F(AccessTest, ASenderWithoutGrantsIsDenied) {
  EXPECT_TRUE(decide(SenderRights(), kl::CMD_GET).isDenied());
  EXPECT_TRUE(decide(bob(Rights::of(64)), kl::CMD_GET, {2, nullptr}).isDenied());
}

TEST_F(AccessTest, RepliesAndMessagesWithoutACommandPassAsTheyCame) {
  kl::message reply = kl::test::replyTo({24}, 5);
  kl::message plain;
  plain.insert(kl::SYS_TO, {24});
  for (const kl::message& m : {reply, plain}) {
    const Access access = decide(bob(Rights::nothing()), m);
    EXPECT_FALSE(access.isDenied());
    EXPECT_FALSE(access.mark.replaces);
    EXPECT_TRUE(access.mark.records.empty());
  }
}

TEST_F(AccessTest, TheTrustedPassWithWhatTheyCarryAndAtLeastTheirName) {
  const SenderRights root = loader::trustedRights("root");
  const CommandRights none;
  const Access unnamed = decide(root, kl::CMD_SET, {7, &none});
  EXPECT_FALSE(unnamed.isDenied());
  EXPECT_FALSE(unnamed.mark.replaces);
  EXPECT_EQ(unnamed.mark.records.data(), root.user.data());
  kl::message m = kl::test::request({24}, kl::CMD_SET, 5);
  m.insert(kl::SYS_USER, "somebody");
  EXPECT_TRUE(decide(root, m).mark.records.empty());
}

TEST_F(AccessTest, AListOfCommandsSaysWhatEachNeeds) {
  const CommandRights commands{{kl::CMD_GET, 64}, {0x60001, 64 | 512}};
  const DestinationRules to{0, &commands};
  const SenderRights reader = bob(Rights::of(64));
  EXPECT_FALSE(decide(reader, kl::CMD_GET, to).isDenied());
  const Access lacking = decide(reader, 0x60001, to);
  EXPECT_EQ(lacking.denial, Access::Denial::kLacksRight);
  EXPECT_EQ(lacking.missing, 512u);
  EXPECT_EQ(lacking.reason(), "lacks the right control");
  EXPECT_FALSE(decide(bob(Rights::of(64 | 512)), 0x60001, to).isDenied());
  const Access unlisted = decide(reader, 0x60002, to);
  EXPECT_EQ(unlisted.denial, Access::Denial::kUnlisted);
  EXPECT_EQ(unlisted.reason(), "sends a command that is not listed there");
  EXPECT_FALSE(decide(reader, 0x60002).isDenied());  // without a list the destination decides
}

// A gateway that may only read, and speaks for alice, who may change nothing at the first access list.
SenderRights gateway() {
  const auto users = std::make_shared<loader::UsersSpokenFor>();
  SenderRights alice = loader::equalRights("alice", Rights::of(64 | 128 | 1024));
  alice.user = loader::trustedRights("alice").user;
  alice.grants.push_back({Rights::of(64), {}});
  alice.grants.push_back({Rights::nothing(), {}});
  users->add("alice", alice);
  SenderRights result = loader::equalRights("web", Rights::of(64));
  result.speaksFor = users;
  return result;
}

kl::message inNameOf(const std::string& user, unsigned int command = kl::CMD_SET) {
  kl::message m = kl::test::request({24}, command, 5);
  m.insert(kl::SYS_USER, user);
  return m;
}

TEST_F(AccessTest, AGatewaysRequestHasTheRightsOfTheUserThatItNames) {
  const SenderRights sender = gateway();
  const Access access = decide(sender, inNameOf("alice"));
  EXPECT_FALSE(access.isDenied());
  EXPECT_TRUE(access.mark.replaces);
  EXPECT_TRUE(access.mark.addsPolicy);
  EXPECT_EQ(access.mark.policy, 64u | 128 | 1024);
  const auto& records = access.mark.records;
  EXPECT_EQ(std::vector(records.begin(), records.end()), loader::trustedRights("alice").user);
}

TEST_F(AccessTest, TheRightsOfTheNamedUserAreThoseAtTheDestination) {
  const SenderRights sender = gateway();
  EXPECT_EQ(decide(sender, inNameOf("alice"), {1, nullptr}).mark.policy, 64u);
  EXPECT_EQ(decide(sender, inNameOf("alice"), {2, nullptr}).denial, Access::Denial::kNoRights);
  EXPECT_TRUE(decide(sender, inNameOf("alice"), {3, nullptr}).isDenied());
}

TEST_F(AccessTest, ThePolicyOfTheRequestLimitsTheRightsOfTheNamedUser) {
  const SenderRights sender = gateway();
  for (const auto& [asked, given] :
       {std::pair{64u, 64u}, {128u | 512, 128u}, {0u, 0u}, {kl::RIGHTS_ALL, 1216u}}) {
    kl::message m = inNameOf("alice");
    m.insert(kl::SYS_POLICY, asked);
    EXPECT_EQ(decide(sender, m).mark.policy, given);
  }
  const CommandRights commands{{kl::CMD_SET, 128}};
  kl::message m = inNameOf("alice");
  EXPECT_FALSE(decide(sender, m, {0, &commands}).isDenied());
  m.insert(kl::SYS_POLICY, 64);
  EXPECT_EQ(decide(sender, m, {0, &commands}).denial, Access::Denial::kLacksRight);
}

TEST_F(AccessTest, NobodySpeaksForAUserWhereHeMayDoEverything) {
  const auto users = std::make_shared<loader::UsersSpokenFor>();
  users->add("alice", bob(Rights::everything(), Rights::of(64)));
  SenderRights sender = loader::equalRights("web", Rights::of(64));
  sender.speaksFor = users;
  EXPECT_EQ(decide(sender, inNameOf("alice")).denial, Access::Denial::kForeignUser);
  EXPECT_EQ(decide(sender, inNameOf("alice"), {1, nullptr}).bits, 64u);
}

TEST_F(AccessTest, AGatewaySpeaksForNobodyElse) {
  const SenderRights sender = gateway();
  for (const char* user : {"root", "bob", "web", "", "alice ", "Alice"}) {
    const Access access = decide(sender, inNameOf(user));
    EXPECT_EQ(access.denial, Access::Denial::kForeignUser) << user;
    EXPECT_EQ(access.reason(), "names a user for whom it does not speak");
  }
}

TEST_F(AccessTest, ARequestOfAGatewayThatNamesNobodyIsItsOwn) {
  const SenderRights sender = gateway();
  kl::message m = kl::test::request({24}, kl::CMD_SET, 5);
  m.insert(kl::SYS_POLICY, kl::RIGHTS_ALL);
  const Access access = decide(sender, m);
  EXPECT_EQ(access.bits, 64u);
  EXPECT_EQ(access.mark.records.data(), sender.grants[0].records.data());
}

TEST_F(AccessTest, WhoIsNoGatewaySpeaksForNobody) {
  const SenderRights sender = bob(Rights::of(64));
  const Access access = decide(sender, inNameOf("alice"));
  EXPECT_FALSE(access.isDenied());
  EXPECT_TRUE(access.mark.replaces);
  EXPECT_EQ(access.mark.records.data(), sender.grants[0].records.data());
}

TEST_F(AccessTest, AGatewayEndsWhatLiesBehindIt) {
  const Access access = decide(gateway(), kl::CMD_DISCONNECTED, {2, nullptr});
  EXPECT_FALSE(access.isDenied());
  EXPECT_TRUE(access.mark.replaces);
  EXPECT_TRUE(access.mark.records.empty());
  EXPECT_FALSE(access.mark.addsPolicy);
  EXPECT_FALSE(decide(bob(Rights::of(64)), kl::CMD_DISCONNECTED).mark.records.empty());
}

TEST_F(AccessTest, WhoMayReadSomewhereIsAskedByHisGrantThere) {
  EXPECT_TRUE(Access::mayRead(bob(Rights::of(64)), "bob", {}));
  EXPECT_FALSE(Access::mayRead(bob(Rights::of(128)), "bob", {}));
  EXPECT_FALSE(Access::mayRead(bob(Rights::nothing()), "bob", {}));
  EXPECT_FALSE(Access::mayRead({}, "", {}));
  SenderRights trusted;
  trusted.isTrusted = true;
  EXPECT_TRUE(Access::mayRead(trusted, "", {5, nullptr}));
}

TEST_F(AccessTest, WhomAGatewaySpeaksForReadsByHisOwnGrant) {
  const SenderRights sender = gateway();
  for (const unsigned int list : {0u, 1u, 2u})
    EXPECT_EQ(Access::mayRead(sender, "alice", {list, nullptr}),
              !decide(sender, inNameOf("alice"), {list, nullptr}).isDenied() &&
                  (decide(sender, inNameOf("alice"), {list, nullptr}).bits & 64) != 0)
        << list;
}

}  // namespace

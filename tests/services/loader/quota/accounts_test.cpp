#include "services/loader/quota/accounts.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <map>

namespace {

using loader::Account;
using loader::Accounts;
using loader::Charge;
using loader::Limits;
using loader::Part;
using loader::Resource;

constexpr uid_t kAlice = 1000;
constexpr uid_t kBob = 1001;
constexpr uid_t kOwn = 900;
constexpr Resource kBytes = Resource::kQueueBytes;

Limits smallLimits() {
  Limits limits;
  limits.user[kBytes] = 800;
  limits.all[kBytes] = 1000;
  limits.reserve[kBytes] = 1600;
  return limits;
}

class AccountsTest : public testing::Test {
 protected:
  Accounts accounts_{smallLimits(), kOwn};
  Account& alice_ = accounts_.ofUser(kAlice, 0);
  Account& bob_ = accounts_.ofUser(kBob, 0);
};

TEST_F(AccountsTest, AUserMayTakeHisLimitAndNoByteMore) {
  EXPECT_TRUE(alice_.hasRoomFor(kBytes, 800));
  EXPECT_FALSE(alice_.hasRoomFor(kBytes, 801));
  alice_.take(kBytes, 500);
  EXPECT_TRUE(alice_.hasRoomFor(kBytes, 300));
  EXPECT_FALSE(alice_.hasRoomFor(kBytes, 301));
  alice_.giveBack(kBytes, 500);
  EXPECT_TRUE(alice_.hasRoomFor(kBytes, 800));
}

TEST_F(AccountsTest, UsersTogetherMayTakeWhatIsForAll) {
  alice_.take(kBytes, 800);
  EXPECT_TRUE(bob_.hasRoomFor(kBytes, 200));
  EXPECT_FALSE(bob_.hasRoomFor(kBytes, 201));
}

TEST_F(AccountsTest, OneResourceIsNotTakenFromAnother) {
  alice_.take(kBytes, 800);
  EXPECT_TRUE(alice_.hasRoomFor(Resource::kFrameBytes, 1000));
}

TEST_F(AccountsTest, AllConnectionsOfAUserHaveOneAccount) {
  EXPECT_EQ(&accounts_.ofUser(kAlice, 0), &alice_);
  EXPECT_NE(&bob_, &alice_);
}

TEST_F(AccountsTest, WhatUsersTakeLeavesTheReserve) {
  alice_.take(kBytes, 800);
  bob_.take(kBytes, 200);
  EXPECT_TRUE(accounts_.ofUser(0, 0).hasRoomFor(kBytes, 800));
  EXPECT_TRUE(accounts_.ofUser(kOwn, 0).hasRoomFor(kBytes, 800));
  EXPECT_TRUE(accounts_.ofService(32).hasRoomFor(kBytes, 800));
}

TEST_F(AccountsTest, OneOfTheReserveGetsThreeQuartersOfItAtMost) {
  Account& netif = accounts_.ofService(32);
  EXPECT_TRUE(netif.hasRoomFor(kBytes, 1200));
  EXPECT_FALSE(netif.hasRoomFor(kBytes, 1201));
  netif.take(kBytes, 1200);
  EXPECT_TRUE(accounts_.ofUser(0, 0).hasRoomFor(kBytes, 400));
  accounts_.ofUser(kOwn, 0).take(kBytes, 100);
  EXPECT_FALSE(accounts_.ofUser(0, 0).hasRoomFor(kBytes, 301));
}

TEST_F(AccountsTest, AServiceIsAccountedByItsName) {
  EXPECT_EQ(&accounts_.ofService(32), &accounts_.ofService(32));
  EXPECT_NE(&accounts_.ofService(32), &accounts_.ofService(33));
}

TEST_F(AccountsTest, RequestsLeaveRoomForRepliesAndRepliesForTheLoadersWords) {
  EXPECT_TRUE(alice_.hasRoomFor(kBytes, 600, Part::kMost));
  EXPECT_FALSE(alice_.hasRoomFor(kBytes, 601, Part::kMost));
  EXPECT_TRUE(alice_.hasRoomFor(kBytes, 700, Part::kReplies));
  EXPECT_FALSE(alice_.hasRoomFor(kBytes, 701, Part::kReplies));
  EXPECT_TRUE(alice_.hasRoomFor(kBytes, 800, Part::kWhole));
}

TEST_F(AccountsTest, WhatWasTakenWithoutAskingIsOver) {
  alice_.take(kBytes, 800);
  EXPECT_FALSE(alice_.isOver(kBytes));
  alice_.take(kBytes, 1);
  EXPECT_TRUE(alice_.isOver(kBytes));
}

TEST_F(AccountsTest, AccountsOfUsersThatTakeNothingDoNotAddUp) {
  Charge kept;
  kept.bind(&alice_, kBytes);
  kept.set(5);
  for (uid_t uid = 2000; uid < 12000; ++uid) (void)accounts_.ofUser(uid, uid);
  EXPECT_LT(accounts_.users(), 100u);
  EXPECT_EQ(accounts_.ofUser(kAlice, 12000).used(kBytes), 5u);
}

TEST_F(AccountsTest, RandomStepsLeaveThePoolWithTheSumOfItsAccounts) {
  unsigned int seed = 4711;
  const auto random = [&] { return (seed = seed * 1664525 + 1013904223) >> 8; };
  std::map<uid_t, Charge> charges;
  std::map<uid_t, std::size_t> model;
  for (int step = 0; step < 10000; ++step) {
    const uid_t uid = kAlice + random() % 5;
    charges[uid].bind(&accounts_.ofUser(uid, 0), kBytes);
    charges[uid].set(model[uid] = random() % 150);
    if (random() % 8 == 0) {
      charges.erase(uid);
      model.erase(uid);
    }
    std::size_t sum = 0;
    for (const auto& [user, amount] : model) {
      sum += amount;
      ASSERT_EQ(accounts_.ofUser(user, 0).used(kBytes), amount);
    }
    ASSERT_TRUE(bob_.hasRoomFor(kBytes, std::min<std::size_t>(1000 - sum, 800 - bob_.used(kBytes))));
    ASSERT_FALSE(bob_.hasRoomFor(kBytes, 1001 - sum));
  }
}

TEST(Charge, ItGivesBackWhatItTookWhenItGoes) {
  Accounts accounts(smallLimits(), kOwn);
  Account& alice = accounts.ofUser(kAlice, 0);
  {
    Charge charge;
    charge.set(70);
    EXPECT_EQ(alice.used(kBytes), 0u);
    charge.bind(&alice, kBytes);
    EXPECT_EQ(alice.used(kBytes), 70u);
    charge.set(30);
    EXPECT_EQ(alice.used(kBytes), 30u);
  }
  EXPECT_EQ(alice.used(kBytes), 0u);
}

TEST(Charge, AnotherAccountTakesItOver) {
  Accounts accounts(smallLimits(), kOwn);
  Account& alice = accounts.ofUser(kAlice, 0);
  Account& lab = accounts.ofService(40);
  Charge charge;
  charge.bind(&alice, kBytes);
  charge.set(70);
  charge.bind(&lab, kBytes);
  EXPECT_EQ(alice.used(kBytes), 0u);
  EXPECT_EQ(lab.used(kBytes), 70u);
}

}  // namespace

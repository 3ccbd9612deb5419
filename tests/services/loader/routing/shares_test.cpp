#include "services/loader/routing/shares.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <deque>
#include <map>
#include <random>

namespace {

using loader::Shares;

constexpr std::size_t kFloor = 100;

TEST(Shares, WhatComesWhileTheQueueIsShortIsNobodys) {
  Shares shares;
  shares.add(1, 90, 0, kFloor);
  shares.add(1, 50, 90, kFloor);  // begins below the floor
  shares.add(1, 7, 140, kFloor);
  shares.update(147);
  EXPECT_EQ(shares.of(1), 7u);
  EXPECT_EQ(shares.of(2), 0u);
}

TEST(Shares, BytesLeaveInTheOrderInWhichTheyCame) {
  Shares shares;
  shares.add(9, 100, 0, kFloor);
  shares.add(1, 10, 100, kFloor);
  shares.add(2, 20, 110, kFloor);
  shares.add(1, 30, 130, kFloor);
  shares.update(60);
  EXPECT_EQ(shares.of(1), 40u);
  EXPECT_EQ(shares.of(2), 20u);
  shares.update(45);
  EXPECT_EQ(shares.of(1), 30u);
  EXPECT_EQ(shares.of(2), 15u);
  shares.update(0);
  EXPECT_EQ(shares.of(1), 0u);
}

TEST(Shares, WhatIsCountedOnceIsCountedUntilTheQueueIsEmpty) {
  Shares shares;
  shares.add(1, 100, 0, kFloor);
  shares.add(1, 10, 100, kFloor);
  shares.add(2, 20, 10, kFloor);  // the queue is short again, but what came before is still in it
  shares.update(30);
  EXPECT_EQ(shares.of(1), 10u);
  EXPECT_EQ(shares.of(2), 20u);
}

TEST(Shares, WhatIsNotedIsChargedBeforeItIsThere) {
  loader::Accounts accounts(loader::Limits(), 0);
  loader::Account& account = accounts.ofUser(1000, 0);
  Shares shares;
  shares.chargeTo(&account);
  const auto used = [&] { return account.used(loader::Resource::kQueueBytes); };
  std::size_t waiting = kFloor;
  for (unsigned int i = 0; i < 5000; ++i) {
    const std::size_t expected = used() + shares.growth(waiting, kFloor);
    shares.add(i % 100, 10, waiting, kFloor);
    waiting += 10;
    ASSERT_LE(used(), expected) << i;
  }
  EXPECT_GE(used(), 5000u * 8);
  shares.update(5000);
  EXPECT_LT(used(), 500u * 8 + 100 * 64 + 1024);
  shares.update(0);
  EXPECT_EQ(used(), 0u);
}

TEST(Shares, APartIsWhatIsFree) {
  EXPECT_FALSE(Shares::isShareUsed(0, 999, 1000));
  EXPECT_FALSE(Shares::isShareUsed(499, 500, 1000));
  EXPECT_TRUE(Shares::isShareUsed(500, 500, 1000));
  EXPECT_TRUE(Shares::isShareUsed(0, 1000, 1000));
  EXPECT_TRUE(Shares::isShareUsed(0, 1001, 1000));
  for (std::size_t waiting = 0; waiting < Shares::refusesFrom(1000); ++waiting)
    EXPECT_FALSE(Shares::isShareUsed(waiting, waiting, 1000));
}

// A queue as a list of single bytes with their senders beside the records.
TEST(Shares, RandomStepsLeaveTheSumsOfAPlainList) {
  std::mt19937 random(1);
  for (int round = 0; round < 10; ++round) {
    Shares shares;
    std::deque<unsigned int> bytes;
    for (int step = 0; step < 150; ++step) {
      const auto sender = static_cast<unsigned int>(1 + random() % 5);
      const auto count = static_cast<unsigned int>(1 + random() % 60);
      if (random() % 3 != 0) {
        const bool isCounted = bytes.size() >= kFloor ||
                               std::any_of(bytes.begin(), bytes.end(), [](unsigned int s) { return s != 0; });
        shares.add(sender, count, bytes.size(), kFloor);
        bytes.insert(bytes.end(), count, isCounted ? sender : 0);
      } else {
        bytes.erase(bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(
                                                       std::min<std::size_t>(bytes.size(), 2 * count)));
      }
      shares.update(bytes.size());
      for (unsigned int s = 1; s <= 5; ++s)
        ASSERT_EQ(shares.of(s), static_cast<std::size_t>(std::count(bytes.begin(), bytes.end(), s)));
    }
  }
}

}  // namespace

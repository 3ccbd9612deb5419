#include "services/logd/keeping/file_shares.h"

#include <gtest/gtest.h>

#include <random>

namespace logd {
namespace {

// Lines of one byte that a user gets into the file.
unsigned long long fill(FileShares& shares, unsigned int uid) {
  unsigned long long count = 0;
  while (shares.take(uid, 1)) ++count;
  return count;
}

TEST(FileShares, AUserMayHaveAsMuchAsIsLeftForTheOthers) {
  FileShares shares(1600);
  shares.begin(1);
  EXPECT_EQ(fill(shares, 1), 600u);
  EXPECT_EQ(fill(shares, 2), 300u);
  EXPECT_EQ(fill(shares, 3), 150u);
  EXPECT_EQ(fill(shares, 1), 0u);
  EXPECT_EQ(shares.leftOut(), 4u);
}

TEST(FileShares, UsersAloneNeverFillAFileAndNobodyFindsNothingLeft) {
  std::mt19937 random(4711);
  FileShares shares(4000000);
  shares.begin(1);
  unsigned long long taken = 0;
  for (unsigned int uid = 1; uid < 2000; ++uid) {
    const unsigned int bytes = std::uniform_int_distribution(1u, 100u)(random);
    std::uniform_int_distribution anyOfThem(1u, uid);
    while (shares.take(anyOfThem(random), bytes)) taken += bytes;
  }
  EXPECT_LT(taken, 3000000u);
  EXPECT_GT(taken, 1500000u);
}

TEST(FileShares, MoreUsersThanAreKeptShareOnePart) {
  FileShares shares(1600000);
  shares.begin(1);
  for (unsigned int uid = 1; uid <= FileShares::kMostUsers; ++uid) EXPECT_TRUE(shares.take(uid, 1));
  while (shares.take(10000, 1)) {
  }
  EXPECT_FALSE(shares.take(10001, 1));
  EXPECT_TRUE(shares.take(1, 1)) << "who was there keeps its own";
}

TEST(FileShares, TheFirstLineThatIsLeftOutIsNews) {
  FileShares shares(1600);
  shares.begin(1);
  (void)fill(shares, 1);
  EXPECT_TRUE(shares.isNews());
  EXPECT_FALSE(shares.take(1, 1));
  EXPECT_FALSE(shares.isNews());
  (void)fill(shares, 2);
  EXPECT_TRUE(shares.isNews());
}

TEST(FileShares, ANewFileIsEverybodysAgain) {
  FileShares shares(1600);
  EXPECT_FALSE(shares.hasBegun());
  shares.begin(1000);
  (void)fill(shares, 1);
  EXPECT_FALSE(shares.isOlderThan(50, 1049));
  EXPECT_TRUE(shares.isOlderThan(50, 1050));
  shares.begin(1050);
  EXPECT_FALSE(shares.isOlderThan(50, 1050));
  EXPECT_EQ(shares.leftOut(), 0u);
  EXPECT_EQ(fill(shares, 1), 600u);
}

}  // namespace
}  // namespace logd

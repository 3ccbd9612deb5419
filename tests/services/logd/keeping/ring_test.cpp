#include "services/logd/keeping/ring.h"

#include <gtest/gtest.h>

#include <random>

#include "tests/services/logd/fixture.h"

namespace logd::test {
namespace {

TEST(Ring, ItKeepsTheNewestLinesWithinItsBytes) {
  Ring ring(10000);
  for (int i = 0; i < 1000; ++i) ring.add(lineOf("line " + std::to_string(i) + std::string(50, '.')));
  EXPECT_LE(ring.bytes(), 10000u);
  EXPECT_GT(ring.end() - ring.begin(), 20u);
  EXPECT_EQ(ring.end(), 1000u);
  for (Ring::Number n = ring.begin(); n != ring.end(); ++n)
    EXPECT_TRUE(ring[n].text.starts_with("line " + std::to_string(n) + "."));
}

TEST(Ring, ALineThatIsBiggerThanTheRingIsNotKept) {
  Ring ring(1000);
  ring.add(lineOf("a"));
  ring.add(lineOf(std::string(2000, 'x')));
  EXPECT_EQ(ring.begin(), 2u);
  EXPECT_EQ(ring.end(), 2u);
  EXPECT_EQ(ring.bytes(), 0u);
}

TEST(Ring, AnOriginWeighsOnceHoweverManyLinesShareIt) {
  const auto shared = originOf(Topics(60, 5));
  Ring together(1000000);
  Ring apart(1000000);
  for (int i = 0; i < 10; ++i) {
    together.add({1, shared, "a"});
    apart.add({1, originOf(Topics(60, 5)), "a"});
  }
  EXPECT_LT(together.bytes() + 9 * 120, apart.bytes());
}

TEST(Ring, WhateverComesItStaysWithinItsBytes) {
  std::mt19937 random(4711);
  Ring ring(20000);
  std::vector<std::shared_ptr<const Origin>> origins;
  for (int i = 0; i < 5000; ++i) {
    if (random() % 3 == 0 || origins.empty()) origins.push_back(originOf(Topics(random() % 64, 5)));
    ring.add({1, origins[random() % origins.size()], std::string(random() % 3000, 'x')});
    ASSERT_LE(ring.bytes(), 20000u) << "seed 4711, step " << i;
  }
}

constexpr unsigned int kFlooder = 4711;
constexpr unsigned int kQuiet = 4712;

// How many lines of a user are there.
std::size_t linesOf(const Ring& ring, unsigned int uid) {
  std::size_t count = 0;
  for (const auto& [n, kept] : ring.since(ring.begin())) count += kept.line.origin->uid == uid ? 1 : 0;
  return count;
}

void flood(Ring& ring, unsigned int uid, int lines = 2000) {
  for (int i = 0; i < lines; ++i) ring.add(lineOfUser(uid, std::string(100, 'x')));
}

TEST(Ring, AUsersFloodPushesOutItsOwnLinesAlone) {
  Ring ring(40000);
  for (int i = 0; i < 20; ++i) {
    ring.add(lineOf("root's " + std::to_string(i)));
    ring.add(lineOfUser(kQuiet, "quiet " + std::to_string(i)));
  }
  flood(ring, kFlooder);
  EXPECT_EQ(linesOf(ring, 0), 20u);
  EXPECT_EQ(linesOf(ring, kQuiet), 20u);
  EXPECT_GT(linesOf(ring, kFlooder), 80u) << "what nobody needs it may have";
  EXPECT_LE(ring.bytes(), 40000u);
}

TEST(Ring, WhoComesLateGetsItsPartOfAFloodersRing) {
  Ring ring(40000);
  flood(ring, kFlooder);
  flood(ring, kQuiet);
  flood(ring, 0);
  const std::size_t all = linesOf(ring, kFlooder) + linesOf(ring, kQuiet) + linesOf(ring, 0);
  for (const unsigned int uid : {kFlooder, kQuiet, 0u}) EXPECT_GT(linesOf(ring, uid), all / 3 - 5) << uid;
}

TEST(Ring, AQuarterIsTheSystemsHoweverManyUsersThereAre) {
  Ring ring(80000);
  flood(ring, 0, 1000);
  for (unsigned int uid = 5000; uid < 5020; ++uid) flood(ring, uid, 200);
  std::size_t users = 0;
  for (unsigned int uid = 5000; uid < 5020; ++uid) {
    EXPECT_GT(linesOf(ring, uid), 5u) << uid;
    users += linesOf(ring, uid);
  }
  EXPECT_GE(4 * linesOf(ring, 0), users) << "a quarter of all";
}

TEST(Ring, LinesAreInTheOrderInWhichTheyCameWhoeverGaveWay) {
  std::mt19937 random(4711);
  Ring ring(30000);
  for (int i = 0; i < 3000; ++i) {
    ring.add(lineOfUser(random() % 5 == 0 ? kQuiet : kFlooder, std::to_string(i)));
    ASSERT_LE(ring.bytes(), 30000u) << "seed 4711, step " << i;
  }
  for (const auto& [n, kept] : ring.since(ring.begin())) EXPECT_EQ(kept.line.text, std::to_string(n));
}

TEST(Ring, ALineThatGaveWayBetweenOthersIsNotFound) {
  Ring ring(20000);
  ring.add(lineOfUser(kQuiet, "quiet"));
  flood(ring, kFlooder);
  EXPECT_EQ(ring.find(1), 0u);
  EXPECT_FALSE(ring.find(2));
  EXPECT_EQ(ring.begin(), 0u);
  EXPECT_GT(ring.since(ring.from(2)).begin()->first, 1000u) << "reading goes on behind it";
}

TEST(Ring, LinesThatGaveWayUntoldAreCountedForTheirUser) {
  Ring ring(20000);
  flood(ring, kFlooder);
  ring.noteTold();
  EXPECT_EQ(ring.lostUntold({}), 0u);
  const Ring::Number kept = linesOf(ring, kFlooder);
  flood(ring, kFlooder, 1000);
  EXPECT_EQ(ring.lostUntold(kFlooder), 1000u - kept);
  EXPECT_EQ(ring.lostUntold({}), 1000u - kept);
  EXPECT_EQ(ring.lostUntold(kQuiet), 0u);
}

TEST(Ring, ALineIsFoundByItsIdWhileItIsThere) {
  Ring ring(3000);
  for (int i = 0; i < 100; ++i) ring.add(lineOf(std::string(100, 'x')));
  EXPECT_EQ(ring.find(Ring::idOf(ring.begin())), ring.begin());
  EXPECT_EQ(ring.find(100), 99u);
  EXPECT_FALSE(ring.find(1));
  EXPECT_FALSE(ring.find(101));
  EXPECT_FALSE(ring.find(0));
}

TEST(Ring, ReadingGoesOnAtTheOldestLineWhenTheWantedOneIsGone) {
  Ring ring(3000);
  for (int i = 0; i < 100; ++i) ring.add(lineOf(std::string(100, 'x')));
  EXPECT_EQ(ring.from(1), ring.begin());
  EXPECT_EQ(ring.from(100), 99u);
  EXPECT_EQ(ring.from(101), ring.end());
  EXPECT_EQ(ring.from(200), ring.end());
}

TEST(Ring, IdsAreNever0OrTheBadOne) {
  EXPECT_EQ(Ring::idOf(0), 1u);
  EXPECT_EQ(Ring::idOf(0xfffffffdull), 0xfffffffeu);
  EXPECT_EQ(Ring::idOf(0xfffffffeull), 1u);
}

}  // namespace
}  // namespace logd::test

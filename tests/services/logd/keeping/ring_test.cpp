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

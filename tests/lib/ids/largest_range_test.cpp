#include "ids/largest_range.h"

#include <gtest/gtest.h>

#include <random>

#include "ids/free_ranges.h"
#include "tests/lib/ids/word_tree_checks.h"

namespace {

using kl::findLargestRange;
using kl::FreeRanges;
using kl::words::kUnknown;

// The largest, of several the lowest, found by looking at all.
unsigned int largestOfAll(const FreeRanges& ranges) {
  FreeRanges::Range best{1, 0};
  FreeRanges::Range range{};
  for (unsigned int from = 0; ranges.findFrom(from, range); from = range.last + 1) {
    if (best.first > best.last || range.last - range.first > best.last - best.first) best = range;
    if (range.last == 0xFFFFFFFF) break;
  }
  return best.first;
}

TEST(LargestRange, InsideOfAWordTheLowestOfTheLargest) {
  FreeRanges ranges;
  for (const unsigned int id : {3U, 5U, 6U, 9U, 10U, 12U}) ranges.giveBack(id);
  EXPECT_EQ(findLargestRange(ranges.words().root()), 5U);
}

TEST(LargestRange, ARangeThatGoesOnInOtherWordsCountsWhole) {
  FreeRanges ranges;
  ranges.insertLowest({1000000, 1000040});
  ranges.insertLowest({250, 300});
  EXPECT_EQ(findLargestRange(ranges.words().root()), 250U);
  ranges.insertLowest({63, 114});
  EXPECT_EQ(findLargestRange(ranges.words().root()), 63U);
}

TEST(LargestRange, RangesThatTouchAreSeveral) {
  FreeRanges ranges;
  ranges.insertLowest({100, 109});
  ranges.setCurrent(100);
  ranges.insertLowest({91, 99});
  ranges.insertLowest({1, 9});
  EXPECT_EQ(findLargestRange(ranges.words().root()), 100U);
  ranges.take(105);
  EXPECT_EQ(findLargestRange(ranges.words().root()), 1U);
}

// Words 0 to 31 are the first leaf; what goes on in word 32 belongs to another.
TEST(LargestRange, ARangeThatIsCutBetweenTwoLeavesCountsInBoth) {
  FreeRanges ranges;
  for (unsigned int word = 0; word < 64; ++word) ranges.giveBack(64 * word + 40);
  for (unsigned int id = 2034; id < 2088; ++id) ranges.giveBack(id);
  EXPECT_EQ(findLargestRange(ranges.words().root()), 2034U);
  ranges.take(2047);
  EXPECT_EQ(findLargestRange(ranges.words().root()), 2048U);
  ranges.giveBack(2047);
  EXPECT_EQ(findLargestRange(ranges.words().root()), 2034U);
}

// The knowledge of the first leaf is worthless then, whether or not anything was known of the second.
TEST(LargestRange, ARangeThatGrowsInTheLeafBehindItsOwnHasAnotherSize) {
  FreeRanges ranges;
  for (unsigned int word = 0; word < 64; ++word) ranges.giveBack(64 * word + 40);
  for (unsigned int id = 2034; id <= 2088; ++id) ranges.giveBack(id);
  for (unsigned int id = 3000; id <= 3055; ++id) ranges.giveBack(id);
  EXPECT_EQ(kl::test::countLeaves(ranges.words()), 2);
  EXPECT_EQ(findLargestRange(ranges.words().root()), 3000U);
  ranges.giveBack(3500);
  EXPECT_EQ(ranges.words().lowest().leaf->next->largest, kUnknown);
  ranges.giveBack(2089);
  EXPECT_EQ(findLargestRange(ranges.words().root()), 2034U);
}

TEST(LargestRange, ARangeThatIsInsertedBesideTheLowestCounts) {
  FreeRanges ranges;
  ranges.insertLowest({50, 51});
  EXPECT_EQ(findLargestRange(ranges.words().root()), 50U);
  ranges.insertLowest({10, 20});
  EXPECT_EQ(findLargestRange(ranges.words().root()), 10U);
}

// Four full leaves; the third is taken away until the second has room for the rest of it.
TEST(LargestRange, WhatALeafTakesOverFromItsNeighbourCounts) {
  FreeRanges ranges;
  for (unsigned int word = 0; word < 128; ++word) ranges.giveBack(64 * word);
  ranges.giveBack(64 * 72 + 1);
  for (unsigned int word = 40; word < 64; ++word) ranges.take(64 * word);
  for (unsigned int word = 73; word < 96; ++word) ranges.take(64 * word);
  ranges.take(64 * 71);
  EXPECT_EQ(kl::test::countLeaves(ranges.words()), 4);
  EXPECT_EQ(findLargestRange(ranges.words().root()), 64U * 72);
  ranges.take(64 * 70);
  EXPECT_EQ(kl::test::countLeaves(ranges.words()), 3);
  EXPECT_EQ(findLargestRange(ranges.words().root()), 64U * 72);
}

TEST(LargestRange, TheRangeUpToTheLastIdentifierHasAnEnd) {
  FreeRanges ranges;
  ranges.insertLowest({0xFFFFFF00, 0xFFFFFFFF});
  ranges.insertLowest({10, 264});
  EXPECT_EQ(findLargestRange(ranges.words().root()), 0xFFFFFF00);
  ranges.take(0xFFFFFFFF);
  EXPECT_EQ(findLargestRange(ranges.words().root()), 10U);
}

TEST(LargestRange, AllIdentifiersAreOneRange) {
  FreeRanges ranges;
  ranges.insertLowest({1, 0xFFFFFFFF});
  ranges.giveBack(0);
  ranges.setCurrent(0);
  EXPECT_EQ(findLargestRange(ranges.words().root()), 0U);
  EXPECT_EQ(ranges.words().root().largest, std::uint64_t{1} << 32);
}

TEST(LargestRange, WhatIsKnownStaysTrueUnderRandomChanges) {
  for (const unsigned int span : {200U, 6000U, 200000U}) {
    std::mt19937 random(span);
    FreeRanges ranges;
    ranges.insertLowest({0, span / 3});
    ranges.setCurrent(0);
    for (int step = 0; step < 30000; ++step) {
      const auto id = static_cast<unsigned int>(random() % span);
      if (!ranges.giveBack(id)) ranges.take(id);
      if (step % (static_cast<int>(span) / 100) != 0 || ranges.isEmpty()) continue;
      ranges.makeLargestCurrent();
      ASSERT_EQ(ranges.current(), largestOfAll(ranges)) << "span " << span << ", step " << step;
      ASSERT_NE(ranges.words().root().largest, kUnknown);
      kl::test::checkWordTree(ranges.words());
    }
  }
}

}  // namespace

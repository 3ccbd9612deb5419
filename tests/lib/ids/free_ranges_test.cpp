#include "ids/free_ranges.h"

#include <gtest/gtest.h>

#include <random>
#include <sstream>

#include "tests/lib/ids/word_tree_checks.h"

namespace {

using kl::FreeRanges;
using kl::words::Place;
using kl::words::Word;
using kl::words::WordTree;
using Taken = FreeRanges::Taken;

constexpr std::uint64_t kAll = ~std::uint64_t{0};
constexpr std::uint64_t kTop = std::uint64_t{1} << 63;

// "1-4 6-10*"
std::string text(const FreeRanges& ranges) {
  std::ostringstream out;
  FreeRanges::Range range{};
  for (unsigned int from = 0; ranges.findFrom(from, range); from = range.first + 1) {
    out << (out.tellp() > 0 ? " " : "") << range.first << "-" << range.last
        << (range.first == ranges.current() ? "*" : "");
    if (range.first == 0xFFFFFFFF) break;
  }
  return out.str();
}

void checkWords(const FreeRanges& ranges) {
  kl::test::checkWordTree(ranges.words());
  if (ranges.isEmpty()) return;
  bool before = false;
  for (Place place = ranges.words().lowest(); place.isWord(); place = WordTree::next(place)) {
    const Word& word = place.word();
    EXPECT_EQ(word.starts & ~word.free, 0U) << "R1";
    EXPECT_EQ(word.free & ~(word.free << 1 | (before ? 1 : 0)) & ~word.starts, 0U) << "R1";
    EXPECT_FALSE(word.starts == 0 && word.free == (before ? kAll : 0)) << "R2";
    before = word.free >= kTop;
  }
  const Place marked = ranges.words().marked();
  EXPECT_EQ(static_cast<unsigned int>(marked.number()), ranges.current() / 64) << "R4";
  EXPECT_NE(marked.word().starts >> ranges.current() % 64 & 1, 0U) << "R4";
}

int countWords(const FreeRanges& ranges) {
  int count = 0;
  for (Place place = ranges.words().find(0x3FFFFFF); place.isWord(); place = WordTree::previous(place))
    ++count;
  return count;
}

FreeRanges& with(FreeRanges& ranges, std::initializer_list<FreeRanges::Range> descending,
                 unsigned int current) {
  for (const FreeRanges::Range& range : descending) ranges.insertLowest(range);
  ranges.setCurrent(current);
  checkWords(ranges);
  return ranges;
}

TEST(FreeRanges, WordsSayWhichIdentifiersAreFreeAndWhereRangesStart) {
  FreeRanges ranges;
  with(ranges, {{193, 194}, {63, 192}, {1, 61}}, 1);
  EXPECT_EQ(text(ranges), "1-61* 63-192 193-194");
  const Place place = ranges.words().lowest();
  EXPECT_EQ(place.word().free, kAll & ~std::uint64_t{1} & ~(kTop >> 1));
  EXPECT_EQ(place.word().starts, kTop | 2);
  EXPECT_EQ(WordTree::next(place).number(), 3);
  EXPECT_EQ(WordTree::next(place).word().free, 7U);
  EXPECT_EQ(WordTree::next(place).word().starts, 2U);
}

TEST(FreeRanges, ARangeOfAnySizeIsTwoWords) {
  for (const FreeRanges::Range& range :
       {FreeRanges::Range{1, 1000}, {64, 6399}, {64, 6400}, {63, 6399}, {0, 0xFFFFFFFE}}) {
    FreeRanges ranges;
    with(ranges, {range}, range.first);
    EXPECT_EQ(text(ranges), std::to_string(range.first) + "-" + std::to_string(range.last) + "*");
    EXPECT_EQ(countWords(ranges), 2);
  }
}

TEST(FreeRanges, ARangeUpToTheLastIdentifierIsOneWord) {
  FreeRanges ranges;
  with(ranges, {{64, 0xFFFFFFFF}}, 64);
  EXPECT_EQ(text(ranges), "64-4294967295*");
  EXPECT_EQ(countWords(ranges), 1);
}

TEST(FreeRanges, WordsBetweenTheEndsOfARangeAreMadeWhereTheyAreNeeded) {
  FreeRanges ranges;
  with(ranges, {{0, 999999}}, 0);
  EXPECT_EQ(ranges.take(5000), Taken::kOfCurrent);
  EXPECT_EQ(text(ranges), "0-4999* 5001-999999");
  EXPECT_EQ(countWords(ranges), 3);
  EXPECT_TRUE(ranges.giveBack(5000));
  EXPECT_EQ(text(ranges), "0-999999*");
  checkWords(ranges);
  EXPECT_EQ(countWords(ranges), 2);
}

// Both ends of a word, and what lies beside them.
TEST(FreeRanges, TakingAtTheEdgeOfAWordStartsARangeInTheNext) {
  FreeRanges ranges;
  with(ranges, {{0, 999}}, 0);
  ranges.take(127);
  EXPECT_EQ(text(ranges), "0-126* 128-999");
  checkWords(ranges);
  ranges.take(128);
  EXPECT_EQ(text(ranges), "0-126* 129-999");
  checkWords(ranges);
  ranges.take(192);
  ranges.take(191);
  EXPECT_EQ(text(ranges), "0-126* 129-190 193-999");
  checkWords(ranges);
}

TEST(FreeRanges, GivingBackAtTheEdgeOfAWordJoinsTheRangeOfTheNext) {
  FreeRanges ranges;
  with(ranges, {{129, 999}, {1, 126}}, 1);
  ranges.giveBack(128);
  EXPECT_EQ(text(ranges), "1-126* 128-999");
  checkWords(ranges);
  ranges.giveBack(127);
  EXPECT_EQ(text(ranges), "1-999*");
  checkWords(ranges);
}

TEST(FreeRanges, WhereTheCurrentRangeStartsAWordWhatIsBelowStaysApart) {
  FreeRanges ranges;
  with(ranges, {{128, 999}}, 128);
  ranges.giveBack(127);
  EXPECT_EQ(text(ranges), "127-127 128-999*");
  checkWords(ranges);
  ranges.giveBack(126);
  EXPECT_EQ(text(ranges), "126-127 128-999*");
  ranges.setCurrent(126);
  EXPECT_EQ(ranges.take(127), Taken::kOfCurrent);
  EXPECT_EQ(ranges.take(128), Taken::kOther);
  EXPECT_EQ(text(ranges), "126-126* 129-999");
  checkWords(ranges);
}

// Words 60 and 61 both go, and with the second of them their leaf: what is left of it stands in the one before then.
TEST(FreeRanges, GivingBackAtTheEdgeOfAWordDropsBothWhereverTheyStand) {
  FreeRanges ranges;
  with(ranges, {{0, 64 * 63 + 50}}, 0);
  for (unsigned int word = 0; word < 64; ++word) ranges.take(64 * word + 40);
  ranges.take(64 * 60 + 63);
  for (unsigned int word = 1; word < 62; ++word)
    if (word < 17 || (word > 32 && word < 57) || word > 59) ranges.giveBack(64 * word + 40);
  checkWords(ranges);
  EXPECT_EQ(kl::test::countLeaves(ranges.words()), 2);
  EXPECT_EQ(countWords(ranges), 24);
  ranges.giveBack(64 * 60 + 63);
  checkWords(ranges);
  EXPECT_EQ(kl::test::countLeaves(ranges.words()), 1);
  EXPECT_EQ(countWords(ranges), 22);
}

TEST(FreeRanges, TheStartOfARangeIsFoundInTheWordBefore) {
  FreeRanges ranges;
  with(ranges, {{5000, 9999}, {10, 4000}}, 10);
  EXPECT_EQ(ranges.take(7000), Taken::kOther);
  EXPECT_EQ(ranges.take(3000), Taken::kOfCurrent);
  EXPECT_EQ(ranges.take(3500), Taken::kOther);
  checkWords(ranges);
}

TEST(FreeRanges, WhatIsNotThereIsNotTakenAndWhatIsThereNotGivenBack) {
  FreeRanges ranges;
  with(ranges, {{128, 999}, {10, 20}}, 10);
  for (const unsigned int id : {0U, 9U, 21U, 63U, 64U, 127U, 1000U, 1023U, 0xFFFFFFFFU}) {
    EXPECT_FALSE(ranges.contains(id)) << id;
    EXPECT_EQ(ranges.take(id), Taken::kNothing) << id;
  }
  for (const unsigned int id : {10U, 20U, 128U, 191U, 192U, 255U, 500U, 999U}) {
    EXPECT_TRUE(ranges.contains(id)) << id;
    EXPECT_FALSE(ranges.giveBack(id)) << id;
  }
  EXPECT_EQ(text(ranges), "10-20* 128-999");
  checkWords(ranges);
}

TEST(FreeRanges, TheLastIdentifierComesAndGoes) {
  FreeRanges ranges;
  with(ranges, {{0xFFFFFFF0, 0xFFFFFFFF}, {3, 3}}, 3);
  ranges.take(0xFFFFFFFF);
  EXPECT_EQ(text(ranges), "3-3* 4294967280-4294967294");
  ranges.giveBack(0xFFFFFFFF);
  EXPECT_EQ(text(ranges), "3-3* 4294967280-4294967295");
  EXPECT_EQ(ranges.takeNext(), 3U);
  EXPECT_EQ(ranges.current(), 0xFFFFFFF0);
  for (unsigned int i = 0; i < 16; ++i) EXPECT_EQ(ranges.takeNext(), 0xFFFFFFF0 + i);
  EXPECT_TRUE(ranges.isEmpty());
  checkWords(ranges);
}

TEST(FreeRanges, TheNextRangeIsFoundInTheSameWordInTheNextOneAndFromTheFront) {
  FreeRanges ranges;
  with(ranges, {{640, 640}, {127, 128}, {70, 70}, {66, 66}}, 66);
  for (const unsigned int id : {66U, 70U, 127U, 128U, 640U}) {
    EXPECT_EQ(ranges.takeNext(), id);
    if (!ranges.isEmpty()) checkWords(ranges);
  }
  EXPECT_TRUE(ranges.isEmpty());
}

TEST(FreeRanges, AfterTheHighestRangeComesALowerOneOfTheSameWord) {
  FreeRanges ranges;
  with(ranges, {{9, 9}, {5, 6}}, 9);
  EXPECT_EQ(ranges.takeNext(), 9U);
  EXPECT_EQ(text(ranges), "5-6*");
  checkWords(ranges);
}

TEST(FreeRanges, OneIsAheadOfTheCurrentRangeOnlyAsTheLowestAndApart) {
  FreeRanges ranges;
  EXPECT_TRUE(ranges.isAheadOfCurrent(7));
  with(ranges, {{100, 200}, {10, 20}}, 10);
  EXPECT_TRUE(ranges.isAheadOfCurrent(8));
  EXPECT_FALSE(ranges.isAheadOfCurrent(9));
  EXPECT_FALSE(ranges.isAheadOfCurrent(50));
  ranges.setCurrent(100);
  EXPECT_FALSE(ranges.isAheadOfCurrent(8));
}

// Everything that one step can do, in spans of a few words and of many leaves.
TEST(FreeRanges, RandomChangesKeepTheWordsInOrder) {
  for (const unsigned int span : {130U, 1000U, 400000U}) {
    SCOPED_TRACE("span " + std::to_string(span));
    std::mt19937 random(span);
    FreeRanges ranges;
    ranges.insertLowest({10, span});
    ranges.setCurrent(10);
    for (int step = 0; step < 40000; ++step) {
      const auto id = static_cast<unsigned int>(random() % span);
      const bool wasEmpty = ranges.isEmpty();
      if (!wasEmpty && random() % 4 == 0) ranges.takeNext();
      else if (ranges.take(id) == Taken::kOfCurrent && !ranges.isEmpty()) ranges.makeLargestCurrent();
      else if (random() % 2 == 0 && ranges.giveBack(id) && wasEmpty) ranges.setCurrent(id);
      if (step % 400 == 0) checkWords(ranges);
    }
    checkWords(ranges);
  }
}

}  // namespace

#include "kl/allocator.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <random>

#include "tests/lib/ids/allocator_model.h"
#include "tests/support/build/effort.h"
#include "tests/support/process/child.h"

namespace {

using kl::Allocator;
using Ids = std::vector<unsigned int>;

// The ranges as dump() prints them, "1-4 6-10*".
std::string ranges(const Allocator& ids) {
  ::testing::internal::CaptureStdout();
  ids.dump("ids");
  std::istringstream lines(::testing::internal::GetCapturedStdout());
  std::string text;
  for (std::string line; std::getline(lines, line);) {
    line.erase(std::remove(line.begin(), line.end(), ' '), line.end());
    if (line == "ids:" || line == "------") continue;
    text += (text.empty() ? "" : " ") + line;
  }
  return text;
}

Ids take(Allocator& ids, int count) {
  Ids taken;
  for (int i = 0; i < count; ++i) taken.push_back(ids.allocate());
  return taken;
}

// The line with which the process ends when it does this; empty if it does not end by abort().
std::string misuse(const std::function<void()>& body) {
  const kl::test::ChildResult child = kl::test::runInChild(body);
  return child.signal == SIGABRT ? child.out : "";
}

// Ranges "1-2 4-6 8-10" of which 4-6 is the current one.
void threeRanges(Allocator& ids) {
  ids.allocate(3);
  ids.allocate(7);
  ids.spin();
}

TEST(Allocator, IdentifiersComeInAscendingOrderUntilNoneIsLeft) {
  Allocator ids(1, 3);
  EXPECT_EQ(take(ids, 3), (Ids{1, 2, 3}));
  EXPECT_EQ(misuse([&ids] { ids.allocate(); }), "allocator: no free ids\n");
}

TEST(Allocator, AFreedIdentifierBelowTheCurrentRangeWaits) {
  Allocator ids(1, 10);
  take(ids, 3);
  ids.free(2);
  EXPECT_EQ(ranges(ids), "2-2 4-10*");
  EXPECT_EQ(ids.allocate(), 4U);
}

TEST(Allocator, AnIdentifierJustBelowTheCurrentRangeIsNotJoinedToIt) {
  Allocator ids(1, 10);
  take(ids, 3);
  ids.free(3);
  EXPECT_EQ(ranges(ids), "3-3 4-10*");
  ids.free(2);
  EXPECT_EQ(ranges(ids), "2-3 4-10*");
  ids.free(1);
  EXPECT_EQ(ranges(ids), "1-3 4-10*");
  EXPECT_EQ(take(ids, 10), (Ids{4, 5, 6, 7, 8, 9, 10, 1, 2, 3}));
}

TEST(Allocator, ARangeThatGrowsUpToTheCurrentRangeIsNotJoinedToIt) {
  Allocator ids(1, 10);
  take(ids, 4);
  ids.free(2);
  ids.free(4);
  EXPECT_EQ(ranges(ids), "2-2 4-4 5-10*");
  ids.free(3);
  EXPECT_EQ(ranges(ids), "2-4 5-10*");
}

TEST(Allocator, TheCurrentRangeGrowsAtItsHighEnd) {
  Allocator ids(Ids{1, 3, 6, 8});
  ids.free(4);
  EXPECT_EQ(ranges(ids), "1-4* 6-8");
  ids.free(5);
  EXPECT_EQ(ranges(ids), "1-8*");
}

TEST(Allocator, AGapThatClosesJoinsTwoRanges) {
  Allocator ids(Ids{1, 2, 4, 5, 7, 8});
  ids.free(6);
  EXPECT_EQ(ranges(ids), "1-2* 4-8");
}

TEST(Allocator, AnotherRangeGrowsAtItsLowEnd) {
  Allocator ids(Ids{1, 2, 8, 9});
  ids.free(7);
  EXPECT_EQ(ranges(ids), "1-2* 7-9");
}

TEST(Allocator, ANewLowestRangeLeavesTheCurrentOneCurrent) {
  Allocator ids(10, 12);
  ids.free(5);
  EXPECT_EQ(ranges(ids), "5-5 10-12*");
}

TEST(Allocator, ANewRangeBeforeTheCurrentOneLeavesItCurrent) {
  Allocator ids(Ids{1, 2, 10, 13});
  ids.spin();
  ids.free(6);
  EXPECT_EQ(ranges(ids), "1-2 6-6 10-13*");
}

TEST(Allocator, WhatChangesJustBelowTheCurrentRangeLeavesItCurrent) {
  Allocator ids(Ids{1, 2, 4, 9, 20, 40});
  ids.spin();
  ids.allocate(6);
  EXPECT_EQ(ranges(ids), "1-2 4-5 7-9 20-40*");
  ids.free(6);
  EXPECT_EQ(ranges(ids), "1-2 4-9 20-40*");
  ids.free(3);
  EXPECT_EQ(ranges(ids), "1-9 20-40*");
  ids.free(15);
  EXPECT_EQ(ranges(ids), "1-9 15-15 20-40*");
  ids.allocate(15);
  EXPECT_EQ(ranges(ids), "1-9 20-40*");
}

TEST(Allocator, RangesThatTouchStayApartUntilTheirBorderIsGivenBack) {
  Allocator ids(Ids{1, 10, 50, 99});
  take(ids, 3);
  ids.free(3);
  ids.spin();
  EXPECT_EQ(ranges(ids), "3-3 4-10 50-99*");
  ids.free(2);
  EXPECT_EQ(ranges(ids), "2-3 4-10 50-99*");
  ids.allocate(4);
  ids.free(4);
  EXPECT_EQ(ranges(ids), "2-10 50-99*");
}

TEST(Allocator, WithNothingLeftTheFirstIdentifierGivenBackIsCurrent) {
  Allocator ids(1, 2);
  take(ids, 2);
  EXPECT_EQ(ranges(ids), "");
  ids.free(2);
  EXPECT_EQ(ranges(ids), "2-2*");
  EXPECT_EQ(ids.allocate(), 2U);
}

TEST(Allocator, AnIdentifierInsideARangeSplitsIt) {
  Allocator ids(1, 10);
  EXPECT_EQ(ids.allocate(5), 5U);
  EXPECT_EQ(ranges(ids), "1-4 6-10*");
  EXPECT_EQ(ids.allocate(), 6U);
}

TEST(Allocator, AnIdentifierOfAnotherRangeLeavesTheCurrentOneCurrent) {
  Allocator ids(Ids{1, 2, 5, 20, 30, 30});
  ids.allocate(10);
  EXPECT_EQ(ranges(ids), "1-2* 5-9 11-20 30-30");
  ids.allocate(5);
  ids.allocate(20);
  ids.allocate(30);
  EXPECT_EQ(ranges(ids), "1-2* 6-9 11-19");
}

TEST(Allocator, TheLowestOfTheLargestRangesBecomesCurrent) {
  Allocator ids(1, 10);
  threeRanges(ids);
  EXPECT_EQ(ranges(ids), "1-2 4-6* 8-10");
  ids.allocate(6);
  EXPECT_EQ(ranges(ids), "1-2 4-5 8-10*");
  ids.allocate(9);
  EXPECT_EQ(ranges(ids), "1-2* 4-5 8-8 10-10");
}

TEST(Allocator, TheLastIdentifierOfTheCurrentRangeMakesTheLargestCurrent) {
  Allocator ids(Ids{1, 1, 3, 4, 6, 9});
  ids.allocate(1);
  EXPECT_EQ(ranges(ids), "3-4 6-9*");
}

TEST(Allocator, AnExhaustedRangeIsFollowedByTheNextAndTheHighestByTheLowest) {
  Allocator ids(1, 10);
  threeRanges(ids);
  EXPECT_EQ(take(ids, 8), (Ids{4, 5, 6, 8, 9, 10, 1, 2}));
}

TEST(Allocator, SpinWithNothingFreeDoesNothing) {
  Allocator ids(1, 1);
  ids.allocate(1);
  ids.spin();
  EXPECT_EQ(ranges(ids), "");
}

TEST(Allocator, WhateverIsNotInAFreeRangeIsAllocated) {
  Allocator ids(Ids{10, 12, 20, 22});
  for (const unsigned int id : {0U, 9U, 13U, 19U, 23U, 0xFFFFFFFFU}) EXPECT_TRUE(ids.isAllocated(id)) << id;
  for (const unsigned int id : {10U, 11U, 12U, 20U, 22U}) EXPECT_FALSE(ids.isAllocated(id)) << id;
}

TEST(Allocator, AnIdentifierOutsideTheSpanBecomesFree) {
  Allocator ids(10, 12);
  ids.free(0);
  ids.free(0xFFFFFFFF);
  EXPECT_EQ(ranges(ids), "0-0 10-12* 4294967295-4294967295");
  EXPECT_EQ(take(ids, 5), (Ids{10, 11, 12, 0xFFFFFFFF, 0}));
}

TEST(Allocator, DumpPrintsTheTitleTheRangesAndALine) {
  Allocator ids(1, 10);
  ids.allocate();
  ::testing::internal::CaptureStdout();
  ids.dump("free ids");
  EXPECT_EQ(::testing::internal::GetCapturedStdout(), "free ids:\n  2 - 10 *\n------\n");
}

TEST(Allocator, PairsAreReadAsFirstAndLast) {
  Allocator ids(Ids{1, 2, 10, 12, 0xFFFFFFF0, 0xFFFFFFFE});
  EXPECT_EQ(ranges(ids), "1-2* 10-12 4294967280-4294967294");
  EXPECT_EQ(ids.lowest(), 1U);
  EXPECT_EQ(ids.highest(), 0xFFFFFFFE);
}

TEST(Allocator, TheSpanIsWhatItWasMadeWith) {
  Allocator ids(3, 7);
  take(ids, 5);
  EXPECT_EQ(ids.lowest(), 3U);
  EXPECT_EQ(ids.highest(), 7U);
}

TEST(Allocator, AdjacentRangesBecomeOneOfWhichTheHighestPartCounts) {
  Allocator ids(Ids{1, 2, 10, 20, 21, 30});
  EXPECT_EQ(ranges(ids), "1-2* 10-30");
  take(ids, 12);
  EXPECT_EQ(ranges(ids), "20-30*");
  EXPECT_EQ(misuse([&ids] { ids.allocate(); }), "allocator: no free ids\n");
  EXPECT_EQ(misuse([&ids] { ids.allocate(25); }), "allocator: no free ids (spec)\n");
}

TEST(Allocator, WithNothingCountedANewLowestRangeIsCurrent) {
  Allocator ids(Ids{10, 20, 21, 30});
  take(ids, 10);
  ids.free(12);
  EXPECT_EQ(ranges(ids), "12-12* 20-30");
}

TEST(Allocator, WithNothingCountedAnyOtherNewRangeLeavesTheCurrentOneCurrent) {
  Allocator ids(Ids{10, 20, 21, 30});
  take(ids, 10);
  EXPECT_EQ(misuse([&ids] { ids.free(19), ids.dump("ids"), std::abort(); }),
            "ids:\n  19 - 19\n  20 - 30 *\n------\n");
  ids.free(40);
  EXPECT_EQ(ranges(ids), "20-30* 40-40");
}

TEST(Allocator, BadRangesEndTheProcess) {
  const auto made = [](unsigned int first, unsigned int last) { return [=] { Allocator ids(first, last); }; };
  EXPECT_EQ(misuse(made(2, 1)), "allocator: start beyond end\n");
  EXPECT_EQ(misuse(made(0, 0xFFFFFFFF)),
            "Loud Error: Allocator created with 0 free items, max range specified\n");
  const auto madeOf = [](const Ids& pairs) { return [pairs] { Allocator ids(pairs); }; };
  EXPECT_EQ(misuse(madeOf({})), "allocator: empty initialisator\n");
  EXPECT_EQ(misuse(madeOf({1, 2, 3})), "allocator: odd length initialisator\n");
  EXPECT_EQ(misuse(madeOf({1, 5, 5, 6})), "allocator: overlapping ranges\n");
  EXPECT_EQ(misuse(madeOf({10, 11, 1, 2})), "allocator: overlapping ranges\n");
  EXPECT_EQ(misuse(madeOf({1, 0xFFFFFFFF})), "allocator: overlapping ranges\n");
  EXPECT_EQ(misuse(madeOf({2, 1, 5, 6})), "allocator: start beyond end\n");
  EXPECT_EQ(misuse(madeOf({25, 20, 21, 30})), "allocator: start beyond end\n");
  EXPECT_EQ(misuse(madeOf({40, 20, 21, 30})), "allocator: start beyond end\n");
}

TEST(Allocator, TheLargestRangesOfBothKindsAreTaken) {
  EXPECT_EQ(Allocator(1, 0xFFFFFFFF).allocate(), 1U);
  EXPECT_EQ(Allocator(0, 0xFFFFFFFE).allocate(0xFFFFFFFE), 0xFFFFFFFEU);
  EXPECT_EQ(Allocator(Ids{0, 0xFFFFFFFE}).allocate(), 0U);
}

TEST(Allocator, TakingOrGivingBackTwiceEndsTheProcess) {
  Allocator ids(Ids{10, 12, 20, 22});
  EXPECT_EQ(misuse([&ids] { ids.free(11); }), "allocator: free already free id\n");
  EXPECT_EQ(misuse([&ids] { ids.allocate(9); }), "allocator: spec alloc for already allocated\n");
  EXPECT_EQ(misuse([&ids] { ids.allocate(15); }), "allocator: spec alloc for already allocated\n");
  EXPECT_EQ(misuse([&ids] { ids.allocate(23); }), "allocator: spec alloc for already allocated 2\n");
}

std::string dumpOf(const Allocator& ids) {
  ::testing::internal::CaptureStdout();
  ids.dump("ids");
  return ::testing::internal::GetCapturedStdout();
}

// Random steps against the model, over `span` identifiers from 100 on; `stepsADump` of them between comparisons.
void walkAtRandom(unsigned int span, unsigned int steps, unsigned int stepsADump, unsigned int seed) {
  SCOPED_TRACE("span " + std::to_string(span) + ", seed " + std::to_string(seed));
  const Ids pairs{100, 100 + span / 2, 102 + span / 2, 99 + span};
  Allocator ids(pairs);
  kl::test::AllocatorModel model(pairs);
  std::mt19937 random(seed);
  for (unsigned int step = 0; step < kl::test::inOneThread(steps); ++step) {
    const unsigned int id = 100 + static_cast<unsigned int>(random() % span);
    const unsigned int kind = static_cast<unsigned int>(random() % 64);
    const bool isFree = model.free().count(id) != 0;
    ASSERT_EQ(ids.isAllocated(id), !isFree) << "step " << step;
    if (kind == 0) {
      ids.spin();
      if (model.rangeCount() > 0) model.spin();
    } else if (kind < 12 && !model.free().empty()) {
      ASSERT_EQ(ids.allocate(), model.allocate()) << "step " << step;
    } else if (isFree) {
      ids.allocate(id);
      model.allocate(id);
    } else {
      ids.free(id);
      model.giveBack(id);
    }
    if (step % stepsADump == 0) {
      ASSERT_EQ(dumpOf(ids), model.dump()) << "step " << step;
    }
  }
  EXPECT_EQ(dumpOf(ids), model.dump());
}

TEST(Allocator, RandomStepsOverFewIdentifiersFollowTheModel) {
  for (const unsigned int seed : {1U, 2U, 3U}) walkAtRandom(12, 3000, 1, seed);
}

TEST(Allocator, RandomStepsOverManyRangesFollowTheModel) {
  walkAtRandom(1000, 6000, 50, 4711);
  walkAtRandom(24000, 60000, 20000, 4712);
}

TEST(Allocator, RandomStepsOverIdentifiersFarApartFollowTheModel) { walkAtRandom(300000, 8000, 2000, 4713); }

TEST(Allocator, FarMoreRangesThanOneNodeHoldsComeAndGo) {
  constexpr unsigned int kIds = 40000;
  Allocator ids(0, kIds - 1);
  for (unsigned int id = 1; id < kIds; id += 2) ids.allocate(id);
  for (unsigned int id = 1; id < kIds; id += 2) ids.free(id);
  ids.spin();
  std::set<unsigned int> taken;
  for (unsigned int i = 0; i < kIds; ++i) taken.insert(ids.allocate());
  EXPECT_EQ(taken.size(), kIds);
  EXPECT_EQ(ranges(ids), "");
}

}  // namespace

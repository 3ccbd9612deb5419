#include "store/space/slots.h"

#include <gtest/gtest.h>

namespace {

using kl::Slots;

// Entries 1, 2 and 3 of 10, 20 and 30 bytes.
class StoreSlots : public testing::Test {
 protected:
  StoreSlots() {
    for (unsigned int id = 1; id <= 3; ++id) slots.append({id, 10 * id, 7});
  }

  void expectSlot(unsigned int id, unsigned int offset, unsigned int size, unsigned int slot) {
    const Slots::Entry* const entry = slots.entryOf(id);
    ASSERT_NE(entry, nullptr) << id;
    EXPECT_EQ(entry->offset, offset) << id;
    EXPECT_EQ(entry->size, size) << id;
    EXPECT_EQ(entry->slot, slot) << id;
    const auto* const row = slots.find(id);
    ASSERT_NE(row, nullptr) << id;
    EXPECT_EQ(row->offset, offset) << id;
    EXPECT_EQ(row->size, size) << id;
  }

  Slots slots;
};

TEST_F(StoreSlots, OffsetsFollowFromTheSizes) {
  expectSlot(1, 0, 10, 0);
  expectSlot(3, 30, 30, 2);
  EXPECT_TRUE(slots.addUpTo(60));
  EXPECT_FALSE(slots.addUpTo(61));
}

TEST_F(StoreSlots, ANewEntryHasItsOwnLifetimeAndTheEndWhereNothingFits) {
  slots.remove(slots.seek(1));
  EXPECT_FALSE(slots.move(4, 9, 11).hole.has_value());
  expectSlot(4, 60, 11, 3);
  EXPECT_EQ(slots.entryOf(4)->lifetime, 9U);
  EXPECT_EQ(slots.dataBytes(), 71U);
}

TEST_F(StoreSlots, AFreeSlotIsGivenAsItWas) {
  slots.remove(slots.seek(2));
  EXPECT_EQ(slots.find(2), nullptr);
  const auto hole = slots.move(4, 9, 15).hole;
  ASSERT_TRUE(hole.has_value());
  EXPECT_EQ(hole->lifetime, 7U);
  expectSlot(4, 10, 20, 1);
}

TEST_F(StoreSlots, AnEntryThatGrowsKeepsItsLifetime) {
  const auto left = slots.move(1, 99, 40).left;
  ASSERT_TRUE(left.has_value());
  EXPECT_EQ(left->slot, 0U);
  expectSlot(1, 60, 40, 3);
  EXPECT_EQ(slots.entryOf(1)->lifetime, 7U);
  EXPECT_FALSE(slots.move(17, 99, 5).left.has_value());
}

TEST_F(StoreSlots, LengthsWithoutFreeOnesLeaveOutEveryFreeSlot) {
  EXPECT_EQ(slots.lengthsWithoutFree().data, 60U);
  slots.remove(slots.seek(1));
  slots.drop(3);  // does not count towards bloat, but is free
  EXPECT_EQ(slots.lengthsWithoutFree().data, 20U);
  EXPECT_EQ(slots.lengthsWithoutFree().idx, 12U);
  slots.move(4, 9, 5);
  EXPECT_EQ(slots.lengthsWithoutFree().data, 30U);
  EXPECT_EQ(slots.lengthsWithoutFree().idx, 24U);
}

TEST_F(StoreSlots, AfterARearrangementTheFirstOfTwoSlotsWithOneIdCounts) {
  slots.remove(slots.seek(1));
  slots.rearrange({{2, 0}, {3, 20}, {2, 50}}, 70);
  expectSlot(2, 0, 20, 0);
  expectSlot(3, 20, 30, 1);
  EXPECT_TRUE(slots.addUpTo(70));
  EXPECT_EQ(slots.lengthsWithoutFree().data, 70U);
}

TEST_F(StoreSlots, OnlyTheNewestOfASlotsBacklogIsKept) {
  slots.backlog().addUnfreed({0, 10, 0, 7});
  slots.backlog().addUnfreed({0, 10, 0, 3});
  ASSERT_EQ(slots.backlog().unfreed.size(), 1U);
  EXPECT_EQ(slots.backlog().unfreed[0].lifetime, 3U);
  slots.backlog().noteWritten(0);
  EXPECT_TRUE(slots.backlog().unfreed.empty());
}

TEST_F(StoreSlots, ASlotThatTheIndexDoesNotHaveNeedsNoFreeing) {
  slots.backlog().unwritten.push_back({60, 10, 3, 7});
  EXPECT_FALSE(slots.backlog().isUnwritten(2));
  EXPECT_TRUE(slots.backlog().isUnwritten(4));
  slots.backlog().addUnfreed({70, 10, 4, 7});
  EXPECT_TRUE(slots.backlog().unfreed.empty());
}

}  // namespace

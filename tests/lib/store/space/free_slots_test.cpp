#include "store/space/free_slots.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <list>
#include <random>

namespace {

using kl::FreeSlots;
using kl::Store;

Store::Entry slot(unsigned int number, unsigned int size) { return {number * 100, size, number, 7}; }

TEST(FreeSlots, TheFirstThatIsLargeEnoughIsTaken) {
  FreeSlots slots;
  slots.pushBack(slot(1, 10), true);
  slots.pushBack(slot(2, 30), true);
  slots.pushBack(slot(3, 20), true);
  FreeSlots::Slot taken;
  ASSERT_TRUE(slots.takeFirstFit(20, taken));
  EXPECT_EQ(taken.entry.slot, 2U);
  ASSERT_TRUE(slots.takeFirstFit(20, taken));
  EXPECT_EQ(taken.entry.slot, 3U);
  EXPECT_FALSE(slots.takeFirstFit(20, taken));
  EXPECT_EQ(taken.entry.slot, 3U);
}

TEST(FreeSlots, AtTheFrontComesBeforeWhatWasThere) {
  FreeSlots slots;
  slots.pushBack(slot(1, 10), true);
  slots.pushFront(slot(2, 10), false);
  FreeSlots::Slot taken;
  ASSERT_TRUE(slots.takeFirstFit(1, taken));
  EXPECT_EQ(taken.entry.slot, 2U);
  EXPECT_FALSE(taken.counted);
}

TEST(FreeSlots, AnEmptySlotServesOnlyWhoNeedsNothing) {
  FreeSlots slots;
  FreeSlots::Slot taken;
  EXPECT_FALSE(slots.takeFirstFit(0, taken));
  slots.pushBack(slot(1, 0), true);
  EXPECT_FALSE(slots.takeFirstFit(1, taken));
  EXPECT_TRUE(slots.takeFirstFit(0, taken));
}

TEST(FreeSlots, NothingIsLeftAfterClear) {
  FreeSlots slots;
  slots.pushBack(slot(1, 10), true);
  slots.clear();
  FreeSlots::Slot taken;
  EXPECT_FALSE(slots.takeFirstFit(1, taken));
  EXPECT_EQ(slots.bytes(), 0U);
  slots.pushBack(slot(2, 10), true);
  EXPECT_EQ(slots.inOrder().size(), 1U);
  EXPECT_EQ(slots.count(), 1U);
  EXPECT_EQ(slots.bytes(), 10U);
}

class FreeSlotsModel : public testing::TestWithParam<unsigned int> {
 protected:
  bool takeFromBoth(unsigned int need) {
    const auto fits = [need](const FreeSlots::Slot& s) { return s.entry.size >= need; };
    const auto expected = std::find_if(model.begin(), model.end(), fits);
    FreeSlots::Slot taken;
    if (slots.takeFirstFit(need, taken) != (expected != model.end())) return false;
    if (expected == model.end()) return true;
    const bool same = isSame(taken, *expected);
    model.erase(expected);
    return same;
  }

  static bool isSame(const FreeSlots::Slot& a, const FreeSlots::Slot& b) {
    return a.entry.slot == b.entry.slot && a.entry.size == b.entry.size && a.entry.offset == b.entry.offset &&
           a.entry.lifetime == b.entry.lifetime && a.counted == b.counted;
  }

  FreeSlots slots;
  std::list<FreeSlots::Slot> model;
};

TEST_P(FreeSlotsModel, ChoosesAsAPlainListDoes) {
  std::mt19937 random(GetParam());
  const auto below = [&random](unsigned int limit) { return static_cast<unsigned int>(random() % limit); };
  for (unsigned int step = 0; step < 4000; ++step) {
    const unsigned int choice = below(8);
    const FreeSlots::Slot next{slot(step, below(200)), below(2) == 0};
    if (choice < 2) {
      slots.pushFront(next.entry, next.counted);
      model.push_front(next);
    } else if (choice < 5) {
      slots.pushBack(next.entry, next.counted);
      model.push_back(next);
    } else {
      ASSERT_TRUE(takeFromBoth(below(220))) << "step " << step << ", seed " << GetParam();
    }
  }
  const auto left = slots.inOrder();
  ASSERT_EQ(left.size(), model.size());
  EXPECT_EQ(slots.count(), model.size());
  unsigned long long bytes = 0;
  for (const FreeSlots::Slot& s : model) bytes += s.entry.size;
  EXPECT_EQ(slots.bytes(), bytes);
  EXPECT_TRUE(std::equal(left.begin(), left.end(), model.begin(), isSame));
}

INSTANTIATE_TEST_SUITE_P(Seeds, FreeSlotsModel, testing::Range(1U, 6U));

}  // namespace

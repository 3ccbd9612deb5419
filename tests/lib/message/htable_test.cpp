#include "message/htable.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <vector>

namespace {

using kl::container::Memory;
using Table = kl::htable<unsigned int>;

class Htable : public testing::Test {
 protected:
  ~Htable() override { memory.releaseAll(); }
  unsigned int& ref(unsigned int key) { return table.get_ref(key, memory); }
  std::vector<unsigned int> keys(const Table& of) {
    std::vector<unsigned int> all;
    for (unsigned int i = of.next(Table::kNoSlot); i < of.capacity(); i = of.next(i))
      all.push_back(of.key(i));
    return all;
  }

  alignas(8) unsigned char slots[Table::kFirstBytes];
  Memory memory;
  Table table{slots};
};

TEST_F(Htable, BeginsEmptyWithElevenSlots) {
  EXPECT_EQ(table.capacity(), 11u);
  EXPECT_EQ(table.count(), 0u);
  EXPECT_EQ(table.next(Table::kNoSlot), 11u);
  EXPECT_EQ(table.get(5), nullptr);
}

TEST_F(Htable, ACreatedValueIsZero) {
  EXPECT_EQ(ref(5), 0u);
  ref(5) = 7;
  EXPECT_EQ(*table.get(5), 7u);
  EXPECT_EQ(table.count(), 1u);
}

TEST_F(Htable, CollidingKeysTakeTheNextSlotsAndWrapAround) {
  for (const unsigned int key : {10u, 21u, 32u}) ref(key) = key;
  EXPECT_EQ(table.key(10), 10u);
  EXPECT_EQ(table.key(0), 21u);
  EXPECT_EQ(table.key(1), 32u);
  EXPECT_EQ(keys(table), (std::vector<unsigned int>{21, 32, 10}));
}

TEST_F(Htable, AKeyAloneLiesInTheSlotOfItsRemainder) {
  for (unsigned int capacity = 11; capacity < 10'000; capacity *= 2) {
    for (unsigned int key = 0; table.capacity() < capacity; ++key) ref(key);
    table.removeIdMask(0, 0);
    for (const unsigned int key : {0u, 10u, 11u, 12u, 351u, 352u, 0x08ff0003u, 0x7fffffffu, 0x80000000u,
                                   0xba2e8ba3u, 0xfffffff4u, 0xfffffffdu}) {
      ref(key);
      EXPECT_EQ(table.next(Table::kNoSlot), key % capacity) << key << " of " << capacity;
      table.erase(key);
    }
  }
}

TEST_F(Htable, GrowsAtTheReferenceThatFindsFiveKeys) {
  for (unsigned int key = 0; key < 5; ++key) ref(key) = key;
  EXPECT_EQ(table.capacity(), 11u);
  EXPECT_NE(table.get(4), nullptr);
  EXPECT_EQ(table.capacity(), 11u);
  EXPECT_EQ(ref(4), 4u);  // of a key that is there
  EXPECT_EQ(table.capacity(), 22u);
  EXPECT_EQ(table.count(), 5u);
}

TEST_F(Htable, GrowsThroughTheFixedCapacities) {
  std::vector<std::pair<unsigned int, unsigned int>> growth;
  for (unsigned int key = 0; key < 120; ++key) {
    const unsigned int before = table.capacity();
    ref(key * 7) = key;
    if (table.capacity() != before) growth.emplace_back(key, table.capacity());
  }
  EXPECT_EQ(growth, (std::vector<std::pair<unsigned int, unsigned int>>{
                        {5, 22}, {12, 44}, {24, 88}, {49, 176}, {99, 352}}));
  for (unsigned int key = 0; key < 120; ++key) EXPECT_EQ(*table.get(key * 7), key);
}

TEST_F(Htable, GrowingEntersTheKeysAgainInSlotOrder) {
  for (const unsigned int key : {33u, 22u, 11u, 0u, 44u}) ref(key) = key;
  EXPECT_EQ(keys(table), (std::vector<unsigned int>{33, 22, 11, 0, 44}));
  ref(1);  // 33 and 11 have home slot 11 now, 22 and 0 and 44 have 0
  EXPECT_EQ(keys(table), (std::vector<unsigned int>{22, 0, 44, 1, 33, 11}));
}

TEST_F(Htable, AnErasedSlotDoesNotEndAProbe) {
  ref(0) = 1;
  ref(11) = 2;
  table.erase(0);
  EXPECT_EQ(table.get(0), nullptr);
  EXPECT_EQ(*table.get(11), 2u);
  EXPECT_EQ(table.count(), 1u);
  EXPECT_TRUE(table.isErased(0));
}

TEST_F(Htable, TheFirstErasedSlotOfTheProbeIsTakenAgain) {
  for (const unsigned int key : {0u, 11u, 22u}) ref(key) = key;
  table.erase(0);
  table.erase(11);
  ref(33) = 3;
  EXPECT_EQ(table.key(0), 33u);
  EXPECT_FALSE(table.isErased(0));
  EXPECT_TRUE(table.isErased(1));
  EXPECT_EQ(ref(22), 22u) << "found behind an erased slot, not entered again";
  EXPECT_EQ(table.count(), 2u);
}

TEST_F(Htable, ErasingWhatIsAbsentChangesNothing) {
  ref(0) = 1;
  table.erase(11);
  EXPECT_EQ(table.count(), 1u);
  EXPECT_FALSE(table.isErased(1));
}

TEST_F(Htable, WithoutAnEmptySlotAProbeEndsAfterOneRound) {
  for (unsigned int key = 0; key < 11; ++key) {
    ref(key) = key;
    table.erase(key);
  }
  EXPECT_EQ(table.get(3), nullptr);
  ref(25) = 9;
  EXPECT_EQ(table.key(3), 25u);
  EXPECT_EQ(table.get(3), nullptr);
}

TEST_F(Htable, GrowingForgetsErasedSlots) {
  for (unsigned int key = 0; key < 6; ++key) {
    ref(key) = key;
    if (key < 2) table.erase(key);
  }
  while (table.capacity() == 11) ref(table.count() + 100);
  for (unsigned int i = 0; i < table.capacity(); ++i) EXPECT_FALSE(table.isErased(i));
}

TEST_F(Htable, ACopyHasTheSameSlotsAtEveryCapacity) {
  for (unsigned int key = 0; key < 400; ++key) {
    ref(key * 11) = key;
    if (key % 3 == 0) table.erase(key * 11);
    if (key % 40 != 0) continue;
    alignas(8) unsigned char copySlots[Table::kFirstBytes];
    Table copy(copySlots);
    copy.copyFrom(table, memory);
    EXPECT_EQ(keys(copy), keys(table));
    EXPECT_EQ(copy.count(), table.count());
    for (unsigned int i = 0; i < table.capacity(); ++i) ASSERT_EQ(copy.isErased(i), table.isErased(i));
    EXPECT_TRUE(copy.includes(table) && table.includes(copy));
    copy.get_ref(5, memory) = 1;
    EXPECT_EQ(table.get(5), nullptr);
  }
}

TEST_F(Htable, RemovesByMaskInPlace) {
  for (unsigned int key = 0; key < 300; ++key) ref(key) = key;
  const unsigned int capacity = table.capacity();
  table.removeIdMask(1, 3);
  EXPECT_EQ(table.count(), 225u);
  EXPECT_EQ(table.capacity(), capacity);
  EXPECT_EQ(table.get(5), nullptr);
  EXPECT_EQ(*table.get(6), 6u);
}

// Capacities whose last word of slots is whole, and others.
TEST_F(Htable, LongRunsOfALargeTableWrapAroundAndTakeErasedSlotsFirst) {
  for (const unsigned int capacity : {352u, 704u, 5632u}) {
    for (unsigned int key = 0; table.capacity() < capacity; ++key) ref(key);
    table.removeIdMask(0, 0);
    std::vector<unsigned int> expected(capacity, 0xFFFFFFFF);
    const auto enter = [&](unsigned int home, unsigned int n) {
      const unsigned int key = home + n * capacity;
      unsigned int slot = home;
      while (expected[slot] != 0xFFFFFFFF) slot = (slot + 1) % capacity;
      expected[slot] = key;
      ref(key) = n;
      ASSERT_EQ(table.count(), static_cast<unsigned int>(
                                   capacity - std::count(expected.begin(), expected.end(), 0xFFFFFFFF)));
      ASSERT_EQ(table.key(slot), key);
    };
    for (unsigned int n = 1; n < capacity / 2; ++n) enter(capacity - 40 + n % 3, n);
    for (unsigned int slot = 0; slot < capacity / 4; slot += 7) {
      table.erase(expected[slot]);
      expected[slot] = 0xFFFFFFFF;
    }
    for (unsigned int n = 0; n < capacity / 32; ++n) enter(n * 5 % capacity, capacity + n);
    EXPECT_EQ(table.capacity(), capacity);
  }
}
// Of 45,056 slots 704 words of 64: the bits that say which words are full have no bit to spare behind the last.
TEST_F(Htable, ARunThatFillsTheLastOfManyWordsGoesOnAtTheBeginning) {
  const unsigned int capacity = 11 * 4096;
  unsigned int next = 0;
  for (; table.capacity() < capacity; ++next) ref(next);
  for (unsigned int slot = capacity - 64; slot < capacity; ++slot) ref(slot);
  const unsigned int wrapped = 2 * capacity - 1;
  ref(wrapped) = 7;
  EXPECT_EQ(table.key(next), wrapped);
  EXPECT_EQ(*table.get(wrapped), 7u);
  EXPECT_EQ(table.capacity(), capacity);
}

}  // namespace

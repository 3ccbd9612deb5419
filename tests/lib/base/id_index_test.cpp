#include "base/id_index.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <random>
#include <string>
#include <vector>

namespace {

struct Entry {
  unsigned int number = 0;
  int value = 0;
  unsigned int id() const { return number; }
  bool isFree() const { return value == 0; }
};

TEST(IdIndex, AgreesWithAMapThroughRandomSteps) {
  const unsigned int seed = std::random_device{}();
  SCOPED_TRACE("seed " + std::to_string(seed));
  std::mt19937 random(seed);
  std::vector<Entry> room(128);
  kl::IdIndex<Entry> index(room.data(), room.size());
  std::map<unsigned int, int> expected;
  for (int i = 1; i < 20000; ++i) {
    const auto id =
        static_cast<unsigned int>(random() % 100 == 0 ? 0xFFFFFFFF - random() % 3 : random() % 120);
    Entry* entry = index.find(id);
    ASSERT_EQ(entry != nullptr, expected.count(id) == 1);
    if (entry != nullptr) {
      ASSERT_EQ(entry->value, expected[id]);
      if (random() % 2 == 0) index.remove(entry), expected.erase(id);
    } else if (expected.size() < room.size() / 2) {
      index.add({id, i});
      expected[id] = i;
    }
  }
}

TEST(IdIndex, EveryEntryUnderOneIdIsMet) {
  std::vector<Entry> room(64);
  kl::IdIndex<Entry> index(room.data(), room.size());
  for (int i = 1; i <= 30; ++i) index.add({static_cast<unsigned int>(i % 3), i});
  index.remove(index.find(1));
  for (unsigned int id = 0; id < 3; ++id) {
    std::vector<int> values;
    for (const Entry* entry = index.find(id); entry != nullptr; entry = index.findNext(entry)) {
      EXPECT_EQ(entry->number, id);
      values.push_back(entry->value);
    }
    EXPECT_EQ(values.size(), id == 1 ? 9u : 10u);
    std::sort(values.begin(), values.end());
    EXPECT_EQ(std::unique(values.begin(), values.end()), values.end());
  }
}

struct CountedEntry {
  unsigned int number = 0;
  bool isTaken = false;
  unsigned int id() const { return ++looks, number; }
  bool isFree() const { return !isTaken; }
  static inline unsigned int looks = 0;
};

// How many entries a search for one of a thousand ids in a row looks at.
double looksPerSearch(std::uint64_t factor) {
  std::vector<CountedEntry> room(4096);
  kl::IdIndex<CountedEntry> index(room.data(), room.size(), factor);
  for (unsigned int i = 0; i < 1000; ++i) index.add({0x20000000 + i, true});
  CountedEntry::looks = 0;
  for (unsigned int i = 0; i < 1000; ++i) EXPECT_NE(index.find(0x20000000 + i), nullptr);
  return CountedEntry::looks / 1000.0;
}

TEST(IdIndex, IdsInARowLieApart) {
  std::mt19937_64 random(4711);
  int good = 0;
  for (int i = 0; i < 2000; ++i) {
    const std::uint64_t factor = random() | 1;
    if (!kl::spreadsIdsInARow(factor)) continue;
    ++good;
    EXPECT_LT(looksPerSearch(factor), 3) << factor;
  }
  EXPECT_GT(good, 500);
}

TEST(IdIndex, AFactorThatPutsIdsInARowSideBySideIsNotTaken) {
  for (const std::uint64_t factor :
       std::vector<std::uint64_t>{1, 3, 0x100000001, 0x8000000000000001, 0xffffffffffffffff}) {
    EXPECT_FALSE(kl::spreadsIdsInARow(factor)) << factor;
    EXPECT_GT(looksPerSearch(factor), 10) << factor;
  }
  EXPECT_TRUE(kl::spreadsIdsInARow(kl::idHashFactor()));
}

TEST(IdIndex, HashFactorIsOddAndStays) {
  EXPECT_EQ(kl::idHashFactor() % 2, 1u);
  EXPECT_EQ(kl::idHashFactor(), kl::idHashFactor());
}

}  // namespace

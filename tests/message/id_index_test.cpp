#include "message/id_index.h"

#include <gtest/gtest.h>

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
  kl::container::IdIndex<Entry> index(room.data(), room.size());
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

TEST(IdIndex, HashFactorIsOddAndStays) {
  EXPECT_EQ(kl::container::idHashFactor() % 2, 1u);
  EXPECT_EQ(kl::container::idHashFactor(), kl::container::idHashFactor());
}

}  // namespace

#include "store/space/entry_table.h"

#include <gtest/gtest.h>

#include <map>
#include <random>

namespace {

using kl::EntryTable;

TEST(StoreEntryTable, WithoutEntriesNothingIsFound) {
  EntryTable table;
  EXPECT_EQ(table.find(0), nullptr);
  EXPECT_EQ(table.find(0xFFFFFFFF), nullptr);
  table.erase(0);
}

TEST(StoreEntryTable, AreFoundUntilTheyAreErased) {
  EntryTable table;
  table.put({0, 10, 20});
  table.put({0xFFFFFFFE, 30, 40});
  table.put({0, 50, 60});
  table.erase(17);  // is not there
  EXPECT_EQ(table.find(0)->offset, 50U);
  EXPECT_EQ(table.find(0)->size, 60U);
  EXPECT_EQ(table.find(0xFFFFFFFE)->offset, 30U);
  EXPECT_EQ(table.find(0xFFFFFFFF), nullptr);
  table.erase(0);
  EXPECT_EQ(table.find(0), nullptr);
  table.clear();
  EXPECT_EQ(table.find(0xFFFFFFFE), nullptr);
}

class StoreEntryTableSteps : public testing::TestWithParam<unsigned int> {};

// Of few ids, so that they come and go and lie behind each other's homes.
TEST_P(StoreEntryTableSteps, AgreesWithAMap) {
  constexpr unsigned int kFewIds = 400;
  std::map<unsigned int, unsigned int> model;
  EntryTable table;
  std::mt19937 random(GetParam());
  const unsigned int stride = GetParam() % 2 == 0 ? 1 : 0x01000193;
  for (unsigned int step = 0; step < 20000; ++step) {
    const unsigned int id = static_cast<unsigned int>(random() % kFewIds) * stride;
    if (random() % 2 == 0) {
      model[id] = step;
      table.put({id, step, 1});
    } else {
      model.erase(id);
      table.erase(id);
    }
    if (step % 100 != 0) continue;
    for (unsigned int i = 0; i < kFewIds; ++i) {
      const auto known = model.find(i * stride);
      const auto* found = table.find(i * stride);
      ASSERT_EQ(found != nullptr, known != model.end()) << "step " << step << ", seed " << GetParam();
      ASSERT_TRUE(found == nullptr || found->offset == known->second) << "step " << step;
    }
  }
}

INSTANTIATE_TEST_SUITE_P(Seeds, StoreEntryTableSteps, testing::Range(1U, 7U));

}  // namespace

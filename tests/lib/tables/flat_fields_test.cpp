#include "tables/flat_fields.h"

#include <gtest/gtest.h>

#include "tests/lib/tables/route.h"

namespace kl {
namespace {

message ofManyTypes() {
  message m;
  m.insert(test::NAME, "a");
  m.insert(test::METRIC, 70000);
  m.insert(test::UP, false);
  m.insert(test::HOPS, {1, 2});
  m.insert(test::BYTES, 1ull << 40);
  return m;
}

}  // namespace

TEST(FlatFields, AFieldIsFoundByItsWholeId) {
  const message::flat_message bytes = ofManyTypes().flattened();
  Record record;
  ASSERT_TRUE(findRecord(bytes, test::METRIC, record));
  EXPECT_EQ(record.u32(), 70000u);
  ASSERT_TRUE(findRecord(bytes, test::UP, record));
  EXPECT_FALSE(record.boolean());
  EXPECT_FALSE(findRecord(bytes, test::METRIC + 1, record));
  EXPECT_FALSE(findRecord(message().flattened(), test::UP, record));
}

TEST(FlatFields, PickedFieldsAreAMessageOfTheirOwn) {
  message expected = ofManyTypes();
  expected.remove(test::METRIC);
  EXPECT_EQ(pick(ofManyTypes(), [](const Record& record) { return record.id() != test::METRIC; }), expected);
  EXPECT_EQ(pick(ofManyTypes(), [](const Record&) { return true; }), ofManyTypes());
  EXPECT_EQ(pick(ofManyTypes(), [](const Record&) { return false; }), message());
}

}  // namespace kl

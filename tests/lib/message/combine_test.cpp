#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "kl/message.h"
#include "message/rep.h"
#include "tests/support/hex.h"

namespace {

using kl::IPAddr6;
using kl::message;
using kl::RepAccess;
using kl::test::bytes;
using kl::test::hex;

using Bytes = std::vector<unsigned char>;
using Flat = message::flat_message;

message u32s(std::vector<std::pair<unsigned int, unsigned int>> values) {
  message m;
  for (const auto& [number, value] : values) m.insert_u32(0x08000000 | number, value);
  return m;
}

std::string flatHex(const message& m) { return hex(m.flattened()); }

// --- Comparing -------------------------------------------------------------------------------------------------

TEST(Equality, HoldsForTheEmptyAndForAClone) {
  EXPECT_TRUE(message() == message());
  message m = u32s({{1, 5}});
  m.insert_string(0x20000001, "a");
  message copy(m);
  EXPECT_TRUE(copy == m);
  copy.clone();
  EXPECT_TRUE(copy == m);
}

TEST(Equality, DoesNotDependOnTheOrderOfLists) {
  message a;
  message b;
  for (unsigned int i = 0; i < 40; ++i) a.insert_string(0x20000000 + i, std::to_string(i));
  for (unsigned int i = 40; i-- > 0;) b.insert_string(0x20000000 + i, std::to_string(i));
  EXPECT_TRUE(a == b);
  b.insert_string(0x20000005, "other");
  EXPECT_FALSE(a == b);
}

TEST(Equality, ComparesBoolsByContentNotByStorage) {
  message inlined;
  inlined.insert_bool(1, true);
  message table;
  table.insert_bool(1, true);
  table.insert_bool(2, true);
  table.remove_bool(2);
  EXPECT_TRUE(inlined == table);
  EXPECT_TRUE(table == inlined);
  table.insert_bool(1, false);
  EXPECT_FALSE(inlined == table);
  EXPECT_FALSE(table == inlined);
  table.insert_bool(1, true);
  table.insert_bool(3, false);
  EXPECT_FALSE(inlined == table);
  EXPECT_FALSE(inlined.includes(table));
  EXPECT_TRUE(table.includes(inlined));
}

TEST(Equality, AnEmptyBoolTableEqualsNone) {
  message m;
  m.insert_bool(1, true);
  m.insert_bool(2, true);
  m.remove_bool(1);
  m.remove_bool(2);
  EXPECT_TRUE(m == message());
  EXPECT_TRUE(message() == m);
  message inlined;
  inlined.insert_bool(7, true);
  EXPECT_TRUE(inlined.includes(m));
}

TEST(Equality, SeesEveryTypeOfValue) {
  const auto differ = [](auto insertA, auto insertB) {
    message a;
    message b;
    insertA(a);
    insertB(b);
    EXPECT_FALSE(a == b);
    EXPECT_FALSE(a.includes(b));
    message c;
    insertA(c);
    EXPECT_TRUE(a == c);
  };
  using M = message&;
  differ([](M m) { m.insert_u64(0x10000001, 1); }, [](M m) { m.insert_u64(0x10000001, 1ULL << 32 | 1); });
  differ([](M m) { m.insert_addr6(0x18000001, IPAddr6::zero); },
         [](M m) { m.insert_addr6(0x18000001, {{1}}); });
  differ([](M m) { m.insert_string(0x20000001, "a"); }, [](M m) { m.insert_string(0x20000001, "ab"); });
  differ([](M m) { m.insert_raw(0x30000001, {1}); }, [](M m) { m.insert_raw(0x30000001, {2}); });
  differ([](M m) { m.insert_message(0x28000001, Flat(Bytes{1})); },
         [](M m) { m.insert_message(0x28000001, Flat()); });
  differ([](M m) { m.insert_bool_array(0x80000001, {true}); },
         [](M m) { m.insert_bool_array(0x80000001, {false}); });
  differ([](M m) { m.insert_u32_array(0x88000001, {1}); },
         [](M m) {
           m.insert_u32_array(0x88000001, {1, 1});
         });
  differ([](M m) { m.insert_u64_array(0x90000001, {1}); }, [](M m) { m.insert_u64_array(0x90000001, {2}); });
  differ([](M m) { m.insert_addr6_array(0x98000001, {}); },
         [](M m) { m.insert_addr6_array(0x98000001, {{}}); });
  differ(
      [](M m) {
        m.insert_string_array(0xA0000001, {"ab", ""});
      },
      [](M m) {
        m.insert_string_array(0xA0000001, {"a", "b"});
      });
  differ([](M m) { m.insert_raw_array(0xB0000001, {{}}); }, [](M m) { m.insert_raw_array(0xB0000001, {}); });
  differ([](M m) { m.insert_message_array(0xA8000001, {{}}); },
         [](M m) { m.insert_message_array(0xA8000001, {}); });
}

TEST(Equality, ComparesNestedMessagesAsBytes) {
  message a;
  message b;
  a.insert_string(0x20000001, "a"), a.insert_string(0x20000002, "b");
  b.insert_string(0x20000002, "b"), b.insert_string(0x20000001, "a");
  EXPECT_TRUE(a == b);
  message outerA;
  message outerB;
  outerA.insert_message(0x28000001, a);
  outerB.insert_message(0x28000001, b);
  EXPECT_FALSE(outerA == outerB);
}

TEST(Equality, AFieldThatDisagreesCountsButEqualsAnything) {
  message a;
  message b;
  a.insert_string(0x08000001, "a");
  EXPECT_FALSE(a == b);
  b.insert_string(0x08000001, "b");
  EXPECT_TRUE(a == b);
}

TEST(Inclusion, OfTheEmptyMessageAlwaysHolds) {
  EXPECT_TRUE(message().includes(message()));
  EXPECT_TRUE(u32s({{1, 5}}).includes(message()));
  EXPECT_FALSE(message().includes(u32s({{1, 5}})));
}

TEST(Inclusion, AllowsMore) {
  const message a = u32s({{1, 5}});
  const message b = u32s({{1, 5}, {2, 6}});
  EXPECT_TRUE(b.includes(a));
  EXPECT_FALSE(a.includes(b));
  EXPECT_FALSE(a == b);
  EXPECT_FALSE(b == a);
  EXPECT_FALSE(u32s({{1, 6}, {2, 6}}).includes(a));
}

TEST(Inclusion, CountsTheNodesItWalked) {
  message m;
  message other;
  for (unsigned int i = 0; i < 3; ++i)
    m.insert_string(0x20000000 + i, "a"), other.insert_string(0x20000000 + i, "a");
  unsigned int count = 9;
  EXPECT_TRUE(m.includes_fields(RepAccess::of(other), count));
  EXPECT_EQ(count, 3u);
  EXPECT_TRUE(m.includes_arrays(RepAccess::of(other), count));
  EXPECT_EQ(count, 0u);
  EXPECT_TRUE(m.includes_bools(RepAccess::of(other)));
  m.insert_string(0x20000001, "b");
  EXPECT_FALSE(m.includes_fields(RepAccess::of(other), count));
  EXPECT_EQ(count, 2u);
}

// --- Merging ---------------------------------------------------------------------------------------------------

TEST(Merge, TheOthersValuesWin) {
  message a = u32s({{1, 5}, {2, 6}});
  a.insert_string(0x20000001, "a");
  a.insert_u64(0x10000001, 1);
  message b = u32s({{2, 7}, {3, 8}});
  b.insert_string(0x20000001, "b");
  b.insert_raw(0x30000001, {1});
  a.merge(b);
  EXPECT_EQ(a.get_u32(0x08000001, 0), 5u);
  EXPECT_EQ(a.get_u32(0x08000002, 0), 7u);
  EXPECT_EQ(a.get_u32(0x08000003, 0), 8u);
  EXPECT_EQ(a.get_string(0x20000001, ""), "b");
  EXPECT_EQ(a.get_u64(0x10000001, 0), 1u);
  EXPECT_EQ(a.size_field(0x30000001), 1u);
  EXPECT_FALSE(RepAccess::read(a).unshareable);
}

TEST(Merge, ArraysAreReplacedNotJoined) {
  message a;
  message b;
  a.insert_u32_array(0x88000001, {9});
  b.insert_u32_array(0x88000001, {1, 2, 3});
  a.merge(b);
  EXPECT_EQ(a.get_u32_array(0x88000001), (std::vector<unsigned int>{1, 2, 3}));
  message c = u32s({{1, 1}});
  c.merge(b);
  EXPECT_FALSE(RepAccess::read(c).unshareable) << "merging an array does not make unshareable";
}

TEST(Merge, IntoTheEmptyMessageShares) {
  const message b = u32s({{1, 1}});
  message a;
  a.merge(b);
  EXPECT_EQ(RepAccess::of(a), RepAccess::of(b));
  a.merge(b);
  EXPECT_EQ(RepAccess::of(a), RepAccess::of(b));
  a.merge(message());
  EXPECT_EQ(RepAccess::of(a), RepAccess::of(b));
  message emptied = u32s({{1, 1}});
  emptied.remove_u32(0x08000001);
  emptied.merge(b);
  EXPECT_NE(RepAccess::of(emptied), RepAccess::of(b)) << "an emptied message is not the empty one";
  EXPECT_TRUE(emptied == b);
}

TEST(Merge, NewFieldsComeInReverse) {
  message a;
  a.insert_raw(0x30000009, {});
  message b;
  b.insert_raw(0x30000001, {});
  b.insert_raw(0x30000002, {});
  a.merge(b);
  EXPECT_EQ(flatHex(a), hex(bytes("4d32 01000031 00 02000031 00 09000031 00")));
}

TEST(Merge, FollowsEveryCaseOfBoolStorage) {
  const auto bools = [](std::vector<unsigned int> ids, bool asTable) {
    message m;
    m.insert_u32(0x08000001, 1);
    if (asTable) m.insert_bool(100, true), m.insert_bool(101, true), m.remove_bool(100), m.remove_bool(101);
    for (const unsigned int id : ids) m.insert_bool(id, true);
    return m;
  };
  const auto merged = [](message a, const message& b) {
    a.merge(b);
    return a;
  };
  const auto isTable = [](const message& m) { return RepAccess::read(m).bools != nullptr; };
  EXPECT_FALSE(isTable(merged(bools({}, false), bools({1}, false))));
  EXPECT_FALSE(isTable(merged(bools({1}, false), bools({1}, false))));
  EXPECT_TRUE(isTable(merged(bools({1}, false), bools({2}, false))));
  EXPECT_TRUE(isTable(merged(bools({}, false), bools({}, true))));
  EXPECT_TRUE(isTable(merged(bools({1}, false), bools({}, true))));
  for (const bool tableA : {false, true})
    for (const bool tableB : {false, true}) {
      const message m = merged(bools({1}, tableA), bools({2}, tableB));
      EXPECT_TRUE(m.get_bool(1, false) && m.get_bool(2, false));
      EXPECT_EQ(RepAccess::read(m).boolCount(), 2u);
    }
}

TEST(Merge, ChangesWhatIsReferredTo) {
  message a;
  std::string* text = a.get_string_ref(0x20000001);
  message b;
  b.insert_string(0x20000001, "b");
  a.merge(b);
  EXPECT_EQ(*text, "b");
  b.merge(a);
  EXPECT_EQ(b.get_string(0x20000001, ""), "b");
}

// --- Removing by mask --------------------------------------------------------------------------------------------

message inSpace(unsigned int space) {
  message m;
  m.insert_bool(space | 1, true);
  m.insert_u32(0x08000001 | space, 1);
  m.insert_u64(0x10000001 | space, 1);
  m.insert_string(0x20000001 | space, "a");
  m.insert_string(0x20000002 | space, "b");
  m.insert_u32_array(0x88000001 | space, {1});
  m.insert_bool_array(0x80000001 | space, {true});
  return m;
}

TEST(RemoveIdMask, AWholeNameSpaceGoesWhateverTheType) {
  message m = inSpace(0x00FE0000);
  m.merge(inSpace(0x00FF0000));
  m.removeIdMask(0x00FE0000, 0x00FF0000);
  EXPECT_TRUE(m == inSpace(0x00FF0000));
  message inlined = inSpace(0x00FE0000);
  inlined.removeIdMask(0x00FE0000, 0x00FF0000);
  EXPECT_TRUE(inlined == message());
}

TEST(RemoveIdMask, OneTypeOfANameSpace) {
  message m = inSpace(0x00FE0000);
  m.removeIdMask(0x08FE0000, 0xF8FF0000);
  EXPECT_EQ(m.size_u32(0x08FE0001), 0u);
  EXPECT_EQ(m.size_bool(0x00FE0001), 1u);
  EXPECT_EQ(m.size_field(0x20FE0001), 1u);
  m.insert_u32(0x08FE0001, 1);
  m.removeIdMask(0x20FE0000, 0xF8FF0000);
  EXPECT_EQ(m.size_field(0x20FE0001) + m.size_field(0x20FE0002), 0u);
  EXPECT_EQ(m.size_u32(0x08FE0001), 1u);
  EXPECT_EQ(m.size_field(0x10FE0001), 1u);
  EXPECT_TRUE(m.has_array(0x88FE0001));
}

TEST(RemoveIdMask, LeavesTheEmptyMessageEmptyAndUnsharesOthers) {
  message m;
  m.removeIdMask(0, 0);
  EXPECT_EQ(RepAccess::of(m), nullptr);
  message a = inSpace(0);
  a.remove_array(0x88000001);
  message b(a);
  b.clone();
  message c(b);
  c.removeIdMask(0x00FE0000, 0x00FF0000);
  EXPECT_NE(RepAccess::of(b), RepAccess::of(c));
  EXPECT_TRUE(b == c);
}

}  // namespace

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "kl/message.h"
#include "kl/message_view.h"
#include "message/rep.h"
#include "tests/lib/message/allocation_count.h"
#include "tests/support/hex.h"

namespace {

using kl::IPAddr6;
using kl::message;
using kl::RepAccess;
using kl::test::hex;

using Bytes = std::vector<unsigned char>;
using Flat = message::flat_message;

constexpr unsigned int kReserved[] = {0xFFFFFFFF, 0xFFFFFFFE};

IPAddr6 address(unsigned char last) {
  IPAddr6 v;
  v.bytes[15] = last;
  return v;
}

std::string flatHex(const message& m) { return hex(m.flattened()); }

// --- Presence ----------------------------------------------------------------------------------------------

TEST(Fields, ADefaultMessageHasNone) {
  const message m;
  EXPECT_EQ(m.get_u32(0x08000001, 7), 7u);
  EXPECT_EQ(m.get_bool(1, true), true);
  EXPECT_EQ(m.get_string(0x20000001, "def"), "def");
  EXPECT_EQ(m.get_raw(0x30000001, {1}), Bytes{1});
  EXPECT_EQ(m.get_addr6(0x18000001), IPAddr6::zero);
  EXPECT_EQ(m.get_addr6(0x18000001, address(3)), address(3));
  EXPECT_EQ(m.get_u64(0x10000001, 5), 5u);
  EXPECT_EQ(m.get_message(0x28000001, Flat(Bytes{9})), Flat(Bytes{9}));
  EXPECT_EQ(m.size_field(0x20000001), 0u);
  EXPECT_EQ(m.size_u32(0x08000001), 0u);
  EXPECT_EQ(m.size_bool(1), 0u);
}

TEST(Fields, InsertingIntoOneDefaultMessageLeavesTheOthersEmpty) {
  message a;
  const message b;
  a.insert_u32(0x08000001, 1);
  const message c;
  EXPECT_EQ(b.size_u32(0x08000001), 0u);
  EXPECT_EQ(c.size_u32(0x08000001), 0u);
  EXPECT_EQ(a.size_u32(0x08000001), 1u);
}

TEST(Fields, EveryScalarReadsBackAndIsOverwritten) {
  message m;
  for (unsigned char round = 1; round <= 2; ++round) {
    const std::string text(round * 100u, 'x');
    const Bytes raw(round * 90u, round);
    m.insert_bool(1, round == 2);
    m.insert_u32(0x08000001, round);
    m.insert_u64(0x10000001, round * 0x100000001ULL);
    m.insert_addr6(0x18000001, address(round));
    m.insert_string(0x20000001, text);
    m.insert_message(0x28000001, Flat(raw));
    m.insert_raw(0x30000001, raw);
    EXPECT_EQ(m.get_bool(1, round != 2), round == 2);
    EXPECT_EQ(m.get_u32(0x08000001, 0), round);
    EXPECT_EQ(m.get_u64(0x10000001, 0), round * 0x100000001ULL);
    EXPECT_EQ(m.get_addr6(0x18000001), address(round));
    EXPECT_EQ(m.get_string(0x20000001, ""), text);
    EXPECT_EQ(m.get_message(0x28000001, {}), Flat(raw));
    EXPECT_EQ(m.get_raw(0x30000001, {}), raw);
  }
  EXPECT_EQ(RepAccess::read(m).fields.count(), 5u);
}

TEST(Fields, ValuesMayBeEmptyAndGrowAndShrink) {
  message m;
  for (const std::size_t n : {0, 300, 1, 70000, 0, 5000, 16, 17}) {
    m.insert_string(0x20000001, std::string(n, 'y'));
    EXPECT_EQ(m.get_string(0x20000001, "def"), std::string(n, 'y'));
    EXPECT_EQ(m.max_length(), 2 + 6 + n);
    RepAccess::read(m).check();
  }
}

TEST(Fields, RemovingWhatIsAbsentChangesNothingButUnshares) {
  message m;
  m.insert_u32(0x08000001, 1);
  message copy(m);
  copy.remove_field(0x20000001);
  EXPECT_NE(RepAccess::of(m), RepAccess::of(copy));
  EXPECT_TRUE(m == copy);
  message empty;
  empty.remove_u32(0x08000001);
  empty.remove_bool(1);
  empty.remove_array(0x88000001);
  EXPECT_TRUE(empty == message());
  EXPECT_NE(RepAccess::of(empty), nullptr);
}

TEST(Fields, ARemovedFieldIsAbsent) {
  message m;
  m.insert_string(0x20000001, "a");
  m.insert_string(0x20000002, "b");
  m.insert_string(0x20000003, "c");
  m.remove_field(0x20000002);
  EXPECT_EQ(m.size_field(0x20000002), 0u);
  EXPECT_EQ(flatHex(m), hex(kl::test::bytes("4d32 03000021 01 63 01000021 01 61")));
  m.remove_field(0x20000003);
  m.remove_field(0x20000001);
  EXPECT_TRUE(m == message());
}

TEST(Fields, TheMostRecentlyAddedComesFirst) {
  message m;
  m.insert_u64(0x10000001, 1);
  m.insert_string(0x20000001, "");
  m.insert_raw(0x30000001, {});
  EXPECT_EQ(flatHex(m), hex(kl::test::bytes("4d32 01000031 00 01000021 00 01000010 0100000000000000")));
  m.insert_u64(0x10000001, 2);  // stays where it is
  EXPECT_EQ(flatHex(m), hex(kl::test::bytes("4d32 01000031 00 01000021 00 01000010 0200000000000000")));
}

// --- Bools -------------------------------------------------------------------------------------------------

TEST(Bools, OneLiesInlineASecondMakesATable) {
  message m;
  m.insert_bool(1, true);
  EXPECT_EQ(RepAccess::read(m).boolId, 1u);
  EXPECT_EQ(RepAccess::read(m).bools, nullptr);
  m.insert_bool(2, false);
  EXPECT_EQ(RepAccess::read(m).boolId, message::Rep::kNoBool);
  ASSERT_NE(RepAccess::read(m).bools, nullptr);
  EXPECT_TRUE(m.get_bool(1, false));
  EXPECT_FALSE(m.get_bool(2, true));
}

TEST(Bools, ATableStaysWhenItIsEmpty) {
  message m;
  m.insert_bool(1, true);
  m.insert_bool(2, false);
  m.remove_bool(1);
  m.remove_bool(2);
  EXPECT_EQ(m.size_bool(1) + m.size_bool(2), 0u);
  m.insert_bool(3, true);
  EXPECT_EQ(RepAccess::read(m).boolId, message::Rep::kNoBool);
  EXPECT_EQ(RepAccess::read(m).bools->count(), 1u);
  EXPECT_TRUE(m.get_bool(3, false));
}

TEST(Bools, ARemovedInlineBoolLeavesRoomForAnother) {
  message m;
  m.insert_bool(1, true);
  m.remove_bool(2);
  EXPECT_TRUE(m.get_bool(1, false));
  m.remove_bool(1);
  EXPECT_FALSE(m.get_bool(1, false));
  m.insert_bool(2, true);
  EXPECT_EQ(RepAccess::read(m).boolId, 2u);
}

TEST(Bools, AReferenceFollowsTheSameCases) {
  message m;
  EXPECT_FALSE(*m.get_bool_ref(1));
  *m.get_bool_ref(1) = true;
  EXPECT_EQ(RepAccess::read(m).boolId, 1u);
  EXPECT_FALSE(*m.get_bool_ref(2));
  EXPECT_EQ(RepAccess::read(m).boolId, message::Rep::kNoBool);
  EXPECT_TRUE(*m.get_bool_ref(1));
}

TEST(Bools, AMissingConstReferenceIsTheSharedFalse) {
  const message a;
  message b;
  b.insert_bool(1, true);
  const message& constB = b;
  EXPECT_FALSE(*a.get_bool_ref(1));
  EXPECT_EQ(a.get_bool_ref(1), constB.get_bool_ref(2));
  EXPECT_TRUE(*constB.get_bool_ref(1));
}

// --- Numbers -----------------------------------------------------------------------------------------------

TEST(Numbers, TheReversedPairKeepsAValueInNetworkOrder) {
  message m;
  m.insert_be32(0x08000001, 0x01020304);
  EXPECT_EQ(m.get_u32(0x08000001, 0), 0x04030201u);
  EXPECT_EQ(m.get_be32(0x08000001, 0), 0x01020304u);
  EXPECT_EQ(m.get_be32(0x08000002, 0x01020304), 0x01020304u);
}

TEST(Numbers, AnyIdMayNameATableEntry) {
  message m;
  m.insert_u32(0x20000001, 7);
  EXPECT_EQ(m.get_u32(0x20000001, 0), 7u);
  EXPECT_EQ(m.size_field(0x20000001), 0u);
  EXPECT_EQ(flatHex(m), hex(kl::test::bytes("4d32 01000021 07")));
}

TEST(Numbers, AMissingConstReferenceIsNull) {
  message m;
  m.insert_u32(0x08000001, 7);
  const message& constM = m;
  EXPECT_EQ(constM.get_u32_ref(0x08000002), nullptr);
  EXPECT_EQ(*constM.get_u32_ref(0x08000001), 7u);
  EXPECT_EQ(message(constM).get_u32(0x08000001, 0), 7u);
}

TEST(ReservedIds, AreNeverKeys) {
  for (const unsigned int id : kReserved) {
    message m;
    m.insert_bool(id, true);
    m.insert_u32(id, 7);
    m.insert_be32(id, 7);
    EXPECT_TRUE(m.get_bool(id, true));
    EXPECT_FALSE(m.get_bool(id, false));
    EXPECT_EQ(m.get_u32(id, 3), 3u);
    EXPECT_EQ(m.size_bool(id) + m.size_u32(id), 0u);
    m.remove_bool(id);
    m.remove_u32(id);
    EXPECT_TRUE(m == message());
    *m.get_bool_ref(id) = true;
    *m.get_u32_ref(id) = 7;
    EXPECT_FALSE(*m.get_bool_ref(id));
    EXPECT_EQ(*m.get_u32_ref(id), 0u);
    EXPECT_FALSE(*static_cast<const message&>(m).get_bool_ref(id));
    EXPECT_EQ(static_cast<const message&>(m).get_u32_ref(id), nullptr);
    EXPECT_TRUE(m == message());
  }
}

TEST(ReservedIds, AreOrdinaryForLists) {
  message m;
  m.insert_string(0xFFFFFFFF, "a");
  EXPECT_EQ(m.get_string(0xFFFFFFFF, ""), "a");
  EXPECT_EQ(m.size_field(0xFFFFFFFF), 1u);
}

// --- References --------------------------------------------------------------------------------------------

TEST(References, CreateTheirFieldWithTheZeroValue) {
  message m;
  EXPECT_EQ(*m.get_u32_ref(0x08000001), 0u);
  EXPECT_EQ(*m.get_u64_ref(0x10000001), 0u);
  EXPECT_EQ(*m.get_addr6_ref(0x18000001), IPAddr6::zero);
  EXPECT_EQ(*m.get_string_ref(0x20000001), "");
  EXPECT_TRUE(m.get_message_ref(0x28000001)->empty());
  EXPECT_TRUE(m.get_raw_ref(0x30000001)->empty());
  EXPECT_EQ(RepAccess::read(m).fields.count(), 5u);
}

TEST(References, ChangeTheValueAtAnyLaterTime) {
  message m;
  std::string* text = m.get_string_ref(0x20000001);
  unsigned long long* number = m.get_u64_ref(0x10000001);
  for (unsigned int i = 0; i < 100; ++i) m.insert_string(0x20000100 + i, std::string(i, 'x'));
  *text = "changed";
  *number = 5;
  EXPECT_EQ(m.get_string(0x20000001, ""), "changed");
  EXPECT_EQ(m.get_u64(0x10000001, 0), 5u);
  EXPECT_EQ(message(m).get_string(0x20000001, ""), "changed");
  m.insert_string(0x20000001, "inserted");
  EXPECT_EQ(*text, "inserted");
  EXPECT_EQ(m.get_string_ref(0x20000001), text);
  text->assign(1000, 'z');
  EXPECT_EQ(m.max_length(), 2 + 12 + 1006 + 100 * 6 + 99 * 100 / 2);
}

TEST(References, ToAConstMessageShowTheValueInPlace) {
  message m;
  m.insert_string(0x20000001, "text");
  m.insert_raw(0x30000001, {1, 2});
  const message copy(m);
  const std::string* text = copy.get_string_ref(0x20000001);
  EXPECT_EQ(*text, "text");
  EXPECT_EQ(copy.get_string_ref(0x20000001), text);
  EXPECT_EQ(*copy.get_raw_ref(0x30000001), (Bytes{1, 2}));
  EXPECT_EQ(RepAccess::of(copy), RepAccess::of(m)) << "reading does not unshare";
  m.insert_string(0x20000001, "other");
  EXPECT_EQ(*text, "text");
}

TEST(References, AssigningAValueToItselfLeavesIt) {
  message m;
  m.insert_string(0x20000001, "text");
  m.insert_string(0x20000001, *m.get_string_ref(0x20000001));
  EXPECT_EQ(m.get_string(0x20000001, ""), "text");
  m.insert_raw(0x20000001, *m.get_raw_ref(0x30000001));
  m.get_message_ref(0x28000001)->assign({1, 2, 3});
  m.insert_raw(0x28000001, *m.get_message_ref(0x28000001));  // of another kind, so its own source is replaced
  EXPECT_EQ(m.get_raw(0x28000001, {}), (Bytes{1, 2, 3}));
  m.insert_addr6(0x18000001, address(1));
  m.insert_addr6(0x18000001, *m.get_addr6_ref(0x18000001));
  EXPECT_EQ(m.get_addr6(0x18000001), address(1));
}

using ReferencesDeathTest = testing::Test;

TEST(ReferencesDeathTest, AConstReferenceNeedsTheField) {
  const message m;
  EXPECT_DEATH((void)m.get_string_ref(0x20000001), "const reference to field 0x20000001");
  EXPECT_DEATH((void)m.get_u64_ref(0x10000001), "const reference to field 0x10000001");
  EXPECT_DEATH((void)m.get_u32_array_ref(0x88000001), "const reference to field 0x88000001");
}

// --- Values in place -----------------------------------------------------------------------------------------

message withAllThatLiesInPlace() {
  message nested;
  nested.insert_u32(0x08000001, 5);
  message m;
  m.insert_string(0x20000001, "ab");
  m.insert_raw(0x30000001, {1, 2, 3});
  m.insert_message(0x28000001, nested);
  m.insert_u32_array(0x88000001, {7, 0x01020304});
  return m;
}

void expectAllInPlace(const message& m) {
  EXPECT_EQ(m.view_string(0x20000001, "?"), "ab");
  const std::span<const unsigned char> raw = m.view_raw(0x30000001, {});
  EXPECT_EQ(Bytes(raw.begin(), raw.end()), (Bytes{1, 2, 3}));
  EXPECT_EQ(m.view_message(0x28000001).get_u32(0x08000001, 0), 5u);
  EXPECT_EQ(m.view_u32_array(0x88000001).values(), (std::vector<unsigned int>{7, 0x01020304}));
  EXPECT_EQ(m.view_u32_array(0x88000001)[1], 0x01020304u);
}

TEST(InPlace, AValueIsSeenWhereverItLies) {
  const message built = withAllThatLiesInPlace();
  expectAllInPlace(built);
  expectAllInPlace(message(built.flattened()));
  (void)built.get_string_ref(0x20000001);
  (void)built.get_raw_ref(0x30000001);
  (void)built.get_message_ref(0x28000001);
  (void)built.get_u32_array_ref(0x88000001);
  expectAllInPlace(built);
}

TEST(InPlace, WhatIsChangedThroughAPointerIsSeenChanged) {
  message m = withAllThatLiesInPlace();
  *m.get_string_ref(0x20000001) = "changed";
  m.get_u32_array_ref(0x88000001)->push_back(9);
  m.get_raw_ref(0x30000001)->clear();
  EXPECT_EQ(m.view_string(0x20000001, "?"), "changed");
  EXPECT_EQ(m.view_u32_array(0x88000001).values(), (std::vector<unsigned int>{7, 0x01020304, 9}));
  EXPECT_TRUE(m.view_raw(0x30000001, Bytes{1}).empty());
}

TEST(InPlace, WhatIsAbsentOrOfAnotherKindGivesTheDefault) {
  message m;
  m.insert_raw(0x20000001, {1});
  const Bytes def{9};
  EXPECT_EQ(m.view_string(0x20000001, "none"), "none");
  EXPECT_EQ(m.view_string(0x20000002, "none"), "none");
  EXPECT_EQ(m.view_raw(0x30000001, def).data(), def.data());
  EXPECT_TRUE(m.view_message(0x28000001).empty());
  EXPECT_TRUE(m.view_u32_array(0x88000001).empty());
  m.insert_string(0x20000003, "");
  EXPECT_EQ(m.view_string(0x20000003, "none"), "");
}

TEST(InPlace, NothingIsAllocated) {
  const message m(withAllThatLiesInPlace().flattened());
  const kl::test::AllocationCount count;
  std::size_t sum = m.view_string(0x20000001, "").size() + m.view_raw(0x30000001, {}).size();
  sum += m.view_message(0x28000001).size();
  for (const unsigned int number : m.view_u32_array(0x88000001)) sum += number;
  EXPECT_EQ(count.since(), 0u);
  EXPECT_EQ(sum, 2u + 3 + 1 + 7 + 0x01020304);
}

// --- Kinds that disagree with their id ------------------------------------------------------------------------

TEST(Kinds, AnotherKindsGetterDoesNotFindTheField) {
  message m;
  m.insert_string(0x30000001, "text");
  EXPECT_EQ(m.get_raw(0x30000001, {9}), Bytes{9});
  EXPECT_EQ(m.get_string(0x30000001, ""), "text");
  EXPECT_EQ(m.size_field(0x30000001), 1u);
}

TEST(Kinds, AnInsertOfAnotherKindReplacesInPlace) {
  message m;
  m.insert_string(0x20000001, "a");
  m.insert_u64(0x30000001, 5);
  m.insert_string(0x20000002, "b");
  m.insert_raw(0x30000001, {7});
  EXPECT_EQ(flatHex(m), hex(kl::test::bytes("4d32 02000021 01 62 01000031 01 07 01000021 01 61")));
}

TEST(Kinds, AFieldThatDisagreesIsPassedOverByWhateverGoesByTheType) {
  message m;
  m.insert_string(0x08000001, "text");
  EXPECT_EQ(flatHex(m), "4d32");
  EXPECT_EQ(m.max_length(), 2u);
  m.remove_field(0x08000001);
  EXPECT_EQ(m.size_field(0x08000001), 0u);
}

// --- Nested messages -----------------------------------------------------------------------------------------

TEST(Nested, AMessageIsStoredAsItsBytes) {
  message inner;
  inner.insert_u32(0x08000005, 7);
  message m;
  m.insert_message(0x28000001, inner);
  EXPECT_EQ(hex(m.get_message(0x28000001, {})), "4d32 0500 0009 07");
  EXPECT_TRUE(message(m.get_message(0x28000001, {})) == inner);
  EXPECT_FALSE(RepAccess::read(m).unshareable);
  inner.insert_string(0x20000001, std::string(400, 'x'));
  m.insert_message(0x28000001, inner);
  EXPECT_TRUE(message(m.get_message(0x28000001, {})) == inner);
  RepAccess::read(m).check();
}

TEST(Nested, AMessageMayBePutIntoItself) {
  message m;
  m.insert_u32(0x08000005, 7);
  m.insert_message(0x28000001, m);
  EXPECT_EQ(flatHex(m), "4d32 0500 0009 0701 0000 2907 4d32 0500 0009 07");
}

TEST(Nested, AMessagePutIntoItselfIsTheSameSharedOrNot) {
  message alone;
  alone.insert_string(0x20000001, "a");
  alone.insert_string(0x20000002, "b");
  message shared(alone);
  const message other(shared);
  alone.clone();
  alone.clone();
  alone.insert_message(0x28000001, alone);
  shared.insert_message(0x28000001, shared);
  EXPECT_EQ(hex(alone.get_message(0x28000001, {})), "4d32 0200 0021 0162 0100 0021 0161");
  EXPECT_EQ(hex(shared.get_message(0x28000001, {})), "4d32 0200 0021 0162 0100 0021 0161");
}

TEST(Nested, AMessageReplacesOneThatIsReferredTo) {
  message m;
  const message inner;
  Flat* bytes = m.get_message_ref(0x28000001);
  m.insert_message(0x28000001, inner);
  EXPECT_EQ(hex(*bytes), "4d32");
}

}  // namespace

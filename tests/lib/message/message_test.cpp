#include "kl/message.h"

#include <gtest/gtest.h>

#include <string>
#include <type_traits>
#include <vector>

#include "kl/records.h"
#include "message/rep.h"
#include "tests/lib/message/allocation_count.h"
#include "tests/support/hex.h"

namespace {

using kl::message;
using kl::RepAccess;
using kl::test::AllocationCount;
using kl::test::bytes;
using kl::test::hex;

using Bytes = std::vector<unsigned char>;
using Flat = message::flat_message;

// Made before main, whatever the order of the files.
message madeEarly;
const bool earlyIsEmpty = madeEarly.max_length() == 2;

bool share(const message& a, const message& b) { return RepAccess::of(a) == RepAccess::of(b); }

// --- Value ---------------------------------------------------------------------------------------------------

TEST(Message, IsOnePointerAndEmptyWithoutAllocation) {
  static_assert(sizeof(message) == sizeof(void*));
  EXPECT_TRUE(earlyIsEmpty);
  const AllocationCount before;
  message a;
  const message b(a);
  a = b;
  EXPECT_TRUE(a == b);
  EXPECT_EQ(before.since(), 0u);
}

TEST(Message, IsCopiedAlsoFromAnRvalue) {
  message m;
  m.insert_u32(0x08000001, 1);
  const message moved(std::move(m));
  EXPECT_EQ(m.get_u32(0x08000001, 0), 1u);
  EXPECT_TRUE(share(m, moved));
}

TEST(Message, SwapExchangesRepresentations) {
  message a;
  message b;
  a.insert_u32_array(0x88000001, {1});
  const message::Rep* rep = RepAccess::of(a);
  swap(a, b);
  EXPECT_EQ(RepAccess::of(b), rep);
  EXPECT_TRUE(a == message());
}

TEST(Message, IsMadeFromBytesInEveryForm) {
  const Bytes raw = bytes("4d32 0500 0009 07");
  EXPECT_EQ(message(raw).get_u32(0x08000005, 0), 7u);
  EXPECT_EQ(message(Flat(raw)).get_u32(0x08000005, 0), 7u);
  EXPECT_EQ(message(raw.data(), static_cast<unsigned int>(raw.size())).get_u32(0x08000005, 0), 7u);
  message m;
  m.insert_u32(0x08000006, 1);
  m = Flat(raw);
  EXPECT_EQ(m.get_u32(0x08000005, 0), 7u);
  EXPECT_EQ(m.size_u32(0x08000006), 0u);
}

TEST(Message, KeepsTheFieldsBeforeAFaultInItsBytes) {
  const message m(bytes("4d32 0500 0009 07 0600 0009"));
  EXPECT_EQ(m.get_u32(0x08000005, 0), 7u);
  EXPECT_TRUE(message(Bytes{}) == message());
}

TEST(Message, MayBeAssignedBytesThatLieInItself) {
  message inner;
  inner.insert_u32(0x08000005, 7);
  message m;
  m.insert_message(0x28000001, inner);
  m = *static_cast<const message&>(m).get_message_ref(0x28000001);
  EXPECT_TRUE(m == inner);
}

// --- Sharing -------------------------------------------------------------------------------------------------

TEST(Sharing, CopiesShareUntilOneChanges) {
  message a;
  a.insert_u32(0x08000001, 1);
  message b(a);
  message c;
  c = a;
  EXPECT_TRUE(share(a, b) && share(a, c));
  b.insert_u32(0x08000001, 2);
  EXPECT_FALSE(share(a, b));
  EXPECT_TRUE(share(a, c));
  EXPECT_EQ(a.get_u32(0x08000001, 0), 1u);
  EXPECT_EQ(b.get_u32(0x08000001, 0), 2u);
}

TEST(Sharing, TheLastHolderChangesInPlace) {
  message a;
  a.insert_u32(0x08000001, 1);
  const message::Rep* rep = RepAccess::of(a);
  { const message b(a); }
  a.insert_u32(0x08000001, 2);
  EXPECT_EQ(RepAccess::of(a), rep);
}

TEST(Sharing, AReferenceMakesTheMessageUnshareable) {
  message a;
  unsigned int* v = a.get_u32_ref(0x08000001);
  const message b(a);
  message c;
  c = a;
  EXPECT_FALSE(share(a, b) || share(a, c) || share(b, c));
  *v = 7;
  EXPECT_EQ(a.get_u32(0x08000001, 0), 7u);
  EXPECT_EQ(b.get_u32(0x08000001, 9), 0u);
  EXPECT_EQ(c.get_u32(0x08000001, 9), 0u);
}

TEST(Sharing, AnArrayInsertMakesTheMessageUnshareable) {
  message a;
  a.insert_u32_array(0x88000001, {1});
  const message b(a);
  EXPECT_FALSE(share(a, b));
  const message c(b);
  EXPECT_TRUE(share(b, c)) << "a private copy is shareable again";
}

TEST(Sharing, ScalarInsertsDoNot) {
  message a;
  a.insert_bool(1, true);
  a.insert_u32(0x08000001, 1);
  a.insert_string(0x20000001, "a");
  a.insert_message(0x28000001, message());
  const message b(a);
  EXPECT_TRUE(share(a, b));
}

TEST(Sharing, AMessageFromBytesIsUnshareableOnceItReceivedAField) {
  const message some(bytes("4d32 0500 0009 07"));
  const message none(bytes("4d32"));
  EXPECT_FALSE(share(some, message(some)));
  EXPECT_TRUE(share(none, message(none)));
  const message fault(bytes("4d32 0500 0009"));
  EXPECT_TRUE(share(fault, message(fault)));
}

TEST(Sharing, SelfAssignmentChangesNothing) {
  message a;
  a.insert_u32_array(0x88000001, {1});
  const message::Rep* rep = RepAccess::of(a);
  const message& same = a;
  a = same;
  EXPECT_EQ(RepAccess::of(a), rep);
}

TEST(Sharing, ReadingNeverUnshares) {
  message a;
  a.insert_string(0x20000001, "a");
  const message b(a);
  (void)b.get_string_ref(0x20000001);
  (void)b.flattened();
  EXPECT_TRUE(share(a, b));
}

// --- Clone ---------------------------------------------------------------------------------------------------

TEST(Clone, EqualsItsSourceAndIsPrivate) {
  message a;
  a.insert_bool(1, true);
  a.insert_u32(0x08000001, 1);
  a.insert_string(0x20000001, "a");
  a.insert_u32_array(0x88000001, {1});
  message b(a);
  b.clone();
  EXPECT_TRUE(a == b);
  EXPECT_FALSE(share(a, b));
  message empty;
  empty.clone();
  EXPECT_TRUE(empty == message());
  EXPECT_NE(RepAccess::of(empty), nullptr);
}

TEST(Clone, ReversesTheListsAndThereforeTheirRecords) {
  message m;
  m.insert_u32(0x08000001, 1);
  for (unsigned int i = 0; i < 3; ++i)
    m.insert_raw(0x30000000 + i, {}), m.insert_u32_array(0x88000000 + i, {});
  EXPECT_EQ(hex(m.flattened()), hex(bytes("4d32 01000009 01 02000031 00 01000031 00 00000031 00"
                                          "02000088 0000 01000088 0000 00000088 0000")));
  m.clone();
  EXPECT_EQ(hex(m.flattened()), hex(bytes("4d32 01000009 01 00000031 00 01000031 00 02000031 00"
                                          "00000088 0000 01000088 0000 02000088 0000")));
}

TEST(Clone, KeepsSlotsAndErasedSlots) {
  message m;
  m.insert_u32(0x08000000, 1);
  m.insert_u32(0x08000000 + 11, 2);  // the same home slot
  m.remove_u32(0x08000000);
  m.clone();
  const auto& table = RepAccess::read(m).u32s;
  const unsigned int home = 0x08000000 % 11;
  EXPECT_TRUE(table.isErased(home));
  EXPECT_EQ(table.key(table.next(table.kNoSlot)), 0x0800000Bu);
  EXPECT_EQ(table.next(table.kNoSlot), (home + 1) % 11);
}

TEST(Clone, LeavesOutWhatDisagreesWithItsId) {
  message m;
  m.insert_string(0x08000001, "text");
  m.insert_string(0x20000001, "text");
  m.clone();
  EXPECT_EQ(m.size_field(0x08000001), 0u);
  EXPECT_EQ(m.size_field(0x20000001), 1u);
}

// --- Large, deep, many ---------------------------------------------------------------------------------------

TEST(Size, ThousandLevelsAreCopiedComparedAndDestroyed) {
  message m;
  for (int depth = 0; depth < 1000; ++depth) {
    message outer;
    outer.insert_message(0x28000001, m);
    m.swap(outer);
  }
  message copy(m);
  copy.clone();
  EXPECT_TRUE(copy == m);
  const Flat out = m.flattened();
  // A level takes 7 bytes around a form of up to 255 bytes, which the first 37 levels are, and then 8.
  EXPECT_EQ(out.size(), 2 + 37 * 7 + (1000 - 37) * 8u);
  EXPECT_TRUE(message(out) == m);
}

// Steps that grow with the square would take 2,500 times as long, not 50; the bound leaves room for noise.
TEST(Size, KeysThatAllCollideCostNoMoreThanOthers) {
  // The most keys that one home slot has at every capacity up to 22,528.
  message m;
  unsigned int keys = 0;
  for (unsigned long long id = 0x08000000 / 22528 * 22528ULL + 22528; id < 0x10000000; id += 22528) {
    if ((id & kl::kRecordFlag) != 0) continue;
    m.insert_u32(static_cast<unsigned int>(id), 1);
    ++keys;
  }
  EXPECT_GT(keys, 2500u);
  EXPECT_EQ(RepAccess::read(m).u32s.count(), keys);
}

TEST(Size, AMessageChangedForEverStaysAsLargeAsItIs) {
  message m;
  const auto round = [&m](unsigned int n) {
    const unsigned int id = n % 7;
    m.remove_field(0x20000000 + id);
    m.insert_string(0x20000000 + id, std::string(10 + n % 5 * 16, 'x'));
    m.insert_u32_array(0x88000000 + id, std::vector<unsigned int>(n % 9 * 20, 1));
    m.remove_array(0x88000000 + (n + 3) % 7);
    m.insert_u32(0x08000000 + n, 1);
    m.remove_u32(0x08000000 + n);
  };
  for (unsigned int n = 0; n < 3000; ++n) round(n);
  const std::size_t settled = RepAccess::read(m).memory.bytes();
  for (unsigned int n = 0; n < 30000; ++n) round(n);
  EXPECT_LE(RepAccess::read(m).memory.bytes(), settled + 4096);
}

TEST(Allocations, OneParsesAMessageOfOrdinarySize) {
  message m;
  for (unsigned int i = 0; i < 8; ++i) m.insert_u32(0x08000000 + i, i * 100);
  for (unsigned int i = 0; i < 4; ++i) m.insert_bool(i, true);
  for (unsigned int i = 0; i < 4; ++i) m.insert_string(0x20000000 + i, std::string(8 + 10 * i, 'x'));
  m.insert_u64(0x10000000, 1);
  m.insert_raw(0x30000000, Bytes(64));
  const Flat out = m.flattened();
  std::vector<message> many;
  many.reserve(50);
  const AllocationCount before;
  for (int i = 0; i < 50; ++i) many.emplace_back(out);
  EXPECT_LE(before.since(), 50u);
}

}  // namespace

#include "store/files/format.h"

#include <gtest/gtest.h>

#include <vector>

#include "tests/support/hex.h"

namespace {

using kl::ByteOrder;
using kl::decodeLength;
using kl::decodeSlot;
using kl::IndexSlot;
using kl::test::bytes;
using kl::test::hex;

template <class Array>
std::string digits(const Array& array) {
  return hex({array.begin(), array.end()});
}

void expectSlot(const IndexSlot& slot, unsigned int id, unsigned int size, unsigned int lifetime) {
  EXPECT_EQ(slot.id, id);
  EXPECT_EQ(slot.size, size);
  EXPECT_EQ(slot.lifetime, lifetime);
}

TEST(StoreFormat, SlotsAreLittleEndian) {
  const auto slot = kl::encodeSlot({0x11223344, 0x90a, 0xfffffffe});
  EXPECT_EQ(digits(slot), hex(bytes("44332211 0a090000 feffffff")));
  expectSlot(decodeSlot(slot.data(), ByteOrder::kLittle), 0x11223344, 0x90a, 0xfffffffe);
}

TEST(StoreFormat, TheOlderLayoutIsBigEndian) {
  const auto slot = bytes("11223344 0000090a fffffffe");
  expectSlot(decodeSlot(slot.data(), ByteOrder::kBig), 0x11223344, 0x90a, 0xfffffffe);
  EXPECT_EQ(decodeLength(bytes("0102").data(), ByteOrder::kBig), 0x102U);
}

TEST(StoreFormat, AFreeSlotHasAnIdOfOnes) {
  EXPECT_TRUE(decodeSlot(bytes("ffffffff 00000000 00000000").data(), ByteOrder::kLittle).isFree());
  EXPECT_FALSE(decodeSlot(bytes("feffffff 00000000 00000000").data(), ByteOrder::kLittle).isFree());
}

TEST(StoreFormat, ALengthCountsItself) {
  EXPECT_EQ(digits(kl::encodeLength(7)), hex(bytes("0900")));
  EXPECT_EQ(digits(kl::encodeLength(0x1234)), hex(bytes("3612")));
  EXPECT_EQ(decodeLength(bytes("3612").data(), ByteOrder::kLittle), 0x1236U);
}

TEST(StoreFormat, ALengthKeepsItsLowSixteenBits) {
  EXPECT_EQ(digits(kl::encodeLength(65533)), hex(bytes("ffff")));
  EXPECT_EQ(digits(kl::encodeLength(65534)), hex(bytes("0000")));
}

}  // namespace

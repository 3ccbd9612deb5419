#include "services/common/byte_order.h"

#include <gtest/gtest.h>

#include <array>

namespace {

TEST(CompanionByteOrder, NumbersOfFramesBeginWithTheLowByte) {
  std::array<unsigned char, 7> bytes{};
  unsigned char* end = common::storeLe32(common::storeLe16(bytes.data(), 0x0201), 0x06050403);
  EXPECT_EQ(bytes, (std::array<unsigned char, 7>{1, 2, 3, 4, 5, 6, 0}));
  EXPECT_EQ(end, bytes.data() + 6);
}

TEST(CompanionByteOrder, NumbersOfLogRecordsBeginWithTheHighByte) {
  std::array<unsigned char, 3> bytes{};
  EXPECT_EQ(common::storeBe16(bytes.data(), 0x8102), bytes.data() + 2);
  EXPECT_EQ(bytes, (std::array<unsigned char, 3>{0x81, 2, 0}));
  EXPECT_EQ(common::loadBe16(bytes.data()), 0x8102U);
}

TEST(CompanionByteOrder, StoresTakeTheLowHalf) {
  std::array<unsigned char, 2> bytes{};
  common::storeLe16(bytes.data(), 0x12345);
  EXPECT_EQ(bytes, (std::array<unsigned char, 2>{0x45, 0x23}));
  common::storeBe16(bytes.data(), 0x12345);
  EXPECT_EQ(bytes, (std::array<unsigned char, 2>{0x23, 0x45}));
}

}  // namespace

// Numbers in memory by explicit byte order.

#include "base/byte_order.h"

#include <gtest/gtest.h>

#include <numeric>
#include <vector>

namespace kl {
namespace {

constexpr unsigned char kBytes[] = {0x01, 0x02, 0x03, 0x04, 0x05, 0x06, 0x07, 0xf8};

TEST(ByteOrder, ALittleEndianNumberBeginsWithItsLowestByte) {
  EXPECT_EQ(loadLe16(kBytes), 0x0201u);
  EXPECT_EQ(loadLe32(kBytes), 0x04030201u);
  EXPECT_EQ(loadLe64(kBytes), 0xf807060504030201u);
}

TEST(ByteOrder, ABigEndianNumberBeginsWithItsHighestByte) {
  EXPECT_EQ(loadBe16(kBytes), 0x0102u);
  EXPECT_EQ(loadBe32(kBytes), 0x01020304u);
}

TEST(ByteOrder, AStoreReturnsWhereTheNextNumberGoes) {
  std::vector<unsigned char> bytes(16);
  unsigned char* end = storeLe16(bytes.data(), 0x10201);  // of which the low half is stored
  end = storeLe32(end, 0x06050403);
  end = storeLe64(end, 0x0e0d0c0b0a090807);
  end = storeBe16(end, 0x30f10);
  EXPECT_EQ(end, bytes.data() + bytes.size());
  std::vector<unsigned char> expected(16);
  std::iota(expected.begin(), expected.end(), 1);
  EXPECT_EQ(bytes, expected);
}

TEST(ByteOrder, ReversingTwiceChangesNothing) {
  EXPECT_EQ(byteReversed(std::uint16_t{0x0102}), 0x0201u);
  EXPECT_EQ(byteReversed(std::uint32_t{0x01020304}), 0x04030201u);
  EXPECT_EQ(byteReversed(byteReversed(std::uint64_t{0x0102030405060708})), 0x0102030405060708u);
}

TEST(ByteOrder, CopiesOfEveryLengthCopyExactlyThat) {
  std::vector<unsigned char> source(70);
  std::iota(source.begin(), source.end(), 1);
  for (std::size_t size = 0; size <= source.size(); ++size) {
    std::vector<unsigned char> copy(size + 1, 0xee);
    copyBytes(copy.data(), source.data(), size);
    EXPECT_TRUE(std::equal(source.begin(), source.begin() + static_cast<std::ptrdiff_t>(size), copy.begin()));
    EXPECT_EQ(copy.back(), 0xee) << size;
  }
}

}  // namespace
}  // namespace kl

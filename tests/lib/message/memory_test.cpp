#include "message/memory.h"

#include <gtest/gtest.h>

#include <cstring>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "tests/lib/message/allocation_count.h"

namespace {

using kl::container::Arena;
using kl::container::Memory;

class MemoryTest : public testing::Test {
 protected:
  ~MemoryTest() override { memory.releaseAll(); }
  alignas(8) unsigned char first[512];
  Memory memory{first, first + sizeof first, nullptr};
};

TEST_F(MemoryTest, TakesFromItsFirstRegionWithoutTheHeap) {
  const kl::test::AllocationCount before;
  EXPECT_EQ(memory.take(8), first);
  EXPECT_EQ(memory.take(256), first + 8);
  EXPECT_EQ(before.since(), 0u);
  memory.take(256);
  EXPECT_EQ(before.since(), 1u);
}

TEST_F(MemoryTest, GivesAgainWhatWasGivenBack) {
  void* a = memory.take(64);
  memory.take(64);
  memory.give(a, 64);
  EXPECT_NE(memory.take(72), a);
  EXPECT_EQ(memory.take(64), a);
}

TEST_F(MemoryTest, LargePiecesAreFreedOnTheirOwn) {
  void* large = memory.take(5000);
  EXPECT_EQ(Memory::largeBytes(large), 5000u);
  const std::size_t with = memory.bytes();
  memory.take(304);
  memory.give(large, 5000);
  EXPECT_LT(memory.bytes(), with - 4000);
}

TEST_F(MemoryTest, ARegionThatWasGivenBackServesSmallPieces) {
  void* slots = memory.take(88);
  memory.take(256);
  memory.giveAsRegion(slots, 88);
  memory.take(160);  // 8 bytes are left
  EXPECT_EQ(memory.take(80), slots);
  EXPECT_EQ(memory.bytes(), 0u);
}

TEST_F(MemoryTest, PiecesNeverOverlap) {
  const unsigned int seed = std::random_device{}();
  SCOPED_TRACE("seed " + std::to_string(seed));
  std::mt19937 random(seed);
  std::map<unsigned char*, std::size_t> pieces;
  for (unsigned int i = 0; i < 3000; ++i) {
    if (random() % 3 == 0 && !pieces.empty()) {
      const auto piece = std::next(pieces.begin(), static_cast<long>(random() % pieces.size()));
      memory.give(piece->first, piece->second);
      pieces.erase(piece);
      continue;
    }
    const std::size_t bytes = (random() % 50 + 1) * 8;
    auto* piece = static_cast<unsigned char*>(memory.take(bytes));
    std::memset(piece, 0xAA, bytes);
    const auto next = pieces.lower_bound(piece);
    ASSERT_TRUE(next == pieces.end() || piece + bytes <= next->first);
    ASSERT_TRUE(next == pieces.begin() || std::prev(next)->first + std::prev(next)->second <= piece);
    pieces[piece] = bytes;
  }
}

TEST(ArenaTest, ServesAMemoryWithoutTheHeap) {
  alignas(8) unsigned char room[4000];
  Arena arena(room, sizeof room);
  const kl::test::AllocationCount before;
  Memory memory(nullptr, nullptr, &arena);
  memory.take(100 / 8 * 8);
  void* large = memory.take(1000);
  memory.give(large, 1000);
  memory.releaseAll();
  EXPECT_EQ(before.since(), 0u);
  EXPECT_LT(arena.room(), 4000u - 1096);
  arena.rewind(room);
  EXPECT_EQ(arena.room(), 4000u);
}

TEST(ArenaTest, NeverTakesMoreThanThePromisedCost) {
  for (const std::size_t bytes : {8, 256, 264, 1000}) {
    alignas(8) unsigned char room[4000];
    Arena arena(room, sizeof room);
    Memory memory(nullptr, nullptr, &arena);
    memory.give(memory.take(bytes), bytes);
    EXPECT_LE(sizeof room - arena.room(), Memory::arenaCost(bytes));
  }
}

}  // namespace

#include "message/block_stock.h"

#include <gtest/gtest.h>

#include <thread>
#include <vector>

#include "tests/lib/message/allocation_count.h"

namespace {

using kl::container::giveBlock;
using kl::container::takeBlock;

TEST(BlockStock, ABlockGivenBackIsTheNextOneTaken) {
  void* block = takeBlock();
  giveBlock(block);
  const kl::test::AllocationCount before;
  EXPECT_EQ(takeBlock(), block);
  EXPECT_EQ(before.since(), 0u);
  giveBlock(block);
}

TEST(BlockStock, KeepsOnlyAFew) {
  std::vector<void*> blocks;
  for (int i = 0; i < 100; ++i) blocks.push_back(takeBlock());
  for (void* block : blocks) giveBlock(block);
  const kl::test::AllocationCount before;
  for (void*& block : blocks) block = takeBlock();
  EXPECT_GE(before.since(), 80u);
  for (void* block : blocks) giveBlock(block);
}

// The leak checker of the sanitizer build is the other half of these.
TEST(BlockStock, AThreadsStockEndsWithIt) {
  std::thread([] {
    void* block = takeBlock();
    giveBlock(block);
  }).join();
}

TEST(BlockStock, TakesBlocksAlsoAfterItsRelease) {
  struct Late {
    void* block = nullptr;
    ~Late() {
      giveBlock(block);
      giveBlock(takeBlock());
    }
  };
  std::thread([] {
    thread_local Late late;  // made before the stock is first given a block, so destroyed after its release
    late.block = takeBlock();
    giveBlock(takeBlock());
  }).join();
}

}  // namespace

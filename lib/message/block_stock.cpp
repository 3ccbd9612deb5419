// Blocks at hand.
//
// A message that lives for one request takes a block and gives it back soon after.  Each thread keeps
// the last few, so that this costs no call of the allocator.
//
// B1  the stock's own memory needs no construction: it can be used by static objects, and by what
//     is destroyed after the thread's other thread-local objects
// B2  once a thread's stock is released nothing enters it again: later blocks go straight back

#include "message/block_stock.h"

#include <new>

namespace kl::container {
namespace {

constexpr unsigned int kMostBlocks = 8;

struct Stock {
  void* blocks[kMostBlocks];
  unsigned int count;
  bool willBeReleased;
  bool released;
};

// The initial-exec model makes an access one instruction instead of a call.
[[gnu::tls_model("initial-exec")]] constinit thread_local Stock stock{};  // B1

struct Releaser {
  ~Releaser() {
    while (stock.count > 0) ::operator delete(stock.blocks[--stock.count]);
    stock.released = true;  // B2
  }
  void arm() { stock.willBeReleased = true; }
};
thread_local Releaser releaser;

}  // namespace

void* takeBlock() {
  if (stock.count > 0) return stock.blocks[--stock.count];
  return ::operator new(kBlockBytes);
}

void giveBlock(void* block) noexcept {
  if (stock.count == kMostBlocks || stock.released) return ::operator delete(block);
  if (!stock.willBeReleased) releaser.arm();
  stock.blocks[stock.count++] = block;
}

}  // namespace kl::container

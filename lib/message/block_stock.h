#pragma once
// block_stock.h: the blocks in which representations begin, kept at hand by each thread.

#include <cstddef>

namespace kl::container {

// The largest size that the C library's per-thread cache serves.
inline constexpr std::size_t kBlockBytes = 1032;

// A block of kBlockBytes, aligned for any object.  Any thread may give back what another took.
void* takeBlock();
void giveBlock(void* block) noexcept;

}  // namespace kl::container

#pragma once
// memory.h: where the parts of one representation lie.

#include <cstddef>
#include <cstdint>

#include "base/assertions.h"

namespace kl::container {

// Every size that is taken is rounded up to this.
inline constexpr std::size_t kGrain = 8;
constexpr std::size_t roundedUp(std::size_t bytes) { return (bytes + kGrain - 1) / kGrain * kGrain; }

// Memory of a fixed size, handed out from front to back and never given back piece by piece.  Its users ask room()
// first; take() beyond it is a bug.
class Arena {
 public:
  Arena(unsigned char* begin, std::size_t bytes) : at_(begin), end_(begin + bytes) {}

  std::size_t room() const { return static_cast<std::size_t>(end_ - at_); }
  unsigned char* take(std::size_t bytes);
  // Everything taken since mark() was `at` is free again.
  unsigned char* mark() const { return at_; }
  void rewind(unsigned char* at) { at_ = at; }

 private:
  unsigned char* at_;
  unsigned char* end_;
};

// The memory of one representation: a region that came with it, then regions and large pieces chained
// to it, from the heap or from an arena.
//
// Errors:    the heap's; an arena is asked beforehand.
// Ownership: what was taken lasts until it is given back or releaseAll().
// Threads:   belongs to the thread that may change the representation.
// Cost:      take() is an addition; give() keeps small pieces for the next take() of the same size.
class Memory {
 public:
  // Pieces up to this size lie side by side in regions, larger ones alone.
  static constexpr std::size_t kLargestSmall = 256;

  constexpr Memory() = default;
  Memory(unsigned char* begin, unsigned char* end, Arena* arena) : at_(begin), end_(end), arena_(arena) {}
  Memory(const Memory&) = delete;
  Memory& operator=(const Memory&) = delete;

  // Needs: `bytes` is a multiple of kGrain.  The memory is aligned to kGrain and not cleared.
  void* take(std::size_t bytes) {
    KL_INVARIANT(bytes % kGrain == 0);
    if (bytes > kLargestSmall) return takeLarge(bytes);
    if (freed_ != nullptr && freed_->pieces[bytes / kGrain] != nullptr) return takeFreed(bytes);
    if (bytes <= static_cast<std::size_t>(end_ - at_)) {
      unsigned char* piece = at_;
      at_ += bytes;
      return piece;
    }
    return takeFromNextRegion(bytes);
  }
  // Takes back a piece of that size.
  void give(void* piece, std::size_t bytes);
  // Takes back a piece as the region to take from next.  The region before it comes after it; an older one is
  // forgotten.
  void giveAsRegion(void* piece, std::size_t bytes);

  // The size with which a large piece was taken.
  static std::size_t largeBytes(const void* piece);

  // Frees everything taken but the first region, which is its owner's.
  void releaseAll() noexcept;

  // The bytes that were taken from the heap or the arena and not freed.
  std::size_t bytes() const;

  Arena* arena() const { return arena_; }
  // An upper bound of what a take() of that size costs the arena.
  static constexpr std::size_t arenaCost(std::size_t bytes) {
    return bytes + kArenaRegionBytes + sizeof(Freed) + 2 * sizeof(Chunk);
  }

 private:
  // Stands in front of what came from the heap or the arena.
  struct alignas(kGrain) Chunk {
    Chunk* next;
    Chunk* previous;
    std::size_t bytes;
  };
  struct Piece {
    Piece* next;
  };
  struct Freed {
    Piece* pieces[kLargestSmall / kGrain + 1];
  };

  static constexpr std::size_t kFirstRegionBytes = 1008;
  static constexpr std::size_t kLastRegionBytes = 32 * 1024;
  static constexpr std::size_t kArenaRegionBytes = kLargestSmall;

  void* takeLarge(std::size_t bytes);
  void* takeFreed(std::size_t bytes);
  void* takeFromNextRegion(std::size_t bytes);
  Chunk* newChunk(std::size_t bytes);
  void freeChunk(Chunk* chunk) noexcept;

  unsigned char* at_ = nullptr;
  unsigned char* end_ = nullptr;
  unsigned char* spareAt_ = nullptr;
  unsigned char* spareEnd_ = nullptr;
  Chunk* chunks_ = nullptr;
  Freed* freed_ = nullptr;
  Arena* arena_ = nullptr;
  std::size_t regionBytes_ = kFirstRegionBytes;
};

}  // namespace kl::container

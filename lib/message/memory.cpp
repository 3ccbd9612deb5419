// The memory of one representation.
//
// M1  a piece of up to kLargestSmall bytes never moves between regions and large pieces: its size alone is enough to
//     give it back
// M2  a piece that was given back is taken again before a region grows, so a message that is changed for ever with
//     values of the same sizes stays as large as it is
// M3  no piece of an arena goes to the heap

#include "message/memory.h"

#include <algorithm>
#include <cstdlib>
#include <new>
#include <utility>

namespace kl::container {

unsigned char* Arena::take(std::size_t bytes) {
  if (bytes > room()) std::abort();  // a bug: its users ask room() first
  unsigned char* piece = at_;
  at_ += bytes;
  return piece;
}

void Memory::give(void* piece, std::size_t bytes) {
  if (bytes > kLargestSmall) return freeChunk(static_cast<Chunk*>(piece) - 1);
  if (freed_ == nullptr) freed_ = new (takeLarge(roundedUp(sizeof(Freed)))) Freed{};
  Piece*& first = freed_->pieces[bytes / kGrain];
  first = new (piece) Piece{first};  // M2
}

void Memory::giveAsRegion(void* piece, std::size_t bytes) {
  spareAt_ = std::exchange(at_, static_cast<unsigned char*>(piece));
  spareEnd_ = std::exchange(end_, at_ + bytes);
}

std::size_t Memory::largeBytes(const void* piece) { return (static_cast<const Chunk*>(piece) - 1)->bytes; }

void Memory::releaseAll() noexcept {
  while (chunks_ != nullptr) freeChunk(chunks_);
}

std::size_t Memory::bytes() const {
  std::size_t bytes = 0;
  for (const Chunk* chunk = chunks_; chunk != nullptr; chunk = chunk->next)
    bytes += sizeof(Chunk) + chunk->bytes;
  return bytes;
}

void* Memory::takeLarge(std::size_t bytes) { return newChunk(bytes) + 1; }

void* Memory::takeFreed(std::size_t bytes) {
  Piece*& first = freed_->pieces[bytes / kGrain];
  Piece* piece = first;
  first = piece->next;
  return piece;
}

void* Memory::takeFromNextRegion(std::size_t bytes) {
  if (bytes > static_cast<std::size_t>(spareEnd_ - spareAt_)) {
    spareAt_ =
        reinterpret_cast<unsigned char*>(newChunk(arena_ != nullptr ? kArenaRegionBytes : regionBytes_) + 1);
    spareEnd_ = spareAt_ + (reinterpret_cast<Chunk*>(spareAt_) - 1)->bytes;
    regionBytes_ = std::min(2 * regionBytes_, kLastRegionBytes);
  }
  std::swap(at_, spareAt_);
  std::swap(end_, spareEnd_);
  unsigned char* piece = at_;
  at_ += bytes;
  return piece;
}

Memory::Chunk* Memory::newChunk(std::size_t bytes) {
  const std::size_t whole = sizeof(Chunk) + bytes;
  void* memory = arena_ != nullptr ? arena_->take(whole) : ::operator new(whole);
  auto* chunk = new (memory) Chunk{chunks_, nullptr, bytes};
  if (chunks_ != nullptr) chunks_->previous = chunk;
  chunks_ = chunk;
  return chunk;
}

void Memory::freeChunk(Chunk* chunk) noexcept {
  if (chunk->previous != nullptr) chunk->previous->next = chunk->next;
  else chunks_ = chunk->next;
  if (chunk->next != nullptr) chunk->next->previous = chunk->previous;
  if (arena_ == nullptr) ::operator delete(chunk);  // M3
}

}  // namespace kl::container

#pragma once
// buffer.h: a run of bytes that is filled at its back and emptied at its front.

#include <cstddef>
#include <memory>
#include <span>

namespace loader {

// Bytes on their way, in one piece so that a single write takes them all.
//
// Errors:    memory that cannot be had ends the process.
// Ownership: owns its bytes; moved, not copied.
// Threads:   belongs to one thread.
// Cost:      amortized constant time a byte; no allocation while the bytes fit what the buffer held before.
//            A buffer that runs empty keeps its memory up to kKeptBytes and gives the rest back.
class Buffer {
 public:
  static constexpr std::size_t kKeptBytes = 64 * 1024;

  std::size_t size() const { return end_ - begin_; }
  bool empty() const { return begin_ == end_; }
  std::span<const unsigned char> bytes() const { return {memory_.get() + begin_, size()}; }

  // Adds `count` bytes at the back; the caller writes them.  Borrowed until the next change.
  unsigned char* grow(std::size_t count);
  void append(std::span<const unsigned char> more);

  // Takes bytes away.  Needs: as many are there.
  void dropFront(std::size_t count);
  void dropBack(std::size_t count);
  void clear();

 private:
  void makeRoom(std::size_t count);
  void rest();

  std::unique_ptr<unsigned char[]> memory_;
  std::size_t capacity_ = 0;
  std::size_t begin_ = 0;
  std::size_t end_ = 0;
};

}  // namespace loader

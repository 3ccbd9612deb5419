#pragma once
// buffer.h: a run of bytes that is filled at its back and emptied at its front.

#include <cstddef>
#include <memory>
#include <span>
#include <utility>

#include "quota/accounts.h"

namespace loader {

// Bytes on their way, in one piece so that a single write takes them all.
//
// B1  what an account is charged is the memory of the buffer, when that is above kFreeBytes
//
// Errors:    memory that cannot be had ends the process.
// Ownership: owns its bytes; moved, not copied.  Bytes that are moved into a buffer are charged to its account.
// Threads:   belongs to one thread.
// Cost:      amortized constant time a byte; no allocation while the bytes fit what the buffer held before.
//            A buffer that runs empty keeps its memory up to kKeptBytes and gives the rest back; one that runs nearly
//            empty keeps not much more than its bytes.
class Buffer {
 public:
  static constexpr std::size_t kFreeBytes = 2 * 1024;  // the row of its connection pays for these
  static constexpr std::size_t kKeptBytes = 512;       // of an empty one

  Buffer() = default;
  Buffer(Buffer&& other) noexcept { *this = std::move(other); }
  Buffer& operator=(Buffer&& other) noexcept;

  // From now on the memory is charged to `account`; to nobody when it is null.
  void chargeTo(Account* account, Resource resource) { charge_.bind(account, resource); }
  Account* account() const { return charge_.account(); }
  // The charge for `count` more bytes.
  std::size_t growthFor(std::size_t count) const;
  // The memory that it has, and what of it is charged.
  std::size_t memory() const { return capacity_; }
  std::size_t charged() const { return capacity_ > kFreeBytes ? capacity_ : 0; }

  std::size_t size() const { return end_ - begin_; }
  bool empty() const { return begin_ == end_; }
  std::span<const unsigned char> bytes() const { return {memory_.get() + begin_, size()}; }

  // Adds `count` bytes at the back; the caller writes them.  Borrowed until the next change.  No more than `expected`
  // bytes will be in the buffer at once, as far as the caller knows.
  unsigned char* grow(std::size_t count, std::size_t expected = static_cast<std::size_t>(-1));
  void append(std::span<const unsigned char> more, std::size_t expected = static_cast<std::size_t>(-1));

  // Takes bytes away.  Needs: as many are there.
  void dropFront(std::size_t count);
  void dropBack(std::size_t count);
  void clear();

 private:
  std::size_t capacityFor(std::size_t count, std::size_t expected) const;
  void moveTo(std::size_t capacity);
  void rest();

  std::unique_ptr<unsigned char[]> memory_;
  std::size_t capacity_ = 0;
  std::size_t begin_ = 0;
  std::size_t end_ = 0;
  Charge charge_;
};

}  // namespace loader

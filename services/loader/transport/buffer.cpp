// Bytes are added behind end_ and taken away at begin_; nothing moves until the room behind is used up.

#include "transport/buffer.h"

#include <algorithm>
#include <cstring>
#include <utility>

namespace loader {
namespace {

constexpr std::size_t kLeastBytes = 256;
constexpr std::size_t kLargeBytes = 64 * 1024;

std::size_t chargedFor(std::size_t capacity) { return capacity > Buffer::kFreeBytes ? capacity : 0; }

}  // namespace

Buffer& Buffer::operator=(Buffer&& other) noexcept {
  memory_ = std::move(other.memory_);
  capacity_ = std::exchange(other.capacity_, 0);
  begin_ = std::exchange(other.begin_, 0);
  end_ = std::exchange(other.end_, 0);
  other.charge_.set(0);
  charge_.set(charged());  // B1
  return *this;
}

std::size_t Buffer::growthFor(std::size_t count) const {
  const std::size_t before = charged();
  return std::max(chargedFor(capacityFor(count, static_cast<std::size_t>(-1))), before) - before;
}

unsigned char* Buffer::grow(std::size_t count, std::size_t expected) {
  if (capacity_ - end_ < count) moveTo(capacityFor(count, expected));
  unsigned char* at = memory_.get() + end_;
  end_ += count;
  return at;
}

void Buffer::append(std::span<const unsigned char> more, std::size_t expected) {
  if (!more.empty()) std::memcpy(grow(more.size(), expected), more.data(), more.size());
}

void Buffer::dropFront(std::size_t count) {
  begin_ += count;
  if (empty()) rest();
  else if (capacity_ > kLargeBytes && size() < capacity_ / 4) moveTo(2 * size());
}

void Buffer::dropBack(std::size_t count) {
  end_ -= count;
  if (empty()) rest();
}

void Buffer::clear() {
  begin_ = end_;
  rest();
}

// The memory for `count` more bytes: what is there, when the bytes fit behind the others or at least half of it lies free
// in front of them (so a byte is moved once on the average), else enough to grow on for a while.
std::size_t Buffer::capacityFor(std::size_t count, std::size_t expected) const {
  const std::size_t used = size();
  const std::size_t wanted = used + count;
  if (capacity_ - end_ >= count || (begin_ >= used && capacity_ >= wanted)) return capacity_;
  const std::size_t ahead = std::max(std::min(used, kLargeBytes), used / 4);
  const std::size_t most = wanted <= kFreeBytes ? kFreeBytes : expected;
  return std::max({wanted, std::min(wanted + ahead, most), kLeastBytes});
}

// Moves the bytes to the front of memory of this size, which may be the same.
void Buffer::moveTo(std::size_t capacity) {
  const std::size_t used = size();
  if (capacity == capacity_) {
    std::memmove(memory_.get(), memory_.get() + begin_, used);
  } else {
    auto other = std::make_unique_for_overwrite<unsigned char[]>(capacity);
    if (used > 0) std::memcpy(other.get(), memory_.get() + begin_, used);
    memory_ = std::move(other);
    capacity_ = capacity;
    charge_.set(charged());  // B1
  }
  begin_ = 0;
  end_ = used;
}

void Buffer::rest() {
  begin_ = end_ = 0;
  if (capacity_ <= kKeptBytes) return;
  memory_.reset();
  capacity_ = 0;
  charge_.set(0);  // B1
}

}  // namespace loader

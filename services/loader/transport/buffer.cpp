// Bytes are added behind end_ and taken away at begin_; nothing moves until the room behind is used up.

#include "transport/buffer.h"

#include <algorithm>
#include <cstring>
#include <utility>

namespace loader {

unsigned char* Buffer::grow(std::size_t count) {
  if (capacity_ - end_ < count) makeRoom(count);
  unsigned char* at = memory_.get() + end_;
  end_ += count;
  return at;
}

void Buffer::append(std::span<const unsigned char> more) {
  if (!more.empty()) std::memcpy(grow(more.size()), more.data(), more.size());
}

void Buffer::dropFront(std::size_t count) {
  begin_ += count;
  if (empty()) rest();
}

void Buffer::dropBack(std::size_t count) {
  end_ -= count;
  if (empty()) rest();
}

void Buffer::clear() {
  begin_ = end_;
  rest();
}

// Moves to the front of the memory when at least half of it lies free there (so a byte is moved once on the
// average), else to memory twice as large.
void Buffer::makeRoom(std::size_t count) {
  const std::size_t used = size();
  if (begin_ >= used && capacity_ - used >= count) {
    std::memmove(memory_.get(), memory_.get() + begin_, used);
  } else {
    const std::size_t wanted = std::max({used + count, 2 * used, std::size_t{256}});
    auto larger = std::make_unique_for_overwrite<unsigned char[]>(wanted);
    if (used > 0) std::memcpy(larger.get(), memory_.get() + begin_, used);
    memory_ = std::move(larger);
    capacity_ = wanted;
  }
  begin_ = 0;
  end_ = used;
}

void Buffer::rest() {
  begin_ = end_ = 0;
  if (capacity_ <= kKeptBytes) return;
  memory_.reset();
  capacity_ = 0;
}

}  // namespace loader

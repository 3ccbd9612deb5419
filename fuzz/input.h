#pragma once
// input.h: the bytes of one run of a fuzz target, and the way in which a target says that a promise is broken.
//
// A target is one function, which the fuzzer calls with bytes of its own making, and tests with those of the kept
// corpus.  It takes what it needs from the front; where nothing is left it gets zeros, so every input is a whole
// script.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace fuzz {

using Bytes = std::vector<unsigned char>;

// Ends the process with the place and the promise unless it holds.
inline void require(bool holds, const char* promise, const char* file = __builtin_FILE(),
                    int line = __builtin_LINE()) {
  if (holds) return;
  std::fprintf(stderr, "%s:%d: broken: %s\n", file, line, promise);
  std::abort();
}

class Input {
 public:
  Input(const std::uint8_t* data, std::size_t size) : at_(data), end_(data + size) {}

  bool isEmpty() const { return at_ == end_; }
  std::size_t left() const { return static_cast<std::size_t>(end_ - at_); }

  unsigned int u8() { return isEmpty() ? 0U : *at_++; }
  unsigned int u16() {
    const unsigned int low = u8();
    return low | u8() << 8;
  }
  unsigned int u32() {
    const unsigned int low = u16();
    return low | u16() << 16;
  }
  // 0 to n, both included, from as few bytes as tell them apart.
  unsigned int upTo(unsigned int n) {
    if (n == 0xffffffff) return u32();
    return (n < 0x100 ? u8() : n < 0x10000 ? u16() : u32()) % (n + 1);
  }

  // The next `count` bytes, or as many as there are.
  Bytes bytes(std::size_t count) {
    const std::uint8_t* const first = at_;
    at_ += std::min(count, left());
    return {first, at_};
  }
  std::string text(std::size_t count) {
    const Bytes taken = bytes(count);
    return {taken.begin(), taken.end()};
  }
  Bytes rest() { return bytes(left()); }

 private:
  const std::uint8_t* at_;
  const std::uint8_t* end_;
};

}  // namespace fuzz

#pragma once
// copy_text.h: copies short texts faster than a call of memcpy does.

#include <cstddef>
#include <cstdint>
#include <cstring>

namespace bench::limit {

template <class Word>
void copyWord(unsigned char* to, const unsigned char* from) {
  std::memcpy(to, from, sizeof(Word));
}

// Copies the first and the last `Word`; they overlap where there is less than both.
template <class Word>
void copyEnds(unsigned char* to, const unsigned char* from, std::size_t size) {
  copyWord<Word>(to, from);
  copyWord<Word>(to + size - sizeof(Word), from + size - sizeof(Word));
}

// A call of memcpy costs more than most texts do.
inline void copyText(unsigned char* to, const unsigned char* from, std::size_t size) {
  struct Sixteen {
    std::uint64_t low, high;
  };
  if (size > 64) {
    std::memcpy(to, from, size);
  } else if (size >= 16) {
    for (std::size_t i = 0; i + 16 <= size; i += 16) copyWord<Sixteen>(to + i, from + i);
    copyWord<Sixteen>(to + size - 16, from + size - 16);
  } else if (size >= 8) {
    copyEnds<std::uint64_t>(to, from, size);
  } else if (size >= 4) {
    copyEnds<std::uint32_t>(to, from, size);
  } else {
    for (std::size_t i = 0; i < size; ++i) to[i] = from[i];
  }
}

}  // namespace bench::limit

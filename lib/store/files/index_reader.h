#pragma once
// index_reader.h: walks the slots of an index file.

#include <array>
#include <string>

#include "store/files/format.h"

namespace kl {

// Gives the slots one after the other, as bytes, from the first on.  `fd` is borrowed and its position stays.
// Cost: one system call for some 340 slots.
class IndexReader {
 public:
  enum class End { kNone, kReached, kSeekFailed, kReadFailed };

  explicit IndexReader(int fd) : fd_(fd) {}

  // The next slot's 12 bytes, valid until the next call; null at the end.  A partial slot is the end.
  const unsigned char* next();
  // Why next() gave null.
  End end() const { return end_; }

 private:
  static constexpr std::size_t kSlotsAtOnce = 340;

  const unsigned char* stop(End end);

  int fd_;
  std::array<unsigned char, kSlotsAtOnce * kSlotBytes> buffer_;
  std::size_t filled_ = 0;
  std::size_t taken_ = 0;
  unsigned long long offset_ = 0;
  End end_ = End::kNone;
};

// Whether every slot of the index has a size, and all sizes add up to the length of the data file.
bool filesAgree(const std::string& idxPath, const std::string& dataPath);

}  // namespace kl

#pragma once
// index_reader.h: walks the slot records of an index file.

#include <array>

#include "store/files/format.h"

namespace kl {

// Gives the raw records one after the other, from the first on.  `fd` is borrowed and its position stays.
// Cost: one system call for some 340 records.
class IndexReader {
 public:
  enum class End { kNone, kReached, kSeekFailed, kReadFailed };

  explicit IndexReader(int fd) : fd_(fd) {}

  // The next record's 12 bytes, valid until the next call; null at the end.  A partial record is the end.
  const unsigned char* next();
  // Why next() gave null.
  End end() const { return end_; }

 private:
  static constexpr std::size_t kRecordsAtOnce = 340;

  const unsigned char* stop(End end);

  int fd_;
  std::array<unsigned char, kRecordsAtOnce * kSlotRecordBytes> buffer_;
  std::size_t filled_ = 0;
  std::size_t taken_ = 0;
  unsigned long long offset_ = 0;
  End end_ = End::kNone;
};

}  // namespace kl

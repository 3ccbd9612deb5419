// Walks the slot records of an index file, a buffer at a time.

#include "store/files/index_reader.h"

#include <cerrno>

#include "base/file_io.h"

namespace kl {

const unsigned char* IndexReader::next() {
  if (taken_ == filled_) {
    const ssize_t got = readAt(fd_, buffer_.data(), buffer_.size(), static_cast<off_t>(offset_));
    if (got < 0) return stop(isSeekError(errno) ? End::kSeekFailed : End::kReadFailed);
    filled_ = static_cast<std::size_t>(got) / kSlotRecordBytes * kSlotRecordBytes;
    taken_ = 0;
    offset_ += filled_;
    if (filled_ == 0) return stop(End::kReached);
  }
  const unsigned char* record = buffer_.data() + taken_;
  taken_ += kSlotRecordBytes;
  return record;
}

const unsigned char* IndexReader::stop(End end) {
  end_ = end;
  return nullptr;
}

}  // namespace kl

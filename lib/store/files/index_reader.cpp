// Walks the slots of an index file, a buffer at a time.

#include "store/files/index_reader.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>

#include "base/descriptor.h"
#include "base/file_io.h"

namespace kl {

const unsigned char* IndexReader::next() {
  if (taken_ == filled_) {
    const ssize_t got = readAt(fd_, buffer_.data(), buffer_.size(), static_cast<off_t>(offset_));
    if (got < 0) return stop(isSeekError(errno) ? End::kSeekFailed : End::kReadFailed);
    filled_ = static_cast<std::size_t>(got) / kSlotBytes * kSlotBytes;
    taken_ = 0;
    offset_ += filled_;
    if (filled_ == 0) return stop(End::kReached);
  }
  const unsigned char* slot = buffer_.data() + taken_;
  taken_ += kSlotBytes;
  return slot;
}

const unsigned char* IndexReader::stop(End end) {
  end_ = end;
  return nullptr;
}

bool filesAgree(const std::string& idxPath, const std::string& dataPath) {
  const Descriptor idx(idxPath.c_str(), O_RDONLY);
  struct stat data;
  if (!idx || ::stat(dataPath.c_str(), &data) != 0) return false;
  unsigned long long sum = 0;
  IndexReader index(idx.fd());
  while (const unsigned char* bytes = index.next()) {
    const unsigned int size = decodeSlot(bytes, ByteOrder::kLittle).size;
    if (size == 0) return false;  // a slot that was lost and left a hole
    sum += size;
  }
  return index.end() == IndexReader::End::kReached && static_cast<unsigned long long>(data.st_size) == sum;
}

}  // namespace kl

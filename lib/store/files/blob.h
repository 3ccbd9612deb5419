#pragma once
// blob.h: the bytes of an entry in the data file, in memory.

#include <algorithm>
#include <array>
#include <cstddef>
#include <memory>

#include "base/file_io.h"
#include "kl/message.h"
#include "store/files/format.h"

namespace kl {

// Room for one blob: a short one needs no memory of its own.
class BlobBuffer {
 public:
  // At least this many bytes, of which the first `keep` stay as they are.
  unsigned char* reserve(std::size_t bytes, std::size_t keep) {
    if (bytes <= near_.size()) return near_.data();
    std::unique_ptr<unsigned char[]> more(new unsigned char[bytes]);
    std::copy_n(this->bytes(), keep, more.get());
    far_ = std::move(more);
    return far_.get();
  }

  const unsigned char* bytes() const { return far_ ? far_.get() : near_.data(); }

 private:
  std::array<unsigned char, 4096> near_;
  std::unique_ptr<unsigned char[]> far_;
};

// A message as the data file has it: the blob's length, then the flattened message.
class Blob {
 public:
  explicit Blob(const message& m) {
    unsigned int flatBytes = m.max_length();
    unsigned char* to = buffer_.reserve(kLengthBytes + flatBytes, 0);
    m.flatten(to + kLengthBytes, &flatBytes);
    const LengthBytes length = encodeLength(flatBytes);
    std::copy(length.begin(), length.end(), to);
    size_ = static_cast<unsigned int>(kLengthBytes + flatBytes);
  }

  unsigned int size() const { return size_; }  // in bytes
  Bytes bytes() const { return {buffer_.bytes(), size_}; }

 private:
  BlobBuffer buffer_;
  unsigned int size_;
};

}  // namespace kl

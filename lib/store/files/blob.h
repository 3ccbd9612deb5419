#pragma once
// blob.h: a record of the data file in memory.

#include <algorithm>
#include <array>
#include <cstddef>
#include <memory>

#include "base/file_io.h"
#include "store/files/format.h"
#include "store/core.h"

namespace kl {

// Room for one record: a short one needs no memory of its own.
class RecordRoom {
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

// A message as it lies in the data file: the record's length, then the flattened message.
class __attribute__((visibility("hidden"))) Store::Record {
 public:
  explicit Record(const message& m) {
    unsigned int flatBytes = m.max_length();
    unsigned char* to = room_.reserve(kLengthBytes + flatBytes, 0);
    m.flatten(to + kLengthBytes, &flatBytes);
    const LengthBytes length = encodeLength(flatBytes);
    std::copy(length.begin(), length.end(), to);
    size_ = static_cast<unsigned int>(kLengthBytes + flatBytes);
  }

  unsigned int size() const { return size_; }  // in bytes
  Bytes bytes() const { return {room_.bytes(), size_}; }

 private:
  RecordRoom room_;
  unsigned int size_;
};

}  // namespace kl

// A file's kind is guessed from its first bytes; then it is split into messages.
//
// Lengths in a file are claims.  A message that would end behind the end of the file is a fault: the messages before it
// are valid, the bytes after it are ignored.

#include "values/message_file.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "kl/records.h"
#include "services/common/descriptor.h"
#include "values/failure.h"

namespace klctl {
namespace {

using Bytes = std::vector<unsigned char>;

constexpr std::size_t kFrameHead = 4;
constexpr std::size_t kRecordHead = 2;
constexpr std::size_t kIndexRecord = 12;
constexpr unsigned int kFreeSlot = 0xffffffff;

bool hasMagic(const Bytes& bytes, std::size_t at) {
  return at + 2 <= bytes.size() && bytes[at] == 0x4d && bytes[at + 1] == 0x32;
}

Bytes cut(const Bytes& bytes, std::size_t at, std::size_t length) {
  const auto first = bytes.begin() + static_cast<std::ptrdiff_t>(at);
  return {first, first + static_cast<std::ptrdiff_t>(length)};
}

std::string atByte(std::size_t at) { return " at byte " + std::to_string(at); }

MessageFile splitFrames(const Bytes& bytes) {
  MessageFile file;
  for (std::size_t at = 0; at < bytes.size();) {
    const std::size_t left = bytes.size() - at;
    const std::size_t length = left < kFrameHead ? 0 : kl::readLe32(&bytes[at]);
    if (left < kFrameHead || left - kFrameHead < length) {
      file.fault = "the file ends inside the frame" + atByte(at);
      return file;
    }
    file.messages.push_back({"frame" + atByte(at), cut(bytes, at + kFrameHead, length)});
    at += kFrameHead + length;
  }
  return file;
}

// The words of an index, in one of the two byte orders that stores were written in.
class Index {
 public:
  Index(const Bytes& bytes, bool isBigEndian) : bytes_(bytes), isBigEndian_(isBigEndian) {}

  std::size_t slots() const { return bytes_.size() / kIndexRecord; }
  unsigned int id(std::size_t slot) const { return word(slot, 0); }
  unsigned int size(std::size_t slot) const { return word(slot, 4); }
  unsigned int lifetime(std::size_t slot) const { return word(slot, 8); }
  bool isBigEndian() const { return isBigEndian_; }

  // An index belongs to its data file when its slots fill the file exactly.
  bool fits(std::size_t dataBytes) const {
    unsigned long long sum = 0;
    for (std::size_t slot = 0; slot < slots(); ++slot) sum += size(slot);
    return bytes_.size() % kIndexRecord == 0 && sum == dataBytes;
  }

 private:
  unsigned int word(std::size_t slot, std::size_t offset) const {
    const unsigned int value = kl::readLe32(&bytes_[slot * kIndexRecord + offset]);
    return isBigEndian_ ? __builtin_bswap32(value) : value;
  }

  const Bytes& bytes_;
  bool isBigEndian_;
};

std::size_t recordLength(const Bytes& bytes, std::size_t at, bool isBigEndian) {
  const unsigned int length = kl::readLe16(&bytes[at]);
  return isBigEndian ? __builtin_bswap16(static_cast<unsigned short>(length)) : length;
}

MessageFile splitSlots(const Bytes& bytes, const Index& index) {
  MessageFile file;
  std::size_t at = 0;
  for (std::size_t slot = 0; slot < index.slots(); at += index.size(slot++)) {
    if (index.id(slot) == kFreeSlot) continue;
    const std::string title = "entry " + std::to_string(index.id(slot));
    const std::size_t length =
        index.size(slot) < kRecordHead ? 0 : recordLength(bytes, at, index.isBigEndian());
    if (length < kRecordHead || length > index.size(slot)) {
      file.fault += (file.fault.empty() ? "" : "; ") + title + " does not fit its slot" + atByte(at);
      continue;
    }
    file.messages.push_back({title + ", lifetime " + std::to_string(index.lifetime(slot)),
                             cut(bytes, at + kRecordHead, length - kRecordHead)});
  }
  return file;
}

// Does a whole record lie here, in one of the two byte orders?  Its length, or 0.
std::size_t recordAt(const Bytes& bytes, std::size_t at) {
  if (!hasMagic(bytes, at + kRecordHead)) return 0;
  for (const bool isBigEndian : {false, true}) {
    const std::size_t length = recordLength(bytes, at, isBigEndian);
    if (length < kRecordHead + 2 || length > bytes.size() - at) continue;
    kl::RecordWalk walk({bytes.data() + at + kRecordHead, length - kRecordHead});
    for (kl::Record record; walk.next(record);) {
    }
    if (walk.ok()) return length;
  }
  return 0;
}

// Without an index: every whole record counts, deleted ones too, and what lies between them is stepped over.
MessageFile findRecords(const Bytes& bytes) {
  MessageFile file;
  for (std::size_t at = 0; at < bytes.size();) {
    const std::size_t length = recordAt(bytes, at);
    if (length != 0)
      file.messages.push_back({"record" + atByte(at), cut(bytes, at + kRecordHead, length - kRecordHead)});
    at += length == 0 ? 1 : length;
  }
  if (file.messages.empty() && !bytes.empty()) file.fault = "no message is in the file";
  return file;
}

MessageFile splitStore(const Bytes& bytes, const Bytes& indexBytes) {
  for (const bool isBigEndian : {false, true}) {
    const Index index(indexBytes, isBigEndian);
    if (index.slots() > 0 && index.fits(bytes.size())) return splitSlots(bytes, index);
  }
  return findRecords(bytes);
}

FileFormat guess(const Bytes& bytes, const Bytes& index) {
  if (!index.empty() || bytes.empty()) return FileFormat::kStore;
  const bool looksFramed = hasMagic(bytes, kFrameHead);
  if (looksFramed && splitFrames(bytes).fault.empty()) return FileFormat::kFramed;
  if (hasMagic(bytes, 0)) return FileFormat::kBare;
  if (looksFramed) return FileFormat::kFramed;
  return hasMagic(bytes, kRecordHead) ? FileFormat::kStore : FileFormat::kBare;
}

// False when reading fails; errno has the reason.
bool readAll(int fd, Bytes& bytes) {
  constexpr std::size_t kStep = 65536;
  for (;;) {
    const std::size_t had = bytes.size();
    bytes.resize(had + kStep);
    const ssize_t got = ::read(fd, bytes.data() + had, kStep);
    bytes.resize(had + static_cast<std::size_t>(std::max<ssize_t>(got, 0)));
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) return got == 0;
  }
}

// False when there is no such file or it cannot be read.
bool readFile(const std::string& name, Bytes& bytes) {
  const common::Descriptor fd(name == "-" ? ::dup(STDIN_FILENO) : ::open(name.c_str(), O_RDONLY | O_CLOEXEC));
  return fd.isOpen() && readAll(fd.get(), bytes);
}

Bytes readIndexOf(const std::string& name) {
  Bytes bytes;
  if (name.ends_with(".dat")) (void)readFile(name.substr(0, name.size() - 4) + ".idx", bytes);
  return bytes;
}

}  // namespace

MessageFile splitMessages(const std::vector<unsigned char>& bytes, const std::vector<unsigned char>& index,
                          FileFormat format) {
  switch (format == FileFormat::kGuess ? guess(bytes, index) : format) {
    case FileFormat::kGuess:
    case FileFormat::kBare: return {{{"", bytes}}, ""};
    case FileFormat::kFramed: return splitFrames(bytes);
    case FileFormat::kStore: return splitStore(bytes, index);
  }
  return {};
}

MessageFile readMessageFile(const std::string& name, FileFormat format) {
  Bytes bytes;
  errno = 0;
  if (!readFile(name, bytes)) throw usage("cannot read " + name + ": " + std::strerror(errno));
  return splitMessages(bytes, readIndexOf(name), format);
}

}  // namespace klctl

// The tables of a program, by offset in the wide and in the narrow form:
//
//     head             byte order 5, class 4, program headers at 32 / 28, their size and number at 54 / 42
//     program header   type 0, flags 4 / 24, offset 8 / 4, address 16 / 8, bytes in the file 32 / 16
//     note             size of its name, size of its content, type; both padded to 4 bytes
//
// Everything is read through Bytes, which gives 0 behind the end.

#include "crashes/elf_file.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <span>

namespace loader {
namespace {

constexpr unsigned int kLoad = 1;
constexpr unsigned int kNote = 4;
constexpr unsigned int kExecutable = 1;
constexpr std::uint64_t kBuildIdType = 3;
constexpr std::size_t kHeadBytes = 64;
constexpr std::size_t kMostHeaders = 64;
constexpr std::size_t kMostHeaderBytes = 64;
constexpr std::size_t kMostNoteBytes = 4096;
constexpr std::size_t kMostBuildIdBytes = 64;

// Bytes of a file, some of which may not be there, in the byte order of the program.
class Bytes {
 public:
  Bytes(int fd, std::uint64_t offset, std::size_t size) : bytes_(size) {
    const ssize_t count = ::pread(fd, bytes_.data(), size, static_cast<off_t>(offset));
    bytes_.resize(count > 0 ? static_cast<std::size_t>(count) : 0);
  }

  std::size_t size() const { return bytes_.size(); }
  std::span<const unsigned char> part(std::size_t at, std::size_t size) const {
    return at > bytes_.size() ? std::span<const unsigned char>()
                              : std::span(bytes_).subspan(at, std::min(size, bytes_.size() - at));
  }
  std::uint64_t number(std::size_t at, std::size_t size, bool isBig) const {
    std::uint64_t value = 0;
    const auto digits = part(at, size);
    if (digits.size() < size) return 0;
    for (std::size_t i = 0; i < size; ++i) value = value << 8 | digits[isBig ? i : size - 1 - i];
    return value;
  }

 private:
  std::vector<unsigned char> bytes_;
};

std::string hexOf(std::span<const unsigned char> bytes) {
  std::string text;
  for (const unsigned char byte : bytes) {
    text += "0123456789abcdef"[byte >> 4];
    text += "0123456789abcdef"[byte & 15];
  }
  return text;
}

std::size_t padded(std::uint64_t size) {
  return (static_cast<std::size_t>(std::min<std::uint64_t>(size, kMostNoteBytes)) + 3) / 4 * 4;
}

std::string buildIdIn(const Bytes& notes, bool isBig) {
  for (std::size_t at = 0; at + 12 <= notes.size();) {
    const std::uint64_t nameSize = notes.number(at, 4, isBig);
    const std::uint64_t size = notes.number(at + 4, 4, isBig);
    const std::size_t content = at + 12 + padded(nameSize);
    const auto name = notes.part(at + 12, 4);
    const bool isGnu = nameSize == 4 && name.size() == 4 && std::memcmp(name.data(), "GNU", 4) == 0;
    const auto id =
        notes.part(content, static_cast<std::size_t>(std::min<std::uint64_t>(size, kMostBuildIdBytes)));
    if (isGnu && notes.number(at + 8, 4, isBig) == kBuildIdType && id.size() == size) return hexOf(id);
    at = content + padded(size);
  }
  return {};
}

}  // namespace

std::optional<ElfFile> ElfFile::read(int fd) {
  constexpr std::array<unsigned char, 4> kMagic{0x7f, 'E', 'L', 'F'};
  const Bytes head(fd, 0, kHeadBytes);
  const auto magic = head.part(0, kMagic.size());
  if (!std::equal(magic.begin(), magic.end(), kMagic.begin(), kMagic.end())) return {};
  const bool isWide = head.number(4, 1, false) == 2;
  const bool isBig = head.number(5, 1, false) == 2;
  const std::uint64_t table = isWide ? head.number(32, 8, isBig) : head.number(28, 4, isBig);
  const auto step = static_cast<std::size_t>(head.number(isWide ? 54 : 42, 2, isBig));
  const auto count =
      std::min(static_cast<std::size_t>(head.number(isWide ? 56 : 44, 2, isBig)), kMostHeaders);
  ElfFile file;
  for (std::size_t i = 0; i < count; ++i) {
    const Bytes header(fd, table + i * step, kMostHeaderBytes);
    const std::uint64_t type = header.number(0, 4, isBig);
    const std::uint64_t flags = header.number(isWide ? 4 : 24, 4, isBig);
    const std::size_t word = isWide ? 8 : 4;
    const Segment segment{header.number(isWide ? 8 : 4, word, isBig),
                          header.number(isWide ? 16 : 8, word, isBig),
                          header.number(isWide ? 32 : 16, word, isBig)};
    if (type == kLoad && (flags & kExecutable) != 0) file.code_.push_back(segment);
    if (type != kNote || !file.buildId_.empty()) continue;
    const auto size = static_cast<std::size_t>(std::min<std::uint64_t>(segment.bytes, kMostNoteBytes));
    file.buildId_ = buildIdIn(Bytes(fd, segment.offset, size), isBig);
  }
  return file;
}

std::optional<std::uint64_t> ElfFile::linkAddress(std::uint64_t offset) const {
  for (const Segment& segment : code_)
    if (offset >= segment.offset && offset - segment.offset < segment.bytes)
      return offset - segment.offset + segment.address;
  return {};
}

}  // namespace loader

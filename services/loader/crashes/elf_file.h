#pragma once
// elf_file.h: what the head of a program says.

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace loader {

// The build id of a program, and where its code was linked to, whatever processor it is for.
//
// Errors:    what is no program, or is damaged, gives none, or has no build id.
// Ownership: owns what it read; borrows the descriptor meanwhile.
// Threads:   as any value.
// Cost:      a few reads of some hundred bytes; never the whole file.
class ElfFile {
 public:
  static std::optional<ElfFile> read(int fd);

  const std::string& buildId() const { return buildId_; }  // hexadecimal digits; empty: it has none
  // The linker's address of the byte at this offset of the file; none where that is no code.
  std::optional<std::uint64_t> linkAddress(std::uint64_t offset) const;

 private:
  struct Segment {
    std::uint64_t offset = 0;
    std::uint64_t address = 0;
    std::uint64_t bytes = 0;
  };

  std::vector<Segment> code_;
  std::string buildId_;
};

}  // namespace loader

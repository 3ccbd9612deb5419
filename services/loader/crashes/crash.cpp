// A report names addresses, and the mappings that they lie in:
//
//     /usr/sbin/leases
//     --- signal=11 --------------------------------------------
//
//     rip=0x000055c1a2b41b2f ...
//
//     backtrace:
//     0x000055c1a2b41c00 0x00007f11a0fe3a10
//
//     code:
//     ...
//
//     maps:
//     55c1a2b41000-55c1a2b46000 r-xp 00001000 fe:00 1234                       /usr/sbin/leases
//
// A line of the mappings is cut after 100 characters, so its path may be the beginning of the program's or of that of
// a library beside it; the number of the file, its inode, tells them apart.

#include "crashes/crash.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cstdio>

#include "services/common/text.h"

namespace loader {
namespace {

constexpr std::size_t kLongestLine = 100;
constexpr std::size_t kMostMappings = 512;
constexpr char kBetweenPlaces[] = ", ";
constexpr std::array<std::string_view, 4> kPlaceRegisters{"rip=0x", "eip=0x", "nip=0x", "pc=0x"};

struct Mapping {
  std::uint64_t begin = 0;
  std::uint64_t end = 0;
  std::uint64_t offset = 0;
  unsigned long long inode = 0;
  std::string_view path;
  bool isCut = false;
};

// The part of a text behind `begin` and before `end`, or its end.
std::string_view between(std::string_view text, std::string_view begin, std::string_view end) {
  const std::size_t at = text.find(begin);
  if (at == std::string_view::npos) return {};
  text.remove_prefix(at + begin.size());
  return text.substr(0, text.find(end));
}

std::string_view takeWord(std::string_view& text, char separator = ' ') {
  text.remove_prefix(std::min(text.find_first_not_of(separator), text.size()));
  const std::string_view word = text.substr(0, text.find(separator));
  text.remove_prefix(word.size());
  return word;
}

std::uint64_t numberOf(std::string_view text, int base) {
  std::uint64_t value = 0;
  (void)std::from_chars(text.data(), text.data() + text.size(), value, base);
  return value;
}

Mapping readMapping(std::string_view line) {
  Mapping mapping;
  mapping.isCut = line.size() >= kLongestLine;
  const std::string_view range = takeWord(line);
  mapping.begin = numberOf(range.substr(0, range.find('-')), 16);
  mapping.end = numberOf(range.substr(std::min(range.find('-'), range.size() - 1) + 1), 16);
  (void)takeWord(line);  // the rights
  mapping.offset = numberOf(takeWord(line), 16);
  (void)takeWord(line);  // the device
  mapping.inode = numberOf(takeWord(line), 10);
  line.remove_prefix(std::min(line.find_first_not_of(' '), line.size()));
  mapping.path = line;
  return mapping;
}

std::vector<Mapping> readMappings(std::string_view report) {
  std::vector<Mapping> mappings;
  std::string_view lines = between(report, "\n\nmaps:\n", "\n\n");
  while (!lines.empty() && mappings.size() < kMostMappings) {
    const std::string_view line = lines.substr(0, lines.find('\n'));
    lines.remove_prefix(std::min(line.size() + 1, lines.size()));
    if (line.find(" r-xp ") == std::string_view::npos) break;
    mappings.push_back(readMapping(line));
  }
  return mappings;
}

bool isProgram(const Mapping& mapping, const ProgramFile& program) {
  if (!mapping.isCut || program.inode == 0) return mapping.path == program.path;
  return mapping.inode == program.inode && program.path.starts_with(mapping.path);
}

Frame frameAt(std::uint64_t address, const std::vector<Mapping>& mappings, const ProgramFile& program) {
  for (const Mapping& mapping : mappings) {
    if (address < mapping.begin || address >= mapping.end) continue;
    const bool isOwn = isProgram(mapping, program);
    return {isOwn ? program.path : std::string(mapping.path), address - mapping.begin + mapping.offset,
            isOwn};
  }
  return {};
}

std::string baseName(const std::string& path) { return path.substr(path.rfind('/') + 1); }

}  // namespace

bool isSameCrash(const std::string& key, const std::string& other) {
  const auto& [shorter, longer] =
      std::minmax(key, other, [](const auto& a, const auto& b) { return a.size() < b.size(); });
  if (shorter.size() == longer.size()) return shorter == longer;
  const std::size_t place = shorter.find(kBetweenPlaces);
  const bool hasCaller =
      place != std::string::npos && shorter.find(kBetweenPlaces, place + 1) != std::string::npos;
  return hasCaller && longer.starts_with(shorter + kBetweenPlaces);
}

std::string Frame::text() const {
  if (file.empty()) return "no file";
  char number[32];
  (void)std::snprintf(number, sizeof number, " +0x%llx", static_cast<unsigned long long>(offset));
  return common::printable(baseName(file)) + number;
}

const Frame* Crash::place() const {
  const auto own = std::find_if(frames.begin(), frames.end(), [](const Frame& f) { return f.isInProgram; });
  if (own != frames.end()) return &*own;
  return frames.empty() ? nullptr : &frames.front();
}

std::string Crash::key(const std::string& buildId) const {
  std::string key = buildId + " " + std::to_string(signal);
  for (const Frame& frame : frames) key += kBetweenPlaces + frame.text();
  return key;
}

Crash readCrash(std::string_view report, const ProgramFile& program) {
  Crash crash;
  crash.signal = static_cast<unsigned int>(numberOf(between(report, "--- signal=", " "), 10));
  const std::vector<Mapping> mappings = readMappings(report);
  const std::string_view registers = between(report, "\n\n", "\nbacktrace:\n");
  for (const std::string_view name : kPlaceRegisters)
    if (registers.starts_with(name))
      crash.frames.push_back(frameAt(numberOf(between(registers, name, " "), 16), mappings, program));
  std::string_view calls = between(report, "\nbacktrace:\n", "\n");
  for (std::string_view word = takeWord(calls); !word.empty() && crash.frames.size() < kMostFrames;
       word = takeWord(calls))
    if (word.starts_with("0x"))
      crash.frames.push_back(frameAt(numberOf(word.substr(2), 16) - 1, mappings, program));
  return crash;
}

}  // namespace loader

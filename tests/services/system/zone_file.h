#pragma once
// zone_file.h: zone files of a test's own, in the form that the C library reads.

#include <cstdio>
#include <ctime>
#include <fstream>
#include <string>
#include <vector>

namespace kl_system {

// A change of the offset, in seconds east of UTC, at a moment.
struct Change {
  std::time_t at;
  int offset;
};

inline void appendBigEndian(std::string& bytes, long value) {
  for (int shift = 24; shift >= 0; shift -= 8) bytes += static_cast<char>(value >> shift & 0xff);
}

// A zone that has `offset` first and then what the changes say.
inline std::string zoneBytes(int offset, const std::vector<Change>& changes = {}) {
  const auto count = static_cast<long>(changes.size());
  std::string bytes = "TZif" + std::string(16, '\0');
  for (const long number : {0L, 0L, 0L, count, count + 1, 4L}) appendBigEndian(bytes, number);
  for (const Change& change : changes) appendBigEndian(bytes, static_cast<long>(change.at));
  for (long i = 1; i <= count; ++i) bytes += static_cast<char>(i);
  appendBigEndian(bytes, offset);
  bytes += std::string(2, '\0');
  for (const Change& change : changes) {
    appendBigEndian(bytes, change.offset);
    bytes += std::string(2, '\0');
  }
  return bytes + std::string("LMT\0", 4);
}

// Gives a file another content in one step.
inline void replaceFile(const std::string& file, const std::string& bytes) {
  std::ofstream(file + ".new", std::ios::binary) << bytes;
  (void)std::rename((file + ".new").c_str(), file.c_str());
}

}  // namespace kl_system

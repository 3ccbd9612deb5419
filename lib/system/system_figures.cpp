// Uptime, and memory as /proc/meminfo has it: one figure a line, "NAME:   NUMBER kB".

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "kl/runner.h"
#include "kl/utilities.h"

namespace kl {
namespace {

constexpr unsigned int kTicksPerSecond = 100;
constexpr unsigned int kUnknown = 0xFFFFFFFF;
constexpr unsigned int kLargest = kUnknown - 1;

unsigned int limited(unsigned long long kib) {
  return kib > kLargest ? kLargest : static_cast<unsigned int>(kib);
}

// The lines of /proc/meminfo, one after the other.
class MemoryLines {
 public:
  ~MemoryLines() {
    if (file_ != nullptr) (void)std::fclose(file_);
  }
  MemoryLines() = default;
  MemoryLines(const MemoryLines&) = delete;
  MemoryLines& operator=(const MemoryLines&) = delete;

  bool next() { return file_ != nullptr && std::fgets(line_, sizeof line_, file_) != nullptr; }

  // True if the line is that of `name`, which its number is stored for.
  bool read(const char* name, unsigned int& kib) const {
    const std::size_t length = std::strlen(name);
    if (std::strncmp(line_, name, length) != 0 || line_[length] != ':') return false;
    char* end = nullptr;
    const unsigned long long value = std::strtoull(line_ + length + 1, &end, 10);
    if (end == line_ + length + 1) return false;
    kib = limited(value);
    return true;
  }

 private:
  std::FILE* file_ = std::fopen("/proc/meminfo", "re");
  char line_[256] = "";
};

struct Memory {
  unsigned int total = kUnknown;
  unsigned int free = kUnknown;
  unsigned int buffers = kUnknown;
  unsigned int cached = kUnknown;
  unsigned int available = kUnknown;
};

bool hasSum(const Memory& memory) {
  return memory.free != kUnknown && memory.buffers != kUnknown && memory.cached != kUnknown;
}

unsigned int sumOf(const Memory& memory) {
  return limited(0ULL + memory.free + memory.buffers + memory.cached);
}

Memory readByName() {
  Memory memory;
  for (MemoryLines lines; lines.next();)
    (void)(lines.read("MemTotal", memory.total) || lines.read("MemFree", memory.free) ||
           lines.read("Buffers", memory.buffers) || lines.read("Cached", memory.cached) ||
           lines.read("MemAvailable", memory.available));
  return memory;
}

}  // namespace

unsigned int getUptime() { return getJiffies() / kTicksPerSecond; }

// Kept on purpose: the four figures must stand on the first four lines, in this order; a kernel that puts
// another line between them has no figure here.  Held by SystemFigures.FreeMemoryNeedsItsFourLinesFirst.
unsigned int getFreeMemory(unsigned int* totalKiB) {
  MemoryLines lines;
  Memory memory;
  if (!lines.next() || !lines.read("MemTotal", memory.total)) return kUnknown;
  if (!lines.next() || !lines.read("MemFree", memory.free)) return kUnknown;
  if (!lines.next() || !lines.read("Buffers", memory.buffers)) return kUnknown;
  if (!lines.next() || !lines.read("Cached", memory.cached)) return kUnknown;
  if (totalKiB != nullptr) *totalKiB = memory.total;
  return sumOf(memory);
}

unsigned int getAvailableMemory(unsigned int* totalKiB) {
  const Memory memory = readByName();
  if (memory.total == kUnknown) return kUnknown;
  if (memory.available == kUnknown && !hasSum(memory)) return kUnknown;
  if (totalKiB != nullptr) *totalKiB = memory.total;
  return memory.available != kUnknown ? memory.available : sumOf(memory);
}

}  // namespace kl

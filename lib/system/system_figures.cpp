// Uptime, and memory as /proc/meminfo has it: one figure a line, "NAME:   NUMBER kB".

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "kl/runner.h"
#include "kl/utilities.h"

namespace kl {
namespace {

constexpr unsigned int kTicksPerSecond = 100;
constexpr unsigned int kUnknown = 0xFFFFFFFF;
constexpr unsigned int kBeyond32Bits = 0xFFFFFFFE;

// A figure in KiB, which may have more than 32 bits.
using Figure = unsigned long long;
constexpr Figure kMissing = ~0ULL;
constexpr Figure kMostFigure = 1ULL << 40;  // so that a sum of three does not overflow

unsigned int totalOf(Figure kib) { return kib > 0xFFFFFFFF ? kBeyond32Bits : static_cast<unsigned int>(kib); }

// A result may not look like kUnknown.
unsigned int resultOf(Figure kib) {
  return kib > kBeyond32Bits ? kBeyond32Bits : static_cast<unsigned int>(kib);
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

  // If the line begins with `name`, stores its number in `kib` and returns true.
  bool read(const char* name, Figure& kib) const {
    const std::size_t length = std::strlen(name);
    if (std::strncmp(line_, name, length) != 0 || line_[length] != ':') return false;
    char* end = nullptr;
    const Figure value = std::strtoull(line_ + length + 1, &end, 10);
    if (end == line_ + length + 1) return false;
    kib = std::min(value, kMostFigure);
    return true;
  }

 private:
  std::FILE* file_ = std::fopen("/proc/meminfo", "re");
  char line_[256] = "";
};

struct Memory {
  Figure total = kMissing;
  Figure free = kMissing;
  Figure buffers = kMissing;
  Figure cached = kMissing;
  Figure available = kMissing;
};

bool hasSum(const Memory& memory) {
  return memory.free != kMissing && memory.buffers != kMissing && memory.cached != kMissing;
}

Figure sumOf(const Memory& memory) { return memory.free + memory.buffers + memory.cached; }

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
  if (totalKiB != nullptr) *totalKiB = totalOf(memory.total);
  return resultOf(sumOf(memory));
}

unsigned int getAvailableMemory(unsigned int* totalKiB) {
  const Memory memory = readByName();
  if (memory.total == kMissing) return kUnknown;
  if (memory.available == kMissing && !hasSum(memory)) return kUnknown;
  if (totalKiB != nullptr) *totalKiB = totalOf(memory.total);
  return resultOf(memory.available != kMissing ? memory.available : sumOf(memory));
}

}  // namespace kl

// The fields of the kernel's line are counted from behind the name of the program, which stands in parentheses and may
// have any characters in it.

#include "values/process_usage.h"

#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <iterator>
#include <sstream>

namespace klctl {
namespace {

// Behind the name: the first one is the state.
enum StatPlace : unsigned int { kUserTicks = 11, kKernelTicks = 12, kStart = 19, kPages = 21, kPlaces = 22 };

constexpr unsigned long long kMsOfTicks = 1000;
constexpr unsigned long long kBytesPerKiB = 1024;

unsigned long long systemValue(int name) {
  const long value = ::sysconf(name);
  return value > 0 ? static_cast<unsigned long long>(value) : 1;
}

}  // namespace

std::optional<ProcessUsage> usageIn(const std::string& stat) {
  const std::size_t name = stat.rfind(") ");
  if (name == std::string::npos) return std::nullopt;
  std::istringstream words(stat.substr(name + 2));
  unsigned long long values[kPlaces] = {};
  std::string word;
  for (unsigned int i = 0; i < kPlaces; ++i) {
    if (!(words >> word)) return std::nullopt;
    values[i] = std::strtoull(word.c_str(), nullptr, 10);  // a few are negative, or letters, and not used
  }
  const unsigned long long ticks = values[kUserTicks] + values[kKernelTicks];
  return ProcessUsage{ticks * kMsOfTicks / systemValue(_SC_CLK_TCK),
                      values[kPages] * systemValue(_SC_PAGESIZE) / kBytesPerKiB, values[kStart]};
}

std::optional<ProcessUsage> usageOf(pid_t pid) {
  if (pid <= 0) return std::nullopt;
  std::ifstream file("/proc/" + std::to_string(pid) + "/stat");
  return usageIn({std::istreambuf_iterator<char>(file), {}});
}

}  // namespace klctl

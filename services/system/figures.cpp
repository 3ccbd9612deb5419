// Figures are read from the kernel when they are wanted and never kept.  Memory, load and uptime change all the time:
// followers are sent a change only from a step on that is worth a notification.

#include "figures.h"

#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <map>

#include "kl/services.h"
#include "kl/utilities.h"

namespace kl_system {
namespace {

constexpr std::size_t kLongestHostname = 256;
constexpr std::streamsize kLongestLine = 1024;
constexpr unsigned int kUptimeStepSeconds = 60;
constexpr unsigned long long kMemorySteps = 32;
constexpr unsigned int kLoadStep = 10;  // hundredths

std::string hostname() {
  char name[kLongestHostname] = "";
  return ::gethostname(name, sizeof name - 1) == 0 ? name : "";
}

unsigned int uptime() {
  std::timespec time{};
  return ::clock_gettime(CLOCK_BOOTTIME, &time) == 0 ? static_cast<unsigned int>(time.tv_sec) : 0;
}

std::array<unsigned int, 3> load() {
  double averages[3] = {};
  std::array<unsigned int, 3> hundredths{};
  const int known = ::getloadavg(averages, 3);
  for (int i = 0; i < known; ++i)
    hundredths[static_cast<std::size_t>(i)] = static_cast<unsigned int>(std::lround(averages[i] * 100));
  return hundredths;
}

template <class T>
bool differsBy(T step, T a, T b) {
  return std::max(a, b) - std::min(a, b) >= step;
}

bool isWorthTelling(const Memory& told, const Memory& now) {
  return told.total != now.total ||
         differsBy(std::max(now.total / kMemorySteps, 1ULL), told.available, now.available);
}

bool isWorthTelling(const std::array<unsigned int, 3>& told, const std::array<unsigned int, 3>& now) {
  for (std::size_t i = 0; i < now.size(); ++i)
    if (differsBy(kLoadStep, told[i], now[i])) return true;
  return false;
}

}  // namespace

Figures readFigures() {
  std::ifstream meminfo("/proc/meminfo");
  Figures figures;
  figures.hostname = hostname();
  figures.version = ::getOSVersion();
  figures.uptime = uptime();
  figures.memory = memoryFrom(meminfo);
  figures.load = load();
  return figures;
}

Memory memoryFrom(std::istream& lines) {
  std::map<std::string, unsigned long long> kilobytes;
  std::string name;
  for (unsigned long long value = 0; lines >> name >> value; lines.ignore(kLongestLine, '\n'))
    kilobytes[name] = value;
  const auto bytes = [&](const char* key) { return kilobytes[key] * 1024; };
  if (kilobytes.contains("MemAvailable:")) return {bytes("MemTotal:"), bytes("MemAvailable:")};
  return {bytes("MemTotal:"), bytes("MemFree:") + bytes("Buffers:") + bytes("Cached:")};
}

bool isWorthTelling(unsigned int object, const Figures& told, const Figures& now) {
  switch (object) {
    case kl::SYSTEM_OBJECT_TIMEZONE: return told.timezone != now.timezone;
    case kl::SYSTEM_OBJECT_HOST: return told.hostname != now.hostname;
    case kl::SYSTEM_OBJECT_VERSION: return told.version != now.version;
    case kl::SYSTEM_OBJECT_UPTIME: return differsBy(kUptimeStepSeconds, told.uptime, now.uptime);
    case kl::SYSTEM_OBJECT_MEMORY: return isWorthTelling(told.memory, now.memory);
    case kl::SYSTEM_OBJECT_LOAD: return isWorthTelling(told.load, now.load);
    default: return false;
  }
}

}  // namespace kl_system

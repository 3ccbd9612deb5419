// The name of a process stands in brackets in /proc/PID/stat, and may have brackets of its own: what follows the last one
// is numbers.

#include "watch/process_time.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <cstdint>
#include <string>

#include "services/common/descriptor.h"

namespace loader {
namespace {

constexpr unsigned long long kNanosecondsPerMs = 1'000'000;
constexpr int kUserTimeField = 11;  // of those behind the state, which is none of them

std::string procFile(pid_t pid, const char* name) {
  const std::string path = "/proc/" + std::to_string(pid) + "/" + name;
  const common::Descriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
  char bytes[4096];
  const ssize_t count = ::read(file.get(), bytes, sizeof bytes);
  return count > 0 ? std::string(bytes, static_cast<std::size_t>(count)) : std::string();
}

// The word at the front, which is taken away.
std::string_view nextWord(std::string_view& text) {
  text.remove_prefix(std::min(text.find_first_not_of(" \n"), text.size()));
  const std::string_view word = text.substr(0, text.find_first_of(" \n"));
  text.remove_prefix(word.size());
  return word;
}

std::optional<unsigned long long> takeNumber(std::string_view& text) {
  const std::string_view word = nextWord(text);
  unsigned long long number = 0;
  const auto [end, error] = std::from_chars(word.data(), word.data() + word.size(), number);
  if (error != std::errc() || end != word.data() + word.size()) return {};
  return number;
}

unsigned long long grown(unsigned long long before, unsigned long long after) {
  return after > before ? after - before : 0;
}

}  // namespace

// A kernel that counts nothing says 0 for a process that has run.
std::optional<ProcessTime> parseProcessTime(std::string_view stat, std::string_view schedstat,
                                            unsigned long long ticksPerSecond) {
  const std::size_t name = stat.rfind(')');
  if (name == std::string_view::npos) return {};
  stat.remove_prefix(name + 1);
  const std::string_view state = nextWord(stat);
  if (state.size() != 1) return {};
  for (int i = 1; i < kUserTimeField; ++i) (void)nextWord(stat);
  const auto user = takeNumber(stat);
  const auto system = takeNumber(stat);
  if (!user || !system) return {};
  ProcessTime time{state[0], (*user + *system) * 1000 / ticksPerSecond, {}};
  const auto ran = takeNumber(schedstat);
  const auto waited = takeNumber(schedstat);
  if (ran && waited && *ran > 0) {
    time.ranMs = *ran / kNanosecondsPerMs;
    time.waitedMs = *waited / kNanosecondsPerMs;
  }
  return time;
}

std::optional<ProcessTime> processTimeOf(pid_t pid) {
  const std::string stat = procFile(pid, "stat");
  return parseProcessTime(stat, procFile(pid, "schedstat"),
                          static_cast<unsigned long long>(::sysconf(_SC_CLK_TCK)));
}

// Without the kernel's count, one that wants to run is taken to have waited whenever it did not run.
unsigned long long couldHaveRunMs(const ProcessTime& before, const ProcessTime& after,
                                  unsigned long long passed) {
  if (before.waitedMs && after.waitedMs) return grown(grown(*before.waitedMs, *after.waitedMs), passed);
  return after.state == 'R' ? std::min(passed, grown(before.ranMs, after.ranMs)) : passed;
}

bool parseCaught(std::string_view status, int signal) {
  constexpr std::string_view kKey = "SigCgt:\t";
  const std::size_t at = status.find(kKey);
  if (at == std::string_view::npos) return false;
  status.remove_prefix(at + kKey.size());
  std::uint64_t caught = 0;
  (void)std::from_chars(status.data(), status.data() + status.size(), caught, 16);
  return (caught >> (signal - 1) & 1) != 0;
}

bool catchesSignal(pid_t pid, int signal) { return parseCaught(procFile(pid, "status"), signal); }

}  // namespace loader

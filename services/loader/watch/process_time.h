#pragma once
// process_time.h: what the kernel says of the first thread of a process, which is that of a service's loop.

#include <sys/types.h>

#include <optional>
#include <string_view>

namespace loader {

struct ProcessTime {
  char state = '?';  // as in /proc/PID/stat: R runs or wants to, S sleeps, D waits for a disk, T is stopped
  unsigned long long ranMs = 0;  // since it began
  std::optional<unsigned long long>
      waitedMs;  // wanted to run and did not; none where the kernel does not count it

  bool isStopped() const { return state == 'T' || state == 't'; }
  bool waitsForDisk() const { return state == 'D'; }
};

// None when the process has ended.
std::optional<ProcessTime> processTimeOf(pid_t pid);

// How many of `passed` milliseconds between two readings the thread could have run, had it wanted to.
unsigned long long couldHaveRunMs(const ProcessTime& before, const ProcessTime& after,
                                  unsigned long long passed);

// Whether the process has a handler for this signal; false when it has ended.
bool catchesSignal(pid_t pid, int signal);

// The parsers of the kernel's files, for tests.
std::optional<ProcessTime> parseProcessTime(std::string_view stat, std::string_view schedstat,
                                            unsigned long long ticksPerSecond);
bool parseCaught(std::string_view status, int signal);

}  // namespace loader

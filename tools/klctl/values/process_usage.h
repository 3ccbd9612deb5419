#pragma once
// process_usage.h: what a process of this machine takes, as the kernel tells it.

#include <sys/types.h>

#include <optional>
#include <string>

namespace klctl {

struct ProcessUsage {
  unsigned long long cpuMs = 0;      // that it has run, for itself and in the kernel
  unsigned long long memoryKiB = 0;  // that it has in memory
  unsigned long long startedAt =
      0;  // when, in ticks of the kernel: the next process of its number has another
};

// Nothing when there is no such process here, or when the kernel does not tell this user.
std::optional<ProcessUsage> usageOf(pid_t pid);

// The same of what stands in /proc/PID/stat.
std::optional<ProcessUsage> usageIn(const std::string& stat);

}  // namespace klctl

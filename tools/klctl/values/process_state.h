#pragma once
// process_state.h: what a process of this machine does, as the kernel tells it.

#include <sys/types.h>

#include <string>

namespace klctl {

// The end of a sentence about a process: "is stopped", "is asleep in do_poll", "runs".  Empty when there is no such
// process here, or when the kernel does not tell this user.
std::string whatItDoes(pid_t pid);

// The same of what stands in /proc/PID/stat and /proc/PID/wchan.
std::string whatItDoes(const std::string& stat, const std::string& wchan);

}  // namespace klctl

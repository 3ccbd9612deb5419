#pragma once
// call_filter.h: refuses the calls of a profile to a new process and to all that it starts.

#include <linux/filter.h>

#include <vector>

#include "config/profiles.h"

namespace loader {

// A program that the kernel asks before each call.  What is refused fails with EPERM; a call that is newer than the program,
// or another processor's, with ENOSYS, as on a kernel that does not have it.  Nobody is killed.
//
// Errors:    an empty program refuses nothing: there is none for kNone, nor in a build without profiles.
// Ownership: owns the program.
// Threads:   belongs to one thread; enforce() also runs between fork and exec.
// Cost:      it is made in some milliseconds.
class CallFilter {
 public:
  enum class Result : unsigned char { kEnforced, kUnknownToKernel, kFailed };

  CallFilter() = default;
  explicit CallFilter(std::vector<sock_filter> program) : program_(std::move(program)) {}

  // Async-signal-safe: two system calls.  Needs: the process cannot gain privileges.
  Result enforce() const;
  bool isEmpty() const { return program_.empty(); }

 private:
  std::vector<sock_filter> program_;
};

// Made when it is first asked for, and kept.
const CallFilter& filterOf(Profile profile);

// Makes the program of a profile; an empty one where it cannot be made.  There are two of them: filter_program.cpp, and
// no_filter_program.cpp for builds without profiles.
std::vector<sock_filter> makeFilterProgram(Profile profile);

}  // namespace loader

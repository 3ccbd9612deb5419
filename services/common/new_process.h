#pragma once
// new_process.h: what a process does between its fork and its program.

#include <sys/types.h>

#include <csignal>
#include <vector>

namespace common {

// No signal comes while it lives: a new process must not run its parent's handlers.
class BlockedSignals {
 public:
  BlockedSignals() {
    sigset_t all;
    ::sigfillset(&all);
    ::sigprocmask(SIG_SETMASK, &all, &before_);
  }
  ~BlockedSignals() { ::sigprocmask(SIG_SETMASK, &before_, nullptr); }
  BlockedSignals(const BlockedSignals&) = delete;
  BlockedSignals& operator=(const BlockedSignals&) = delete;

 private:
  sigset_t before_{};
};

// Gives every signal its default action, and then lets all of them in.
void resetSignals();

// The first of the groups is the user's own.  False where this process may not become the user, or no group is named.
bool becomeUser(uid_t user, const std::vector<gid_t>& groups);

// Closes this descriptor and all above it.  Kernels before 5.9 have no call for that.
void closeFrom(int first);

}  // namespace common

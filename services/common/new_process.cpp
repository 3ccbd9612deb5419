// Handlers write to pipes that the new process shares with its parent, so they go before signals come in.

#include "services/common/new_process.h"

#include <dirent.h>
#include <grp.h>
#include <unistd.h>

#include <cstdlib>

namespace common {
namespace {

// The kernel's list of what this process has open, or false where /proc is not to be had.  The list is read to its end
// first: what is closed meanwhile would make it skip others.
bool closeListed(int first) {
  ::DIR* const list = ::opendir("/proc/self/fd");
  if (list == nullptr) return false;
  std::vector<int> open;
  while (const dirent* const entry = ::readdir(list)) open.push_back(std::atoi(entry->d_name));
  ::closedir(list);
  for (const int descriptor : open)
    if (descriptor >= first) ::close(descriptor);
  return true;
}

// The process's limit says nothing of what was opened before it was lowered; the kernel's own is this, unless it was
// told otherwise.
void closeEach(int first) {
  constexpr int kMost = 1 << 20;
  for (int descriptor = first; descriptor < kMost; ++descriptor) ::close(descriptor);
}

}  // namespace

void resetSignals() {
  for (int sig = 1; sig < 64; ++sig) ::signal(sig, SIG_DFL);
  sigset_t none;
  ::sigemptyset(&none);
  ::sigprocmask(SIG_SETMASK, &none, nullptr);
}

bool becomeUser(uid_t user, const std::vector<gid_t>& groups) {
  if (user == ::geteuid()) return true;
  return !groups.empty() && ::setgroups(groups.size(), groups.data()) == 0 && ::setgid(groups.front()) == 0 &&
         ::setuid(user) == 0;
}

void closeFrom(int first) {
  if (::close_range(static_cast<unsigned int>(first), ~0U, 0) != 0 && !closeListed(first)) closeEach(first);
}

}  // namespace common

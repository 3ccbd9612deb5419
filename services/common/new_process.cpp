// Handlers write to pipes that the new process shares with its parent, so they go before signals come in.

#include "services/common/new_process.h"

#include <grp.h>
#include <unistd.h>

namespace common {

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

}  // namespace common

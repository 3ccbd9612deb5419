#include "tests/attack/peers.h"

#include <sched.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <new>
#include <vector>

namespace attack {

Peers::Peers() {
  void* const memory =
      ::mmap(nullptr, sizeof(Tally), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  tally_ = new (memory) Tally{};
}

Peers::~Peers() { (void)::munmap(tally_, sizeof(Tally)); }

bool Peers::live(int policy, const std::function<void(unsigned int, Tally&)>& life) {
  std::vector<pid_t> pids;
  for (unsigned int peer = 0; peer < kCount; ++peer) {
    const pid_t pid = ::fork();
    if (pid == 0) {
      const sched_param none{};
      (void)::sched_setscheduler(0, policy, &none);
      life(peer, *tally_);
      ::_exit(0);
    }
    pids.push_back(pid);
  }
  bool allCameToTheEnd = true;
  for (const pid_t pid : pids) {
    int status = -1;
    allCameToTheEnd = pid > 0 && ::waitpid(pid, &status, 0) == pid && status == 0 && allCameToTheEnd;
  }
  return allCameToTheEnd;
}

}  // namespace attack

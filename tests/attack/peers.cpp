#include "tests/attack/peers.h"

#include <sched.h>
#include <sys/mman.h>

#include <new>
#include <vector>

#include "tests/support/process/child_process.h"

namespace attack {

constexpr int kLongestLifeMs = 3'600'000;

Peers::Peers() {
  void* const memory =
      ::mmap(nullptr, sizeof(Tally), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  tally_ = new (memory) Tally{};
}

Peers::~Peers() { (void)::munmap(tally_, sizeof(Tally)); }

bool Peers::live(int policy, const std::function<void(unsigned int, Tally&)>& life) {
  std::vector<kl::test::ChildProcess> peers;
  for (unsigned int peer = 0; peer < kCount; ++peer)
    peers.emplace_back([&] {
      const sched_param none{};
      (void)::sched_setscheduler(0, policy, &none);
      life(peer, *tally_);
    });
  bool allCameToTheEnd = true;
  for (kl::test::ChildProcess& peer : peers)
    allCameToTheEnd = peer.waitForEnd(kLongestLifeMs) == 0 && allCameToTheEnd;
  return allCameToTheEnd;
}

}  // namespace attack

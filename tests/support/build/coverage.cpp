// Linked into every test program of preset coverage: what a process that ends without exit() has reached counts, too.

#include <sched.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <cstdlib>

#include "tests/support/calls/real_calls.h"

extern "C" void __gcov_dump(void);

namespace {

std::atomic_flag isWriting;

// One thread at a time writes the counters.  A process may have used up its descriptors; what it reads is no longer
// of interest.
void takeTurn() {
  while (isWriting.test_and_set()) ::sched_yield();
  ::close(STDIN_FILENO);
}

// Runs before exit() writes them.
__attribute__((destructor)) void atExit() { takeTurn(); }

}  // namespace

// In the place of the C library's.

extern "C" void _exit(int status) {
  takeTurn();
  __gcov_dump();
  kl::test::realCall<void(int)>("_exit")(status);
  for (;;) ::raise(SIGKILL);
}

extern "C" void _Exit(int status) noexcept { ::_exit(status); }

extern "C" void abort() noexcept {
  takeTurn();
  __gcov_dump();
  isWriting.clear();
  kl::test::realCall<void()>("abort")();
  for (;;) ::raise(SIGKILL);
}

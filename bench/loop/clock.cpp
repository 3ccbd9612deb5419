// The clock that peers read.  It stands before the C library's, also for the libraries that the program links.

#include <dlfcn.h>
#include <time.h>

#include "bench/loop/peer.h"

namespace bench {

unsigned int loopTicks = 100'000;

namespace {

unsigned int standing = 0;

}  // namespace

StandingClock::StandingClock() { ++standing; }
StandingClock::~StandingClock() { --standing; }

}  // namespace bench

extern "C" int clock_gettime(clockid_t clock, timespec* now) noexcept {
  if (bench::standing > 0) {
    now->tv_sec = bench::loopTicks / 100;
    now->tv_nsec = static_cast<long>(bench::loopTicks % 100) * 10'000'000;
    return 0;
  }
  using Clock = int (*)(clockid_t, timespec*);
  static const auto real = reinterpret_cast<Clock>(::dlsym(RTLD_NEXT, "clock_gettime"));
  return real(clock, now);
}

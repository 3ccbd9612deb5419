// The calls of the system that a test plays.
//
// A program's own definition of a function wins over that of the C library, for the shared libraries of the program as
// well.  So the library reads this clock and waits here, and nothing in it knows of tests.  The clocks that no part of
// the library reads (those that count from the machine's start) stay the machine's: a test may measure with them.
//
// C1  without a player, and on other threads than its own, each call does what the system does

#include "testkit/calls.h"

#include <sys/syscall.h>
#include <sys/times.h>
#include <unistd.h>

#include <cerrno>

namespace kl::test {
namespace {

// The kernel's tick counter starts 300 seconds below zero; kl::getJiffies adds them.
constexpr unsigned int kTicksBeforeBoot = 30000;

thread_local CallsPlayer* player = nullptr;

}  // namespace

void play(CallsPlayer* next) { player = next; }

int systemPoll(pollfd* entries, nfds_t count, int timeoutMs) {
  const timespec limit{timeoutMs / 1000, timeoutMs % 1000 * 1000000L};
  return ::ppoll(entries, count, timeoutMs < 0 ? nullptr : &limit, nullptr);
}

namespace {

clock_t ticks(tms* buffer) {
  if (player == nullptr) return static_cast<clock_t>(::syscall(SYS_times, buffer));
  if (buffer != nullptr) (void)::syscall(SYS_times, buffer);
  const auto played = static_cast<clock_t>(player->now() - kTicksBeforeBoot);
  if (played == static_cast<clock_t>(-1)) errno = 1;  // as the C library reports this one value
  return played;
}

int clockTime(clockid_t clock, timespec* time) {
  const bool isWallClock = clock == CLOCK_REALTIME || clock == CLOCK_REALTIME_COARSE;
  if (player == nullptr || !isWallClock) return static_cast<int>(::syscall(SYS_clock_gettime, clock, time));
  *time = player->wallTime();
  return 0;
}

}  // namespace
}  // namespace kl::test

extern "C" clock_t times(struct tms* buffer) noexcept { return kl::test::ticks(buffer); }

extern "C" int clock_gettime(clockid_t clock, struct timespec* time) noexcept {
  return kl::test::clockTime(clock, time);
}

extern "C" time_t time(time_t* result) noexcept {
  timespec now{};
  (void)kl::test::clockTime(CLOCK_REALTIME_COARSE, &now);
  if (result != nullptr) *result = now.tv_sec;
  return now.tv_sec;
}

extern "C" int poll(struct pollfd* entries, nfds_t count, int timeoutMs) {
  return kl::test::player != nullptr ? kl::test::player->poll(entries, count, timeoutMs)
                                     : kl::test::systemPoll(entries, count, timeoutMs);
}

// The event loop itself: one pass after the other until somebody sets the stop flag.  What a pass consists of
// lives beside this file: hooks.cpp, sockets.cpp (which holds the poll) and timers.cpp.

#include "kl/runner.h"

#include <sys/times.h>

#include <cerrno>
#include <cstring>

namespace kl {
namespace {

// The kernel's tick counter starts 300 seconds below zero.
constexpr unsigned int kTicksBeforeBoot = 30000;

// The virtual table's entry for sleepTime: behind those of the destructor (two), shutdown and run.
constexpr std::size_t kSleepTimeSlot = 4;

const void* sleepTimeOf(const ThinRunner* runner) {
  const void* const* virtualTable = nullptr;
  std::memcpy(&virtualTable, static_cast<const void*>(runner), sizeof virtualTable);
  const void* function = nullptr;
  std::memcpy(&function, virtualTable + kSleepTimeSlot, sizeof function);
  return function;
}

}  // namespace

unsigned int getJiffies() {
  const clock_t ticks = ::times(nullptr);
  // A counter value that looks like an error number reaches us as -1 and in errno.
  if (ticks == static_cast<clock_t>(-1)) return kTicksBeforeBoot - static_cast<unsigned int>(errno);
  return kTicksBeforeBoot + static_cast<unsigned int>(ticks);
}

ThinRunner::ThinRunner() : ownSleepTime_(sleepTimeOf(this)) {}

ThinRunner::~ThinRunner() { ThinRunner::shutdown(); }

void ThinRunner::shutdown() {
  dropTimers();
  dropSockets();
  dropHooks();
}

void ThinRunner::run() {
  addDelayedTimers();
  while (!stop_) {
    runBeforeSleep();
    runSocks(sleepTimeNeedsClock() ? getJiffies() : heapTime_);
  }
}

// Reading the clock is a system call, and without a timer our own sleepTime has no use for it.  A derived
// loop's may have, so the virtual table is asked whose it is: under construction it was still our own.
bool ThinRunner::sleepTimeNeedsClock() const { return !heap_.empty() || sleepTimeOf(this) != ownSleepTime_; }

}  // namespace kl

// The event loop itself: one pass after the other until the stop flag is set.  The parts of a pass lie beside this
// file: hooks.cpp, sockets.cpp (which has the poll) and timers.cpp.

#include "kl/runner.h"

#include <sys/times.h>

#include <cerrno>
#include <cstring>

#include "base/held_output.h"
#include "loop/clock.h"

namespace kl {
namespace {

// The kernel's tick counter starts 300 seconds below zero.
constexpr unsigned int kTicksBeforeBoot = 30000;

// The place of sleepTime in the virtual table, in bytes.  A pointer to a virtual member function holds it, so the
// compiler keeps it right whatever is added to the class: the first word is the place plus 1, or, on the ARM family,
// the place, and the second word has its lowest bit set.
std::size_t sleepTimePlace() {
  constexpr auto kSleepTime = &ThinRunner::sleepTime;
  struct {
    std::size_t function;
    std::size_t adjustment;
  } words;
  static_assert(sizeof words == sizeof kSleepTime, "a pointer to a member function has two words");
  std::memcpy(&words, &kSleepTime, sizeof words);
  return words.function & ~std::size_t{1};
}

const void* sleepTimeOf(const ThinRunner* runner) {
  const unsigned char* virtualTable = nullptr;
  std::memcpy(&virtualTable, static_cast<const void*>(runner), sizeof virtualTable);
  const void* function = nullptr;
  std::memcpy(&function, virtualTable + sleepTimePlace(), sizeof function);
  return function;
}

}  // namespace

unsigned int getJiffies() {
  const clock_t ticks = ::times(nullptr);
  // A counter value that looks like an error number reaches us as -1 and in errno.
  if (ticks == static_cast<clock_t>(-1)) return kTicksBeforeBoot - static_cast<unsigned int>(errno);
  return kTicksBeforeBoot + static_cast<unsigned int>(ticks);
}

unsigned int readTick() {
  const unsigned int now = getJiffies();
  heldOutput.noteTick(now);
  return now;
}

ThinRunner::ThinRunner() : ownSleepTime_(sleepTimeOf(this)) {}

ThinRunner::~ThinRunner() { ThinRunner::shutdown(); }

void ThinRunner::shutdown() {
  dropTimers();
  dropSockets();
  dropHooks();
}

void ThinRunner::dropSockets() {
  polls_.clear();
  pollSockets_.clear();
  sockets_.clear();
  readAheadCount_ = 0;
}

void ThinRunner::run() {
  addDelayedTimers();
  while (!stop_) {
    runBeforeSleep();
    if (sleepTimeNeedsClock()) {
      runSocks(readTick());
    } else {
      heldOutput.writeOld();
      runSocks(heapTime_);
    }
  }
}

// Reading the clock is a system call, and without a timer the sleepTime of this class has no use for it.  That of a
// derived loop may have, so the virtual table is asked whose it is: during construction it was that of this class.
// Held by ThinRunner.APassWithoutTimersReadsNoClock and OwnSleepTime.OfADerivedLoopDecidesAndIsAskedWithTheTick.
bool ThinRunner::sleepTimeNeedsClock() const { return !heap_.empty() || sleepTimeOf(this) != ownSleepTime_; }

}  // namespace kl

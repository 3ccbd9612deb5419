// The one Runner of a process, and what its construction sets up.

#include "kl/runner.h"

#include <cstdint>
#include <cstdlib>

#include "base/report.h"
#include "loop/crash_report.h"
#include "loop/signal_table.h"

namespace kl {
namespace {

constexpr std::uintptr_t kPageBytes = 4096;

Runner* currentRunner = nullptr;
unsigned int runnersMade = 0;

// The end of the page that a stack frame begins in.
const char* stackTopAbove(const void* frame) {
  const auto address = reinterpret_cast<std::uintptr_t>(frame);
  return reinterpret_cast<const char*>((address & ~(kPageBytes - 1)) + kPageBytes);
}

}  // namespace

Runner::Runner() {
  stackTop = stackTopAbove(__builtin_frame_address(0));
  if (currentRunner != nullptr) {
    // Kept on purpose: the text says "more than two", the rule is that there is one.
    // Held by Runner.ASecondOneEndsTheProcessWithStatusOne.
    printLine("ERROR: created more than two runners");
    std::exit(1);
  }
  currentRunner = this;
  ++runnersMade;
  installCrashReporter();
  resetSignalTable();
}

Runner::~Runner() { currentRunner = nullptr; }

Runner* getRunner() { return currentRunner; }

unsigned int getRunnerNumber() { return currentRunner == nullptr ? 0 : runnersMade; }

}  // namespace kl

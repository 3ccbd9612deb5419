#pragma once
// process.h: a service whose loader is the test, and how it may end when the system refuses.

#include <gtest/gtest.h>

#include <cerrno>
#include <memory>
#include <string>

#include "kl/looper.h"
#include "tests/support/calls/faults.h"
#include "tests/support/doubles/loader_double.h"

namespace kl::test {

// A looper at descriptor 3, registered.
struct Process {
  Process() {
    loader.sendReady();
    exposed([this] { looper = std::make_unique<Looper>(Looper::kInherited, 34U); });
    (void)loader.receiveFrame();
  }

  LoaderDouble loader;
  std::unique_ptr<Looper> looper;
};

inline std::string errnoText(int number) { return std::to_string(number); }

// The line with which a process ends whose connection to the loader fails so; empty when it goes on.
inline std::string fatalLine(const FaultKind& kind) {
  const std::string call = kind.call;
  const bool isPassing = kind.outcome == EINTR || kind.outcome == EAGAIN || kind.outcome == kFallsShort;
  if (call == "poll" && !isPassing)
    return "LOOPER:: read_raw pool failed: errno=" + errnoText(kind.outcome) + "\n";
  if (call == "read" && !isPassing)
    return "LOOPER: read_raw read failed: -1, errno: " + errnoText(kind.outcome) + "\n";
  if (call == "send" && !isPassing)
    return "LOOPER: write_raw write failed: -1, errno: " + errnoText(kind.outcome) + "\n";
  return "";
}

// It went on without a word on the error stream, or the fault was one that ends it.
inline void expectWholeOrFatal(const FaultRun& run) {
  if (run.child.exitStatus == 0) {
    EXPECT_EQ(run.child.err, "");
  } else {
    EXPECT_EQ(run.child.exitStatus, 1);
    EXPECT_NE(fatalLine(run.kind), "");
    EXPECT_EQ(run.child.err, fatalLine(run.kind));
  }
}

}  // namespace kl::test

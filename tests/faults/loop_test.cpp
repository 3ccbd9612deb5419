// Timers, sockets and signals while the system refuses: what a pass misses, a later one does.

#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>

#include <gtest/gtest.h>

#include "kl/bind.h"
#include "kl/runner.h"
#include "tests/support/calls/faults.h"

namespace {

using kl::test::exposed;
using kl::test::FaultRun;
using kl::test::spared;

constexpr unsigned int kDeadlineTicks = 10;

// Ends once its timer, its socket and its signal have come, or at the deadline.
class Loop : public kl::Runner {
 public:
  Loop() { EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends_), 0); }
  ~Loop() override {
    ::close(ends_[0]);
    ::close(ends_[1]);
  }

  void prepare() {
    addTimer(this, kl::bind<Loop, &Loop::onTimer>(), 1);
    addTimer(this, kl::bind<Loop, &Loop::onDeadline>(), kDeadlineTicks);
    addSocket(ends_[0], this, kl::bind<Loop, &Loop::onSocket>(), POLLIN);
    addSighandler(SIGUSR1, this, kl::bind<Loop, &Loop::onUserSignal>(), false);
    handlesSignal_ = setSigaction(SIGUSR1, kl::SIGACTION_HANDLE);
  }

  void cause() {
    spared([this] { EXPECT_EQ(::write(ends_[1], "x", 1), 1); });
    if (handlesSignal_) ::raise(SIGUSR1);
  }

  unsigned int timers = 0;
  unsigned int sockets = 0;
  unsigned int signals = 0;

 private:
  void onTimer() {
    ++timers;
    look();
  }
  void onSocket(int fd, unsigned int) {
    char byte = 0;
    spared([&] { EXPECT_EQ(::read(fd, &byte, 1), 1); });
    ++sockets;
    look();
  }
  void onUserSignal(int sig) {
    EXPECT_EQ(sig, SIGUSR1);
    ++signals;
    look();
  }
  void onDeadline() { stop_ = true; }
  void look() { stop_ = timers > 0 && sockets > 0 && signals > 0; }

  int ends_[2] = {-1, -1};
  bool handlesSignal_ = false;
};

// A record of the signal pipe is below PIPE_BUF, so it is never read or written in part.  A change of a signal that is
// refused keeps the pipe open on purpose (Signals.ARefusedChangeKeepsThePipe).
std::vector<kl::test::FaultKind> sensible() {
  std::vector<kl::test::FaultKind> kinds = kl::test::faultsWithout({"sigaction"});
  std::erase_if(kinds, [](const auto& kind) { return kind.outcome == kl::test::kFallsShort; });
  return kinds;
}

TEST(LoopFaults, OnlyTheSignalThatCouldNotBeForwardedIsLost) {
  const unsigned int tried = kl::test::forEachFault(
      sensible(),
      [] {
        Loop loop;
        exposed([&] {
          loop.prepare();
          loop.cause();
          loop.run();
          loop.shutdown();
        });
        EXPECT_EQ(loop.timers, 1U);
        EXPECT_EQ(loop.sockets, 1U);
        std::printf("%u", loop.signals);
      },
      [](const FaultRun& run) {
        const std::string call = run.kind.call;
        const bool isLost = call == "pipe2" || call == "write";
        EXPECT_EQ(run.child.out, isLost ? "0" : "1");
        EXPECT_EQ(run.child.exitStatus, 0);
      });
  EXPECT_GE(tried, 10U);
}

TEST(LoopFaults, ARunnerIsMadeThoughItsCrashReporterCannotBeInstalled) {
  const unsigned int tried = kl::test::forEachFault(
      kl::test::everyFault(), [] { exposed([] { const kl::Runner runner; }); },
      [](const FaultRun& run) { EXPECT_EQ(run.child.exitStatus, 0); });
  EXPECT_GE(tried, 6U);
}

// The report on request: whatever fails, the process goes on, and what can be written is.
TEST(CrashReportFaults, WhatCannotBeReadIsLeftOutAndTheProcessGoesOn) {
  const unsigned int tried = kl::test::forEachFault(
      kl::test::everyFault(),
      [] {
        const kl::Runner runner;
        exposed([] { ::raise(SIGUSR2); });
        errno = 0;
        ::raise(SIGUSR2);
      },
      [](const FaultRun& run) {
        EXPECT_EQ(run.child.exitStatus, 0);
        const std::size_t second = run.child.out.rfind("\n--- signal=12 ---");
        EXPECT_NE(run.child.out.find("\n--- signal=12 ---"), second);
        EXPECT_NE(run.child.out.find(" r-xp ", second), std::string::npos) << "the second report is whole";
      });
  EXPECT_GE(tried, 10U);
}

TEST(CrashReportFaults, AReportThatIsWrittenInPiecesIsWhole) {
  const unsigned int tried = kl::test::forEachFault(
      kl::test::faultsOf({"write"}),
      [] {
        const kl::Runner runner;
        kl::test::exposedWithStreams([] { ::raise(SIGUSR2); });
      },
      [](const FaultRun& run) {
        EXPECT_EQ(run.child.exitStatus, 0);
        if (!run.is("write", EINTR) && !run.is("write", kl::test::kFallsShort)) return;
        for (const char* part :
             {"\n--- signal=12 ---", "\nbacktrace:\n", "\n\ncode:\n", "\n\nmaps:\n", " r-xp "})
          EXPECT_NE(run.child.out.find(part), std::string::npos) << part;
      });
  EXPECT_GE(tried, 6U);
}

TEST(CrashReportFaults, ACrashEndsTheProcessWithStatusOneWhateverFails) {
  const unsigned int tried = kl::test::forEachFault(
      kl::test::everyFault(),
      [] {
        const kl::Runner runner;
        exposed([] { ::raise(SIGSEGV); });
      },
      [](const FaultRun& run) {
        EXPECT_EQ(run.child.exitStatus, 1);
        EXPECT_NE(run.child.out.find("died with signal 11 on "), std::string::npos);
      });
  EXPECT_GE(tried, 10U);
}

}  // namespace

#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <set>
#include <string>
#include <vector>

#include "kl/runner.h"
#include "tests/lib/loop/probe.h"
#include "tests/support/journal.h"

namespace kl {
namespace {

std::set<int> openDescriptors() {
  std::set<int> fds;
  DIR* dir = ::opendir("/proc/self/fd");
  while (const dirent* entry = ::readdir(dir)) {
    const int fd = std::atoi(entry->d_name);
    if (entry->d_name[0] != '.' && fd != ::dirfd(dir)) fds.insert(fd);
  }
  ::closedir(dir);
  return fds;
}

void (*kernelHandler(int sig))(int) {
  struct sigaction current = {};
  ::sigaction(sig, nullptr, &current);
  return current.sa_handler;
}

class Signals : public ::testing::Test {
 protected:
  class Loop : public Runner {
   public:
    void stop() { stop_ = true; }
  };

  void SetUp() override { descriptorsBefore = openDescriptors(); }

  void TearDown() override {
    loop.shutdown();
    for (const int sig : {SIGUSR1, SIGHUP, SIGTERM, SIGWINCH}) {
      loop.setSigaction(sig, SIGACTION_DEFAULT);
      ::signal(sig, SIG_DFL);
    }
  }

  static void onSignal(void* data, int sig) {
    static_cast<Signals*>(data)->journal.note(std::to_string(sig));
  }

  // Delivers what lies in the pipe; never waits.
  void deliver() {
    loop.addDelayedTimer(
        nullptr, [](void*) {}, 0);
    loop.addDelayedTimers();
    loop.runSocks(getJiffies());
  }

  std::size_t newDescriptors() const { return openDescriptors().size() - descriptorsBefore.size(); }

  std::set<int> descriptorsBefore;
  test::Journal journal;
  Loop loop;
};

TEST_F(Signals, ThePipeIsMadeForTheFirstAndClosedWithTheLast) {
  EXPECT_TRUE(loop.setSigaction(SIGUSR1, SIGACTION_HANDLE));
  EXPECT_EQ(newDescriptors(), 2u);
  EXPECT_TRUE(loop.setSigaction(SIGHUP, SIGACTION_HANDLE));
  EXPECT_EQ(newDescriptors(), 2u);
  EXPECT_EQ(ThinRunnerProbe::pollOrder(loop).size(), 1u);
  EXPECT_TRUE(loop.setSigaction(SIGUSR1, SIGACTION_IGNORE));
  EXPECT_EQ(newDescriptors(), 2u);
  EXPECT_TRUE(loop.setSigaction(SIGHUP, SIGACTION_DEFAULT));
  EXPECT_EQ(newDescriptors(), 0u);
  EXPECT_TRUE(ThinRunnerProbe::pollOrder(loop).empty());
}

TEST_F(Signals, ThePipeIsNonBlockingAndClosedOnExec) {
  loop.setSigaction(SIGUSR1, SIGACTION_HANDLE);
  for (const int fd : openDescriptors()) {
    if (descriptorsBefore.count(fd) != 0) continue;
    EXPECT_NE(::fcntl(fd, F_GETFL) & O_NONBLOCK, 0);
    EXPECT_NE(::fcntl(fd, F_GETFD) & FD_CLOEXEC, 0);
  }
}

TEST_F(Signals, TheSameActionTwiceAsksTheKernelOnce) {
  EXPECT_TRUE(loop.setSigaction(SIGUSR1, SIGACTION_IGNORE));
  ::signal(SIGUSR1, SIG_DFL);
  EXPECT_TRUE(loop.setSigaction(SIGUSR1, SIGACTION_IGNORE));
  EXPECT_EQ(kernelHandler(SIGUSR1), SIG_DFL);
}

TEST_F(Signals, InitialIsWhereEverySignalStarts) {
  ::signal(SIGUSR1, SIG_IGN);
  EXPECT_TRUE(loop.setSigaction(SIGUSR1, SIGACTION_INITIAL));
  EXPECT_EQ(kernelHandler(SIGUSR1), SIG_IGN);
}

TEST_F(Signals, NumbersOutsideTheTableAreRefused) {
  for (const int sig : {64, 65, 1000, -1, -64}) {
    EXPECT_FALSE(loop.setSigaction(sig, SIGACTION_IGNORE)) << sig;
    EXPECT_FALSE(loop.addSighandler(sig, this, onSignal, true)) << sig;
    EXPECT_FALSE(loop.removeSighandler(sig, true)) << sig;
  }
  EXPECT_EQ(newDescriptors(), 0u);
}

TEST_F(Signals, ActionsReachTheKernel) {
  loop.setSigaction(SIGUSR1, SIGACTION_IGNORE);
  EXPECT_EQ(kernelHandler(SIGUSR1), SIG_IGN);
  loop.setSigaction(SIGUSR1, SIGACTION_HANDLE);
  EXPECT_EQ(kernelHandler(SIGUSR1), &handleSignal);
  struct sigaction installed = {};
  ::sigaction(SIGUSR1, nullptr, &installed);
  EXPECT_EQ(installed.sa_flags & (SA_RESTART | SA_NOCLDSTOP | SA_SIGINFO), SA_RESTART | SA_NOCLDSTOP);
  EXPECT_EQ(::sigismember(&installed.sa_mask, SIGHUP), 0);
  loop.setSigaction(SIGUSR1, SIGACTION_DEFAULT);
  EXPECT_EQ(kernelHandler(SIGUSR1), SIG_DFL);
}

TEST_F(Signals, AnUnknownActionIsDefaultForTheKernelAndRecordedAsItIs) {
  const auto odd = static_cast<RunnerSigaction>(17);
  ::signal(SIGUSR1, SIG_IGN);
  EXPECT_TRUE(loop.setSigaction(SIGUSR1, odd));
  EXPECT_EQ(kernelHandler(SIGUSR1), SIG_DFL);
  ::signal(SIGUSR1, SIG_IGN);
  EXPECT_TRUE(loop.setSigaction(SIGUSR1, odd));
  EXPECT_EQ(kernelHandler(SIGUSR1), SIG_IGN);
}

TEST_F(Signals, TheInitialActionComesBackWithoutItsFlags) {
  struct sigaction initial = {};
  initial.sa_handler = SIG_IGN;
  initial.sa_flags = SA_NODEFER;
  ::sigaction(SIGUSR1, &initial, nullptr);
  loop.setSigaction(SIGUSR1, SIGACTION_HANDLE);
  loop.setSigaction(SIGUSR1, SIGACTION_DEFAULT);
  loop.setSigaction(SIGUSR1, SIGACTION_INITIAL);
  struct sigaction restored = {};
  ::sigaction(SIGUSR1, nullptr, &restored);
  EXPECT_EQ(restored.sa_handler, SIG_IGN);
  EXPECT_EQ(restored.sa_flags & SA_NODEFER, 0);
  EXPECT_NE(restored.sa_flags & SA_NOCLDSTOP, 0);
}

TEST_F(Signals, TwoDeliveriesBeforeTheLoopWakesAreTwoCalls) {
  loop.addSighandler(SIGUSR1, this, onSignal, true);
  ::raise(SIGUSR1);
  ::raise(SIGUSR1);
  EXPECT_EQ(journal.text(), "");
  deliver();
  EXPECT_EQ(journal.text(), "10 10");
}

TEST_F(Signals, ArriveInTheirOrder) {
  loop.addSighandler(SIGUSR1, this, onSignal, true);
  loop.addSighandler(SIGHUP, this, onSignal, true);
  for (const int sig : {SIGHUP, SIGUSR1, SIGHUP}) ::raise(sig);
  deliver();
  EXPECT_EQ(journal.text(), "1 10 1");
}

TEST_F(Signals, WakeTheLoop) {
  loop.addSighandler(
      SIGUSR1, &loop, [](void* data, int) { static_cast<Loop*>(data)->stop(); }, true);
  loop.addBeforeSleep(nullptr, [](void*) { ::raise(SIGUSR1); });
  loop.run();
}

TEST_F(Signals, ASignalWhoseActionChangedAfterItArrivedIsDropped) {
  loop.addSighandler(SIGUSR1, this, onSignal, true);
  loop.addSighandler(SIGHUP, this, onSignal, true);
  ::raise(SIGUSR1);
  ::raise(SIGHUP);
  loop.setSigaction(SIGUSR1, SIGACTION_IGNORE);
  deliver();
  EXPECT_EQ(journal.text(), "1");
}

TEST_F(Signals, AHandlerWithoutActionWaitsUntilTheActionIsSet) {
  EXPECT_TRUE(loop.addSighandler(SIGUSR1, this, onSignal, false));
  EXPECT_EQ(kernelHandler(SIGUSR1), SIG_DFL);
  EXPECT_EQ(newDescriptors(), 0u);
  loop.setSigaction(SIGUSR1, SIGACTION_HANDLE);
  ::raise(SIGUSR1);
  deliver();
  EXPECT_EQ(journal.text(), "10");
}

TEST_F(Signals, AnActionWithoutHandlerReadsAndDrops) {
  loop.setSigaction(SIGUSR1, SIGACTION_HANDLE);
  ::raise(SIGUSR1);
  deliver();
  loop.addSighandler(SIGUSR1, this, onSignal, false);
  deliver();
  EXPECT_EQ(journal.text(), "");
}

TEST_F(Signals, RemovingAHandlerWithoutRestoringLeavesTheAction) {
  loop.addSighandler(SIGUSR1, this, onSignal, true);
  EXPECT_TRUE(loop.removeSighandler(SIGUSR1, false));
  EXPECT_EQ(kernelHandler(SIGUSR1), &handleSignal);
  ::raise(SIGUSR1);
  deliver();
  EXPECT_EQ(journal.text(), "");
}

TEST_F(Signals, RemovingAHandlerWithRestoringBringsTheInitialActionBack) {
  ::signal(SIGUSR1, SIG_IGN);
  loop.addSighandler(SIGUSR1, this, onSignal, true);
  EXPECT_TRUE(loop.removeSighandler(SIGUSR1, true));
  EXPECT_EQ(kernelHandler(SIGUSR1), SIG_IGN);
  EXPECT_EQ(newDescriptors(), 0u);
}

TEST_F(Signals, RecordsOfUnknownNumbersAreSkipped) {
  loop.addSighandler(SIGUSR1, this, onSignal, true);
  for (const int sig : {64, -1, 1 << 30, 5, static_cast<int>(SIGUSR1)}) handleSignal(sig);
  deliver();
  EXPECT_EQ(journal.text(), "10");
}

TEST_F(Signals, OnlyReadableBytesAreRead) {
  loop.addSighandler(SIGUSR1, this, onSignal, true);
  ::raise(SIGUSR1);
  const int fd = ThinRunnerProbe::pollOrder(loop).at(0);
  loop.onSignal(fd, POLLHUP);
  EXPECT_EQ(journal.text(), "");
  loop.onSignal(fd, POLLIN);
  EXPECT_EQ(journal.text(), "10");
}

TEST_F(Signals, AFullPipeLosesWhatIsTooMuch) {
  loop.addSighandler(SIGUSR1, this, onSignal, true);
  for (int i = 0; i < 20000; ++i) handleSignal(SIGUSR1);
  deliver();
  EXPECT_GT(journal.text().size(), 3000u);
  journal.clear();
  deliver();
  EXPECT_EQ(journal.text(), "");
}

TEST_F(Signals, TheKernelsHandlerKeepsErrno) {
  loop.setSigaction(SIGUSR1, SIGACTION_HANDLE);
  for (int i = 0; i < 20000; ++i) {
    errno = 4711;
    handleSignal(SIGUSR1);
    ASSERT_EQ(errno, 4711);
  }
}

TEST_F(Signals, WithoutAPipeTheyAreDropped) {
  rlimit limit = {};
  ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &limit), 0);
  const rlimit none = {0, limit.rlim_max};
  ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &none), 0);
  EXPECT_TRUE(loop.addSighandler(SIGUSR1, this, onSignal, true));
  ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &limit), 0);
  EXPECT_EQ(newDescriptors(), 0u);
  EXPECT_TRUE(ThinRunnerProbe::pollOrder(loop).empty());
  ::raise(SIGUSR1);
  EXPECT_TRUE(loop.removeSighandler(SIGUSR1, true));
}

TEST_F(Signals, ARefusedChangeKeepsThePipe) {
  EXPECT_FALSE(loop.setSigaction(SIGKILL, SIGACTION_HANDLE));
  EXPECT_EQ(newDescriptors(), 2u);
  EXPECT_TRUE(loop.setSigaction(SIGUSR1, SIGACTION_HANDLE));
  EXPECT_TRUE(loop.setSigaction(SIGUSR1, SIGACTION_DEFAULT));
  EXPECT_EQ(newDescriptors(), 2u);
  for (const int fd : openDescriptors())
    if (descriptorsBefore.count(fd) == 0) ::close(fd);
}

TEST_F(Signals, AHandlerMayShutTheLoopDown) {
  loop.addSighandler(
      SIGUSR1, this,
      [](void* data, int sig) {
        onSignal(data, sig);
        getRunner()->shutdown();
      },
      true);
  ::raise(SIGUSR1);
  ::raise(SIGUSR1);
  deliver();
  EXPECT_EQ(journal.text(), "10");
  EXPECT_EQ(newDescriptors(), 0u);
}

TEST_F(Signals, AHandlerThatClosesThePipeLeavesItsNumberToOthers) {
  struct Fixture {
    Loop* loop;
    int ends[2] = {-1, -1};
  } fixture{&loop};
  loop.addSighandler(
      SIGUSR1, &fixture,
      [](void* data, int) {
        auto* f = static_cast<Fixture*>(data);
        f->loop->shutdown();
        ASSERT_EQ(::pipe(f->ends), 0);
        ASSERT_EQ(::write(f->ends[1], "text", 4), 4);
      },
      true);
  ::raise(SIGUSR1);
  deliver();
  char text[5] = {};
  ASSERT_EQ(::read(fixture.ends[0], text, 4), 4);
  EXPECT_STREQ(text, "text");
  ::close(fixture.ends[0]);
  ::close(fixture.ends[1]);
}

TEST_F(Signals, ShutdownGivesBackSignalsWithAHandlerOnly) {
  loop.addSighandler(SIGUSR1, this, onSignal, true);
  loop.setSigaction(SIGHUP, SIGACTION_IGNORE);
  loop.shutdown();
  EXPECT_EQ(kernelHandler(SIGUSR1), SIG_DFL);
  EXPECT_EQ(kernelHandler(SIGHUP), SIG_IGN);
  EXPECT_EQ(newDescriptors(), 0u);
}

TEST(SignalsOfALoopThatWent, StayAsTheyAreAndAreDropped) {
  std::set<int> before = openDescriptors();
  {
    Runner first;
    first.setSigaction(SIGUSR1, SIGACTION_HANDLE);
  }
  EXPECT_EQ(kernelHandler(SIGUSR1), &handleSignal);
  EXPECT_EQ(openDescriptors().size(), before.size() + 2);
  Runner second;
  ::raise(SIGUSR1);  // the new loop has no pipe yet
  EXPECT_TRUE(second.setSigaction(SIGUSR1, SIGACTION_DEFAULT));
  for (const int fd : openDescriptors())
    if (before.count(fd) == 0) ::close(fd);
}

}  // namespace
}  // namespace kl

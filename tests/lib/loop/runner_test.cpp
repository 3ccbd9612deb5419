#include <gtest/gtest.h>

#include <csignal>
#include <cstdlib>
#include <memory>

#include "kl/runner.h"
#include "tests/support/process/child.h"

namespace kl {
namespace {

TEST(Runner, IsTheCurrentOneWhileItLives) {
  EXPECT_EQ(getRunner(), nullptr);
  {
    Runner loop;
    EXPECT_EQ(getRunner(), &loop);
  }
  EXPECT_EQ(getRunner(), nullptr);
}

TEST(Runner, ASecondOneMayFollowTheFirst) {
  auto first = std::make_unique<Runner>();
  first.reset();
  Runner second;
  EXPECT_EQ(getRunner(), &second);
}

TEST(Runner, EachHasANumberOfItsOwn) {
  EXPECT_EQ(getRunnerNumber(), 0u);
  unsigned int first = 0;
  {
    Runner loop;
    first = getRunnerNumber();
    EXPECT_NE(first, 0u);
  }
  EXPECT_EQ(getRunnerNumber(), 0u);
  Runner loop;
  EXPECT_EQ(getRunnerNumber(), first + 1);
}

TEST(Runner, ASecondOneEndsTheProcessWithStatusOne) {
  const auto child = test::runInChild([] {
    Runner first;
    Runner second;
  });
  EXPECT_EQ(child.exitStatus, 1);
  EXPECT_EQ(child.out, "ERROR: created more than two runners\n");
}

TEST(Runner, InstallsTheReporterOfCrashesForSixSignals) {
  const auto child = test::runInChild([] {
    Runner loop;
    struct sigaction first = {};
    ::sigaction(SIGSEGV, nullptr, &first);
    for (const int sig : {SIGSEGV, SIGILL, SIGABRT, SIGBUS, SIGFPE, SIGUSR2}) {
      struct sigaction installed = {};
      ::sigaction(sig, nullptr, &installed);
      const bool isReporter =
          installed.sa_sigaction == first.sa_sigaction && installed.sa_sigaction != nullptr;
      if (!isReporter || (installed.sa_flags & (SA_SIGINFO | SA_RESTART)) != (SA_SIGINFO | SA_RESTART))
        ::_exit(sig);
    }
    struct sigaction other = {};
    ::sigaction(SIGTERM, nullptr, &other);
    ::_exit(other.sa_handler == SIG_DFL ? 0 : 100);
  });
  EXPECT_EQ(child.exitStatus, 0);
}

}  // namespace
}  // namespace kl

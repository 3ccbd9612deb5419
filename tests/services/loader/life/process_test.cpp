#include "services/loader/life/process.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <sstream>
#include <string>

#include "services/loader/crashes/death.h"
#include "services/loader/transport/descriptors.h"
#include "tests/support/build/effort.h"
#include "tests/support/process/child.h"
#include "tests/support/process/child_process.h"

namespace {

using loader::Descriptor;
using loader::ServiceConfiguration;

constexpr uid_t kOtherUser = 65534;

class ProcessTest : public testing::Test {
 protected:
  void SetUp() override {
    int ends[2];
    ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
    mine_ = Descriptor(ends[0]);
    its_ = Descriptor(ends[1]);
  }

  void start(const std::string& script) {
    configuration_.name = "x";
    configuration_.command = {"/bin/sh", "-c", script};
    pid_ = loader::startProcess(configuration_, its_.get());
    ASSERT_GT(pid_, 0);
    its_.close();
  }

  // The bytes that the script wrote to its descriptor 3 until it closed it.
  std::string output() {
    std::string text;
    char bytes[256];
    for (ssize_t n = 0; (n = ::read(mine_.get(), bytes, sizeof bytes)) > 0;)
      text.append(bytes, static_cast<std::size_t>(n));
    return text;
  }

  int status() {
    int result = 0;
    EXPECT_EQ(::waitpid(pid_, &result, 0), pid_);
    return result;
  }

  ServiceConfiguration configuration_;
  Descriptor mine_;
  Descriptor its_;
  pid_t pid_ = -1;
};

TEST_F(ProcessTest, TheConnectionIsDescriptor3AndNothingElseIsOpen) {
  const Descriptor inherited(::dup2(0, 77));
  start("exec >&3; ls /proc/$$/fd");
  EXPECT_EQ(output(), "0\n1\n2\n3\n");
  EXPECT_EQ(loader::describeEnd(status()), "ended with status 0");
}

TEST_F(ProcessTest, AConnectionThatHasTheNumberAlreadyStaysOpen) {
  if (mine_.get() == 3) std::swap(mine_, its_);
  if (its_.get() != 3) its_ = Descriptor(::dup2(its_.get(), 3));  // whatever came with this process under it
  start("echo here >&3");
  EXPECT_EQ(output(), "here\n");
  (void)status();
}

TEST_F(ProcessTest, AServiceDoesNotSpeakForTheLoader) {
  for (const char* const name : {"NOTIFY_SOCKET", "WATCHDOG_USEC", "WATCHDOG_PID"}) ::setenv(name, "1", 1);
  start("env | grep -cE '^(NOTIFY|WATCHDOG)_' >&3");
  EXPECT_EQ(output(), "0\n");
  (void)status();
  for (const char* const name : {"NOTIFY_SOCKET", "WATCHDOG_USEC", "WATCHDOG_PID"}) ::unsetenv(name);
}

TEST_F(ProcessTest, StandardInputIsEmptyAndTheSessionIsItsOwn) {
  start("wc -c >&3; ps -o pgid= -p $$ >&3; ps -o sid= -p $$ >&3");
  std::istringstream text(output());
  int bytes = -1, group = 0, session = 0;
  text >> bytes >> group >> session;
  EXPECT_EQ(bytes, 0);
  EXPECT_EQ(group, pid_);
  EXPECT_EQ(session, pid_);
  (void)status();
}

TEST_F(ProcessTest, SignalsAreAsInAFreshProcess) {
  (void)::signal(SIGPIPE, SIG_IGN);
  start("exec grep -E 'SigIgn|SigBlk' /proc/self/status >&3");
  EXPECT_EQ(output(), "SigBlk:\t0000000000000000\nSigIgn:\t0000000000000000\n");
  (void)status();
  (void)::signal(SIGPIPE, SIG_DFL);
}

TEST_F(ProcessTest, FolderAndEnvironmentAreThoseConfigured) {
  configuration_.folder = "/usr";
  configuration_.environment = {{"KL_A", "one two"}, {"PATH", "/bin"}};
  start("echo \"$(pwd) $KL_A $PATH\" >&3");
  EXPECT_EQ(output(), "/usr one two /bin\n");
  (void)status();
}

TEST_F(ProcessTest, ItHasTheUsersEnvironmentAndNotTheLoaders) {
  ::setenv("A_SECRET", "1", 1);
  configuration_.login = "somebody";
  configuration_.home = "/srv/somebody";
  start("env | grep -E '^(A_SECRET|HOME|USER|LOGNAME)=' | LC_ALL=C sort >&3");
  EXPECT_EQ(output(), "HOME=/srv/somebody\nLOGNAME=somebody\nUSER=somebody\n");
  (void)status();
  ::unsetenv("A_SECRET");
}

TEST_F(ProcessTest, TheRootIsPassedOn) {
  ::setenv("KL_ROOT", "/tmp/here", 1);
  start("echo $KL_ROOT >&3");
  EXPECT_EQ(output(), "/tmp/here\n");
  (void)status();
  ::unsetenv("KL_ROOT");
}

// They may have other names by now, or none.
TEST_F(ProcessTest, ItsUserAndGroupsAreThoseOfTheConfiguration) {
  if (::geteuid() != 0) GTEST_SKIP() << "only root can start a process as another user";
  configuration_.user = "nobody of this system";
  configuration_.uid = kOtherUser;
  configuration_.groups = {4242, 4343};
  start("id -u >&3; id -g >&3; id -G >&3");
  EXPECT_EQ(output(), "65534\n4242\n4242 4343\n");
  EXPECT_EQ(loader::describeEnd(status()), "ended with status 0");
}

TEST_F(ProcessTest, WithoutGroupsItDoesNotStart) {
  configuration_.user = "nobody of this system";
  start("true");
  EXPECT_EQ(loader::describeEnd(status()), "ended with status 127");
}

// Its descriptor 3 closes when it has ended.
TEST_F(ProcessTest, ItDoesNotOutliveTheLoader) {
  for (const std::string& user : {std::string(), std::string("nobody")}) {
    if (!user.empty() && ::geteuid() != 0) break;  // only root can start a process as another user
    if (!mine_.isOpen()) SetUp();
    configuration_.user = user;
    configuration_.uid = kOtherUser;
    configuration_.groups = {kOtherUser};
    kl::test::ChildProcess loader([this] {
      mine_.close();
      start("echo >&3; exec sleep 1000");
      ::pause();
    });
    its_.close();
    char byte = 0;
    ASSERT_EQ(::read(mine_.get(), &byte, 1), 1);
    ASSERT_EQ(loader.end(SIGKILL), 128 + SIGKILL);
    pollfd end{mine_.get(), POLLIN, 0};
    EXPECT_EQ(::poll(&end, 1, 5000), 1) << user;
    EXPECT_EQ(::read(mine_.get(), &byte, 1), 0) << user;
    mine_.close();
  }
}

TEST_F(ProcessTest, WhatGoesWrongInTheNewProcessIsStatus127) {
  configuration_.folder = "/nowhere";
  start("true");
  EXPECT_EQ(loader::describeEnd(status()), "ended with status 127");
}

TEST_F(ProcessTest, WithoutLimitsItHasThoseOfTheLoader) {
  const std::string script = "ulimit -Hn; ulimit -Hd; umask; nice";
  start("(" + script + ") >&3");
  EXPECT_EQ(output(), kl::test::runProgram({"/bin/sh", "-c", script}).out);
  (void)status();
}

TEST_F(ProcessTest, MoreMemoryThanItsLimitIsRefused) {
  if (kl::test::kEmulated) GTEST_SKIP() << "the emulator keeps limits of memory from the system";
  const std::string script = "dd if=/dev/zero of=/dev/null bs=32M count=1 2>/dev/null; echo $? >&3";
  start(script);
  EXPECT_EQ(output(), "0\n");
  (void)status();
  SetUp();
  configuration_.limits.memory = 16 << 20;
  start(script);
  EXPECT_EQ(output(), "1\n");
  (void)status();
}

TEST_F(ProcessTest, MoreFilesThanItsLimitAreRefused) {
  const std::string script = "exec 4</dev/null 5</dev/null; exec cat";  // which opens its libraries
  configuration_.limits.files = 7;
  start(script);
  EXPECT_EQ(loader::describeEnd(status()), "ended with status 0");
  SetUp();
  configuration_.limits.files = 6;
  start(script);
  EXPECT_EQ(loader::describeEnd(status()), "ended with status 127");
}

// A user of the test's own, who has no other process.  Root is not bound.
TEST_F(ProcessTest, MoreTasksThanItsLimitAreRefused) {
  if (::geteuid() != 0) GTEST_SKIP() << "only root can start a process as another user";
  configuration_.user = "nobody of this system";
  configuration_.uid = 54321;
  configuration_.groups = {54321};
  configuration_.limits.tasks = 2;
  start("exec >&3; (echo two; (echo three); true); true");
  EXPECT_EQ(output(), "two\n");
  (void)status();
}

TEST_F(ProcessTest, ItStartsWithItsNiceValueItsScoreAndItsMask) {
  configuration_.limits.nice = 7;
  configuration_.limits.oomScore = 321;
  configuration_.limits.umask = 027;
  start("nice >&3; cat /proc/$$/oom_score_adj >&3; umask >&3");
  EXPECT_EQ(output(), "7\n321\n0027\n");
  (void)status();
}

TEST_F(ProcessTest, ItGainsNoPrivilegesUnlessItMay) {
  const std::string script = "grep -c 'NoNewPrivs:.*1' /proc/$$/status >&3";
  start(script);
  EXPECT_EQ(output(), "1\n");
  (void)status();
  SetUp();
  configuration_.limits.mayGainPrivileges = true;
  start(script);
  EXPECT_EQ(output(),
            kl::test::runProgram({"/bin/sh", "-c", "grep -c 'NoNewPrivs:.*1' /proc/$$/status"}).out);
  (void)status();
}

TEST_F(ProcessTest, ALimitThatCannotBeGivenIsStatus127) {
  configuration_.limits.files = 1U << 31;  // more than the kernel has
  start("true");
  EXPECT_EQ(loader::describeEnd(status()), "ended with status 127");
}

TEST_F(ProcessTest, AnEndIsDescribedByStatusOrSignal) {
  start("exit 3");
  EXPECT_EQ(loader::describeEnd(status()), "ended with status 3");
  SetUp();
  start("kill -9 $$");
  EXPECT_EQ(loader::describeEnd(status()), "killed by SIGKILL");
}

}  // namespace

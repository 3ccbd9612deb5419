// What a process is refused that the loader has started under a profile, and what it may go on doing.

#include "services/loader/life/call_filter.h"

#include <gtest/gtest.h>
#include <sched.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <ctime>
#include <functional>
#include <string>

#include "services/loader/life/process.h"
#include "tests/support/build/effort.h"
#include "tests/support/process/child.h"

namespace {

using loader::CallFilter;
using loader::Profile;

constexpr Profile kProfiles[] = {Profile::kPlain, Profile::kQuiet, Profile::kNetwork};

// The error of a call; 0 where it succeeds.
int errorOf(long result) { return result < 0 ? errno : 0; }

int errorOfSocket(int family) { return errorOf(::socket(family, SOCK_DGRAM | SOCK_CLOEXEC, 0)); }

int errorOfFork() {
  const pid_t pid = ::fork();
  if (pid == 0) ::_exit(0);
  return errorOf(::waitpid(pid, nullptr, 0));
}

class FilterProgramTest : public testing::Test {
 protected:
  void SetUp() override {
    if (kl::test::kEmulated) GTEST_SKIP() << "the emulator filters no calls";
    if (loader::filterOf(Profile::kPlain).isEmpty()) GTEST_SKIP() << "a build without profiles";
    if (::prctl(PR_SET_SECCOMP, 2, nullptr, 0, 0) != 0 && errno != EFAULT)
      GTEST_SKIP() << "the kernel filters no calls";
  }

  // The value of `call` in a process of that profile.
  static int under(Profile profile, const std::function<int()>& call) {
    const CallFilter& filter = loader::filterOf(profile);
    return kl::test::runInChild([&] {
             if (::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0) ::_exit(250);
             if (filter.enforce() != CallFilter::Result::kEnforced) ::_exit(251);
             ::_exit(call());
           })
        .exitStatus;
  }

  // What the service of that profile writes to its standard error stream.
  static std::string outputOfService(Profile profile, const std::string& script) {
    return kl::test::runInChild([&] {
             loader::ServiceConfiguration service;
             service.name = "x";
             service.limits.profile = profile;
             service.command = {"/bin/sh", "-c", script};
             const pid_t pid = loader::startProcess(service, ::dup(STDERR_FILENO));
             ::_exit(pid > 0 && ::waitpid(pid, nullptr, 0) == pid ? 0 : 1);
           })
        .err;
  }
};

TEST_F(FilterProgramTest, WhatNoServiceNeedsIsRefusedByEach) {
  for (const Profile profile : kProfiles) {
    EXPECT_EQ(under(profile, [] { return errorOf(::unshare(CLONE_NEWUTS)); }), EPERM);
    EXPECT_EQ(
        under(profile, [] { return errorOf(::syscall(SYS_mount, nullptr, nullptr, nullptr, 0, nullptr)); }),
        EPERM);
    EXPECT_EQ(under(profile, [] { return errorOf(::syscall(SYS_bpf, 0, nullptr, 0)); }), EPERM);
    EXPECT_EQ(under(profile, [] { return errorOf(::syscall(SYS_keyctl, 0, 0, 0, 0, 0)); }), EPERM);
  }
}

TEST_F(FilterProgramTest, ANamespaceIsRefusedToANewProcessAsWell) {
  const auto clone = [] { return errorOf(::syscall(SYS_clone, CLONE_NEWUSER | SIGCHLD, 0, 0, 0, 0)); };
  for (const Profile profile : kProfiles) EXPECT_EQ(under(profile, clone), EPERM);
}

TEST_F(FilterProgramTest, TheClockIsForPlainOnes) {
  const auto set = [] { return errorOf(::syscall(SYS_clock_settime, CLOCK_REALTIME, nullptr)); };
  EXPECT_EQ(under(Profile::kPlain, set), EFAULT);
  EXPECT_EQ(under(Profile::kQuiet, set), EPERM);
  EXPECT_EQ(under(Profile::kNetwork, set), EPERM);
}

TEST_F(FilterProgramTest, SocketsAreThoseOfTheProfile) {
  for (const Profile profile : kProfiles) EXPECT_EQ(under(profile, [] { return errorOfSocket(AF_UNIX); }), 0);
  EXPECT_EQ(under(Profile::kPlain, [] { return errorOfSocket(AF_INET); }), 0);
  EXPECT_EQ(under(Profile::kQuiet, [] { return errorOfSocket(AF_INET); }), EPERM);
  EXPECT_EQ(under(Profile::kQuiet, [] { return errorOfSocket(AF_NETLINK); }), EPERM);
  EXPECT_EQ(under(Profile::kNetwork, [] { return errorOfSocket(AF_INET); }), 0);
  EXPECT_EQ(under(Profile::kNetwork, [] { return errorOfSocket(AF_NETLINK); }), 0);
  EXPECT_EQ(under(Profile::kNetwork, [] { return errorOfSocket(AF_BLUETOOTH); }), EPERM);
}

TEST_F(FilterProgramTest, ANumberThatIsTooLongDoesNotSlipThrough) {
  if (sizeof(long) == 4) GTEST_SKIP() << "there is none in 32 bits";
  const auto family = static_cast<long>(AF_INET + (std::uint64_t{1} << 32));
  const auto ask = [=] { return errorOf(::syscall(SYS_socket, family, SOCK_DGRAM, 0)); };
  EXPECT_EQ(under(Profile::kQuiet, ask), ENOSYS);
}

TEST_F(FilterProgramTest, WhatCameLaterDoesNotExist) {
  for (const Profile profile : kProfiles) {
    EXPECT_EQ(under(profile, [] { return errorOf(::syscall(1023)); }), ENOSYS);
    EXPECT_EQ(under(profile, [] { return errorOf(::syscall(SYS_clone3, nullptr, 0)); }), ENOSYS);
  }
}

TEST_F(FilterProgramTest, AProcessMayStartOthers) {
  for (const Profile profile : kProfiles) EXPECT_EQ(under(profile, errorOfFork), 0);
}

TEST_F(FilterProgramTest, AServiceAndWhatItStartsHaveTheProfile) {
  for (const Profile profile : kProfiles)
    EXPECT_EQ(outputOfService(
                  profile,
                  "grep -c 'Seccomp:.*2' /proc/self/status >&2; (unshare -u true 2>/dev/null; echo $? >&2)"),
              "1\n1\n");
}

}  // namespace

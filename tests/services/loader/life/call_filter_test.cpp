// A process asks the kernel for the filter, and says when that knows none.

#include "services/loader/life/call_filter.h"

#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>

#include "services/loader/life/process.h"
#include "tests/support/build/effort.h"
#include "tests/support/process/child.h"

namespace {

using loader::CallFilter;
using loader::Profile;

TEST(CallFilterTest, WithoutAProfileThereIsNone) {
  EXPECT_TRUE(loader::filterOf(Profile::kNone).isEmpty());
  EXPECT_EQ(loader::filterOf(Profile::kNone).enforce(), CallFilter::Result::kEnforced);
}

TEST(CallFilterTest, ItIsMadeOnce) {
  EXPECT_EQ(&loader::filterOf(Profile::kQuiet), &loader::filterOf(Profile::kQuiet));
}

// As on a kernel that knows none: the filter that is there already answers for it.
TEST(CallFilterTest, AKernelWithoutFiltersCostsALine) {
  if (kl::test::kEmulated) GTEST_SKIP() << "the emulator filters no calls";
  if (loader::filterOf(Profile::kPlain).isEmpty()) GTEST_SKIP() << "a build without profiles";
  if (::prctl(PR_SET_SECCOMP, 2, nullptr, 0, 0) != 0 && errno != EFAULT)
    GTEST_SKIP() << "the kernel filters no calls";
  const auto result = kl::test::runInChild([] {
    const CallFilter refuseFilters({{BPF_LD | BPF_W | BPF_ABS, 0, 0, 0},
                                    {BPF_JMP | BPF_JEQ | BPF_K, 0, 3, SYS_prctl},
                                    {BPF_LD | BPF_W | BPF_ABS, 0, 0, 16},
                                    {BPF_JMP | BPF_JEQ | BPF_K, 0, 1, PR_SET_SECCOMP},
                                    {BPF_RET | BPF_K, 0, 0, 0x00050000 | EINVAL},
                                    {BPF_RET | BPF_K, 0, 0, 0x7fff0000}});
    if (::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0) ::_exit(250);
    if (refuseFilters.enforce() != CallFilter::Result::kEnforced) ::_exit(251);
    loader::ServiceConfiguration service;
    service.name = "x";
    service.limits.profile = Profile::kQuiet;
    service.command = {"/bin/sh", "-c", "echo runs >&2"};
    const pid_t pid = loader::startProcess(service, ::dup(STDERR_FILENO));
    ::_exit(pid > 0 && ::waitpid(pid, nullptr, 0) == pid ? 0 : 1);
  });
  EXPECT_EQ(result.exitStatus, 0);
  EXPECT_EQ(result.err, "kl-loader: x: runs without its profile: the kernel filters no calls\nruns\n");
}

}  // namespace

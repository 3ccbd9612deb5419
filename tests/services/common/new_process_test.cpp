#include "services/common/new_process.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <vector>

#include "tests/support/process/child.h"

namespace {

using common::BlockedSignals;

volatile std::sig_atomic_t seen = 0;
void note(int) { seen = seen + 1; }

// From now on the kernel knows none of these calls; false where it cannot be told so.
bool forgetCalls(const std::vector<unsigned int>& calls) {
  std::vector<sock_filter> program{BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr))};
  for (const unsigned int call : calls) {
    program.push_back(BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, call, 0, 1));
    program.push_back(BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | ENOSYS));
  }
  program.push_back(BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW));
  const sock_fprog filter{static_cast<unsigned short>(program.size()), program.data()};
  return ::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 &&
         ::prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &filter) == 0;
}

// A child opens descriptors far apart, closes from 50 on, and looks.  Status 77: it could not do without the calls.
int statusAfterClosing(const std::vector<unsigned int>& missing) {
  return kl::test::runInChild([&missing] {
           for (const int descriptor : {49, 50, 51, 600}) ::dup2(STDIN_FILENO, descriptor);
           if (!missing.empty() && !forgetCalls(missing)) ::_exit(77);
           common::closeFrom(50);
           const auto isOpen = [](int descriptor) { return ::fcntl(descriptor, F_GETFD) >= 0; };
           ::_exit(isOpen(STDIN_FILENO) && isOpen(49) && !isOpen(50) && !isOpen(51) && !isOpen(600) ? 0 : 1);
         })
      .exitStatus;
}

TEST(NewProcess, ABlockedSignalComesAfterwards) {
  ::signal(SIGUSR1, note);
  {
    const BlockedSignals blocked;
    ::raise(SIGUSR1);
    EXPECT_EQ(seen, 0);
  }
  EXPECT_EQ(seen, 1);
  ::signal(SIGUSR1, SIG_DFL);
}

TEST(NewProcess, NothingOfTheHandlersIsLeft) {
  const auto child = kl::test::runInChild([] {
    ::signal(SIGUSR1, note);
    const BlockedSignals blocked;
    common::resetSignals();
    ::raise(SIGUSR1);
  });
  EXPECT_EQ(child.signal, SIGUSR1);
}

TEST(NewProcess, BecomesAnotherUserWithHisGroupsAlone) {
  if (::geteuid() != 0) GTEST_SKIP() << "only root can become another user";
  const auto child = kl::test::runInChild([] {
    EXPECT_TRUE(common::becomeUser(65534, {65533, 12}));
    gid_t groups[8];
    const int count = ::getgroups(8, groups);
    EXPECT_EQ(std::vector<gid_t>(groups, groups + count), (std::vector<gid_t>{12, 65533}));
    EXPECT_EQ(::geteuid(), 65534u);
    EXPECT_EQ(::getegid(), 65533u);
    EXPECT_FALSE(common::becomeUser(0, {0}));
    ::_exit(testing::Test::HasFailure() ? 1 : 0);
  });
  EXPECT_EQ(child.exitStatus, 0) << child.out;
}

TEST(NewProcess, ClosesADescriptorAndAllAbove) { EXPECT_EQ(statusAfterClosing({}), 0); }

TEST(NewProcess, ClosesThemOnAKernelWithoutACallForIt) {
  const int status = statusAfterClosing({SYS_close_range});
  if (status == 77) GTEST_SKIP() << "no call can be taken away here";
  EXPECT_EQ(status, 0);
}

TEST(NewProcess, ClosesThemWhereNoListOfThemCanBeRead) {
  const int status = statusAfterClosing({SYS_close_range, SYS_openat});
  if (status == 77) GTEST_SKIP() << "no call can be taken away here";
  EXPECT_EQ(status, 0);
}

TEST(NewProcess, WithoutGroupsNobodyBecomesAnother) {
  EXPECT_TRUE(common::becomeUser(::geteuid(), {}));
  EXPECT_FALSE(common::becomeUser(::geteuid() + 1, {}));
}

}  // namespace

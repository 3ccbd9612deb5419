#include "services/common/new_process.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include "tests/support/process/child.h"

namespace {

using common::BlockedSignals;

volatile std::sig_atomic_t seen = 0;
void note(int) { seen = seen + 1; }

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

TEST(NewProcess, WithoutGroupsNobodyBecomesAnother) {
  EXPECT_TRUE(common::becomeUser(::geteuid(), {}));
  EXPECT_FALSE(common::becomeUser(::geteuid() + 1, {}));
}

}  // namespace

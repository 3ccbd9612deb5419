#include "services/loader/transport/descriptors.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>

namespace {

using loader::Descriptor;

bool isOpen(int fd) { return ::fcntl(fd, F_GETFD) >= 0; }

TEST(Descriptors, ADescriptorIsClosedWithItsOwner) {
  int fd = -1;
  {
    const Descriptor owner(::dup(0));
    fd = owner.get();
    EXPECT_TRUE(isOpen(fd));
  }
  EXPECT_FALSE(isOpen(fd));
}

TEST(Descriptors, MovingHandsItOver) {
  Descriptor first(::dup(0));
  const int fd = first.get();
  Descriptor second(std::move(first));
  EXPECT_FALSE(first.isOpen());
  EXPECT_EQ(second.get(), fd);
  Descriptor third;
  third = std::move(second);
  EXPECT_EQ(third.get(), fd);
  EXPECT_EQ(third.release(), fd);
  EXPECT_TRUE(isOpen(fd));
  ::close(fd);
}

TEST(Descriptors, AMissingStandardDescriptorIsReplaced) {
  for (const int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
    const Descriptor kept(::dup(fd));
    ::close(fd);
    loader::openStandardDescriptors();
    EXPECT_TRUE(isOpen(fd)) << fd;
    ::dup2(kept.get(), fd);
  }
}

TEST(Descriptors, TheLimitIsRaisedAndGivenBack) {
  rlimit before{};
  ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &before), 0);
  rlimit lower = before;
  lower.rlim_cur = 256;
  ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &lower), 0);
  loader::raiseDescriptorLimit();
  rlimit now{};
  (void)::getrlimit(RLIMIT_NOFILE, &now);
  EXPECT_EQ(now.rlim_cur, before.rlim_max);
  loader::restoreDescriptorLimit();
  (void)::getrlimit(RLIMIT_NOFILE, &now);
  EXPECT_EQ(now.rlim_cur, 256u);
  (void)::setrlimit(RLIMIT_NOFILE, &before);
}

}  // namespace

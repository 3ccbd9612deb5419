#include "services/common/descriptor.h"

#include <fcntl.h>
#include <gtest/gtest.h>

namespace common {
namespace {

bool isOpen(int fd) { return ::fcntl(fd, F_GETFD) >= 0; }

TEST(Descriptor, ItIsClosedWithItsOwner) {
  int fd = -1;
  {
    const Descriptor owner(::dup(0));
    fd = owner.get();
    EXPECT_TRUE(isOpen(fd));
  }
  EXPECT_FALSE(isOpen(fd));
}

TEST(Descriptor, MovingHandsItOver) {
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

TEST(Descriptor, WhatAssigningReplacesIsClosedWithTheOther) {
  int fd = -1;
  Descriptor kept(::dup(0));
  {
    Descriptor other(::dup(0));
    fd = kept.get();
    kept = std::move(other);
    EXPECT_TRUE(isOpen(fd));
  }
  EXPECT_FALSE(isOpen(fd));
  EXPECT_TRUE(isOpen(kept.get()));
}

TEST(OccupyDescriptors, AClosedStandardDescriptorIsReplaced) {
  for (const int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
    const Descriptor kept(::dup(fd));
    ::close(fd);
    occupyDescriptors(STDERR_FILENO, O_RDWR);
    EXPECT_TRUE(isOpen(fd)) << fd;
    ::dup2(kept.get(), fd);
  }
}

TEST(OccupyDescriptors, TheLastOneIsReplacedAndNoneBehindIt) {
  int last = STDERR_FILENO + 1;
  while (isOpen(last)) ++last;
  occupyDescriptors(last, O_RDWR | O_CLOEXEC);
  EXPECT_TRUE(isOpen(last));
  EXPECT_EQ(::fcntl(last, F_GETFD), FD_CLOEXEC);
  const Descriptor next(::open("/dev/null", O_RDONLY | O_CLOEXEC));
  EXPECT_GT(next.get(), last);
  ::close(last);
}

TEST(OccupyDescriptors, WhatIsOpenStaysAsItIs) {
  const int before = ::fcntl(STDOUT_FILENO, F_GETFL);
  occupyDescriptors(STDERR_FILENO, O_RDONLY | O_CLOEXEC);
  EXPECT_EQ(::fcntl(STDOUT_FILENO, F_GETFL), before);
  EXPECT_EQ(::fcntl(STDOUT_FILENO, F_GETFD), 0);
}

}  // namespace
}  // namespace common

#include "services/loader/transport/descriptors.h"

#include <gtest/gtest.h>
#include <sys/resource.h>

namespace {

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

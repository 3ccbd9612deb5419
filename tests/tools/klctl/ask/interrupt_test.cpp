#include "tools/klctl/ask/interrupt.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <unistd.h>

#include "tests/support/process/child.h"

namespace klctl {
namespace {

bool isReadable(int fd) {
  pollfd watched{fd, POLLIN, 0};
  return ::poll(&watched, 1, 0) == 1;
}

}  // namespace

TEST(Interrupt, ASignalMakesTheDescriptorReadableAndNothingElse) {
  const Interrupt interrupt;
  EXPECT_FALSE(isReadable(interrupt.fd()));
  ASSERT_EQ(::raise(SIGINT), 0);
  EXPECT_TRUE(isReadable(interrupt.fd()));
  EXPECT_TRUE(isReadable(interrupt.fd()));
}

TEST(Interrupt, AfterwardsASignalEndsTheProcessAgain) {
  const auto result = kl::test::runInChild([] {
    {
      const Interrupt interrupt;
      (void)::raise(SIGINT);
    }
    (void)!::write(STDOUT_FILENO, "alive", 5);
    (void)::raise(SIGINT);
    (void)!::write(STDOUT_FILENO, " still", 6);
  });
  EXPECT_EQ(result.out, "alive");
  EXPECT_EQ(result.signal, SIGINT);
}

}  // namespace klctl

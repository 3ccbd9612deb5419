#include "testkit/failures.h"

#include <gtest/gtest.h>

#include "kl/test.h"

namespace kl::test {
namespace {

TEST(Failures, AreThrownOrGivenToTheHandler) {
  EXPECT_THROW(report("one"), Failure);
  std::string heard;
  setFailureHandler([&](const std::string& what) { heard += what; });
  report("two ");
  reportLast("three");
  setFailureHandler({});
  EXPECT_EQ(heard, "two three");
  EXPECT_THROW(report("four"), Failure);
}

TEST(Failures, LeaveAnExceptionThatIsOnItsWayAlone) {
  struct Ending {
    ~Ending() { reportLast("beside it"); }
  };
  const auto fail = [] {
    const Ending ending;
    throw std::string("first");
  };
  EXPECT_THROW(fail(), std::string);
}

TEST(FailuresDeathTest, TheLastOneEndsTheProcess) {
  EXPECT_EXIT(reportLast("gone"), testing::ExitedWithCode(1), "kl::test: gone");
}

}  // namespace
}  // namespace kl::test

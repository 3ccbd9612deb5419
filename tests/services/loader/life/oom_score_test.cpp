#include "services/loader/life/oom_score.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>

#include "tests/support/process/child.h"

namespace {

int score() {
  std::ifstream in("/proc/self/oom_score_adj");
  int value = 12345;
  in >> value;
  return value;
}

bool setScore(int value) {
  std::ofstream out("/proc/self/oom_score_adj");
  out << value << std::flush;
  return static_cast<bool>(out) && score() == value;
}

// Each in a process of its own: a score that was raised cannot be lowered again without a right.
TEST(OomScore, TheLoaderGoesLastAndItsChildrenAsBefore) {
  const auto result = kl::test::runInChild([] {
    const int before = score();
    loader::lowerOomScore();
    const bool isAllowed = ::geteuid() == 0 && score() != before;
    if (isAllowed && score() != -900) ::_exit(1);
    if (!isAllowed && score() != before) ::_exit(2);
    loader::restoreOomScore();
    ::_exit(score() == std::max(before, 0) ? 0 : 3);
  });
  EXPECT_EQ(result.exitStatus, 0) << result.err;
}

TEST(OomScore, AScoreThatWasRaisedOnPurposeIsPassedOn) {
  const auto result = kl::test::runInChild([] {
    if (!setScore(700)) ::_exit(0);
    loader::lowerOomScore();
    loader::restoreOomScore();
    ::_exit(score() == 700 ? 0 : 1);
  });
  EXPECT_EQ(result.exitStatus, 0) << result.err;
}

TEST(OomScore, AChildNeverInheritsToBeSpared) {
  const auto result = kl::test::runInChild([] {
    if (!setScore(-950)) ::_exit(0);
    loader::lowerOomScore();
    if (score() != -950) ::_exit(1);
    loader::restoreOomScore();
    ::_exit(score() == 0 ? 0 : 2);
  });
  EXPECT_EQ(result.exitStatus, 0) << result.err;
}

}  // namespace

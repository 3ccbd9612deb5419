// Remembers which programs have run on this machine.

#include "looper/first_start.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <string>

#include "kl/utilities.h"
#include "tests/support/process/child.h"

namespace kl {
namespace {

const std::string kMarker = runFolderPath() + "/looper_tests";

TEST(FirstStart, TheMarkerIsNamedAsTheProgramIs) { EXPECT_EQ(firstStartMarker(), kMarker); }

TEST(FirstStart, AMarkerThatWasLeftIsFound) {
  ::unlink(kMarker.c_str());
  EXPECT_FALSE(hasMarker(kMarker));
  leaveMarker(kMarker);
  EXPECT_TRUE(hasMarker(kMarker));
  ::unlink(kMarker.c_str());
}

TEST(FirstStart, AMarkerIsAnEmptyFileOfItsOwnersAlone) {
  ::unlink(kMarker.c_str());
  leaveMarker(kMarker);
  struct stat status {};
  ASSERT_EQ(::stat(kMarker.c_str(), &status), 0);
  EXPECT_EQ(status.st_size, 0);
  EXPECT_EQ(status.st_mode & 0777u, 0600u);
  ::unlink(kMarker.c_str());
}

TEST(FirstStart, ALinkIsNoMarkerAndIsNotFollowed) {
  const std::string target = runFolderPath() + "/target";
  ::unlink(kMarker.c_str());
  ASSERT_EQ(::symlink(target.c_str(), kMarker.c_str()), 0);
  leaveMarker(kMarker);
  EXPECT_NE(::access(target.c_str(), F_OK), 0) << "made through the link";
  std::ofstream(target) << "content";
  EXPECT_FALSE(hasMarker(kMarker));
  leaveMarker(kMarker);
  struct stat status {};
  ASSERT_EQ(::stat(target.c_str(), &status), 0);
  EXPECT_EQ(status.st_size, 7) << "cut through the link";
  ::unlink(kMarker.c_str());
  ::unlink(target.c_str());
}

TEST(FirstStart, AFolderIsNoMarker) {
  ::unlink(kMarker.c_str());
  ASSERT_EQ(::mkdir(kMarker.c_str(), 0700), 0);
  EXPECT_FALSE(hasMarker(kMarker));
  leaveMarker(kMarker);
  ::rmdir(kMarker.c_str());
}

TEST(FirstStart, AFileOfAnotherUserIsNoMarker) {
  constexpr uid_t kStranger = 12345;
  ::unlink(kMarker.c_str());
  leaveMarker(kMarker);
  if (::chown(kMarker.c_str(), kStranger, kStranger) != 0) GTEST_SKIP() << "needs root, to give a file away";
  EXPECT_FALSE(hasMarker(kMarker));
  ::unlink(kMarker.c_str());
}

TEST(FirstStart, AMarkerOfRootCountsForEveryUser) {
  if (::geteuid() != 0) GTEST_SKIP() << "needs root";
  ::unlink(kMarker.c_str());
  leaveMarker(kMarker);
  const test::ChildResult result = test::runInChild([] {
    if (::setuid(12345) != 0) ::_exit(2);
    ::_exit(hasMarker(kMarker) ? 0 : 1);
  });
  EXPECT_EQ(result.exitStatus, 0);
  ::unlink(kMarker.c_str());
}

TEST(FirstStart, AFolderThatIsMissingIsNoReasonToStop) { leaveMarker(underRoot("/kelo/nowhere/name")); }

}  // namespace
}  // namespace kl

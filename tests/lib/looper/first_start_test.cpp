// Remembers which programs have run on this machine.

#include "looper/first_start.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "tests/support/process/child.h"

namespace kl {
namespace {

const std::string kMarker = "/kelo/run/looper_tests";

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

TEST(FirstStart, AFolderThatIsMissingIsNoReasonToStop) { leaveMarker("/kelo/nowhere/name"); }

}  // namespace
}  // namespace kl

// The two paths of a message.

#include "looper/paths.h"

#include <gtest/gtest.h>

namespace kl {
namespace {

TEST(Paths, AnAbsentPathAndAnEmptyOneAreTheSame) {
  message absent;
  message empty;
  empty.insert(SYS_TO, {});
  EXPECT_FALSE(hasPath(absent, SYS_TO));
  EXPECT_FALSE(hasPath(empty, SYS_TO));
  EXPECT_EQ(pathOf(absent, SYS_TO), pathOf(empty, SYS_TO));
}

TEST(Paths, TheFirstHopIsReadAndRemovedAtTheFront) {
  message m;
  m.insert(SYS_TO, {7, 8});
  EXPECT_EQ(firstHop(m), 7u);
  removeFirstHop(m);
  EXPECT_EQ(pathOf(m, SYS_TO), Path{8});
  removeFirstHop(m);
  EXPECT_FALSE(hasPath(m, SYS_TO));
}

TEST(Paths, ASenderIsPutInFrontOfTheWayBack) {
  message m;
  prependSender(m, 3);
  prependSender(m, 7);
  EXPECT_EQ(pathOf(m, SYS_FROM), (Path{7, 3}));
}

}  // namespace
}  // namespace kl

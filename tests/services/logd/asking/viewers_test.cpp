#include "services/logd/asking/viewers.h"

#include <gtest/gtest.h>

#include "kl/conventions.h"
#include "kl/services.h"

namespace logd {
namespace {

kl::message requestOf(const std::string& user, unsigned int rights) {
  kl::message m;
  m.insert(kl::SYS_POLICY, rights);
  m.insert(kl::SYS_USER, user);
  return m;
}

struct ViewersTest : testing::Test {
  std::optional<unsigned int> onlyOf(const std::string& user, unsigned int rights) {
    return viewers.onlyOf(requestOf(user, rights));
  }

  const common::KnownUsers users{{{"bob", 3, 3}, {"0", 5, 5}}};
  const Viewers viewers{users};
};

TEST_F(ViewersTest, AllRightsAndTheRightToContentsSeeEverything) {
  EXPECT_FALSE(viewers.onlyOf({}));
  EXPECT_FALSE(onlyOf("bob", kl::RIGHT_READ | kl::RIGHT_CONTENTS));
  EXPECT_FALSE(onlyOf("bob", kl::RIGHTS_ALL));
}

TEST_F(ViewersTest, AnyOtherRequestSeesItsUsersLines) {
  EXPECT_EQ(onlyOf("bob", kl::RIGHT_READ), 3u);
  EXPECT_EQ(onlyOf("bob", kl::RIGHT_CHANGE | kl::RIGHT_CONTROL), 3u);
  EXPECT_EQ(onlyOf("bob", 0), 3u);
}

TEST_F(ViewersTest, WhoHasNoNumberSeesNothing) {
  EXPECT_EQ(onlyOf("unknown", kl::RIGHT_READ), Viewers::kNobody);
  EXPECT_EQ(onlyOf("", kl::RIGHT_READ), Viewers::kNobody);
  kl::message nameless;
  nameless.insert(kl::SYS_POLICY, kl::RIGHT_READ);
  EXPECT_EQ(viewers.onlyOf(nameless), Viewers::kNobody);
}

// A name that the system would know.
TEST_F(ViewersTest, WhoIsNotListedIsNotLookedUp) {
  EXPECT_EQ(onlyOf("root", kl::RIGHT_READ), Viewers::kNobody);
  EXPECT_EQ(onlyOf("nobody", kl::RIGHT_READ), Viewers::kNobody);
}

TEST_F(ViewersTest, ANumberWithoutANameIsItself) {
  EXPECT_EQ(onlyOf("3987654321", kl::RIGHT_READ), 3987654321u);
  EXPECT_EQ(onlyOf("0", kl::RIGHT_READ), 0u);
  EXPECT_EQ(onlyOf("5", kl::RIGHT_READ), 5u) << "its name is no name";
  for (const char* number : {"3", "4294967295", "4294967296", "-1"})
    EXPECT_EQ(onlyOf(number, kl::RIGHT_READ), Viewers::kNobody) << number;
}

TEST_F(ViewersTest, AFilterForTheLinesOfSomebodyElseLetsNothingThrough) {
  kl::message request = requestOf("bob", kl::RIGHT_READ);
  EXPECT_EQ(viewers.limited(request).get(kl::LOG_UID, 0), 3u);
  request.insert(kl::LOG_UID, 3);
  EXPECT_EQ(viewers.limited(request).get(kl::LOG_UID, 0), 3u);
  request.insert(kl::LOG_UID, 0);
  EXPECT_EQ(viewers.limited(request).get(kl::LOG_UID, 0), Viewers::kNobody);
  request.insert(kl::SYS_POLICY, kl::RIGHT_CONTENTS);
  EXPECT_EQ(viewers.limited(request), request);
}

}  // namespace
}  // namespace logd

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

  unsigned int questions = 0;
  Viewers viewers{[this](const std::string& name) {
    ++questions;
    return name == "unknown" ? std::nullopt : std::optional(static_cast<unsigned int>(name.size()));
  }};
};

TEST_F(ViewersTest, AllRightsAndTheRightToContentsSeeEverything) {
  EXPECT_FALSE(viewers.onlyOf({}));
  EXPECT_FALSE(onlyOf("bob", kl::RIGHT_READ | kl::RIGHT_CONTENTS));
  EXPECT_FALSE(onlyOf("bob", kl::RIGHTS_ALL));
  EXPECT_EQ(questions, 0u);
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

TEST_F(ViewersTest, AUserIsAskedForOnceAndOnlySoManyAreKept) {
  for (int i = 0; i < 100; ++i) (void)onlyOf("bob", kl::RIGHT_READ);
  EXPECT_EQ(questions, 1u);
  for (std::size_t i = 0; i < Viewers::kMostNames; ++i) (void)onlyOf("u" + std::to_string(i), kl::RIGHT_READ);
  (void)onlyOf("bob", kl::RIGHT_READ);
  EXPECT_EQ(questions, Viewers::kMostNames + 2) << "it had to make room";
  viewers.forget();
  (void)onlyOf("bob", kl::RIGHT_READ);
  EXPECT_EQ(questions, Viewers::kMostNames + 3);
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

TEST(ViewersSystem, ANameHasItsNumberAndANumberWithoutANameIsItself) {
  EXPECT_EQ(Viewers::findUser("root"), 0u);
  EXPECT_EQ(Viewers::findUser("3987654321"), 3987654321u);
  EXPECT_FALSE(Viewers::findUser("0")) << "root has a name";
  EXPECT_FALSE(Viewers::findUser("4294967295")) << "nobody's";
  EXPECT_FALSE(Viewers::findUser("no such user"));
  EXPECT_FALSE(Viewers::findUser("-1"));
}

}  // namespace
}  // namespace logd

#include "services/loader/config/users.h"

#include <gtest/gtest.h>

namespace {

using loader::Users;
using Uids = std::vector<uid_t>;

TEST(Users, NamesAreThoseOfTheSystem) {
  Users users;
  EXPECT_EQ(users.nameOf(0), "root");
  EXPECT_EQ(users.nameOf(65534), "nobody");
  EXPECT_EQ(users.find("root"), 0u);
  EXPECT_FALSE(users.find("no such user"));
  EXPECT_FALSE(users.findGroup("no such group"));
}

TEST(Users, AUserWithoutANameIsCalledByHisNumber) { EXPECT_EQ(Users().nameOf(3999999999u), "3999999999"); }

TEST(Users, TheGroupsOfAUserBeginWithHisPrimaryOne) {
  const Users users;
  ASSERT_FALSE(users.groupsOf("nobody").empty());
  EXPECT_EQ(users.groupsOf("root").front(), 0u);
  EXPECT_EQ(Users({{"toor", 7000, 7100}}, {}).groupsOf("toor"), std::vector<gid_t>{7100});
  EXPECT_TRUE(users.groupsOf("no such user").empty());
}

TEST(Users, WhoHasNoFolderIsAtHomeAtTheRoot) {
  EXPECT_EQ(Users().homeOf("root"), "/root");
  EXPECT_EQ(Users({{"toor", 7000, 7100, "/srv/toor"}}, {}).homeOf("toor"), "/srv/toor");
  EXPECT_EQ(Users({{"toor", 7000, 7100}}, {}).homeOf("toor"), "/");
  EXPECT_EQ(Users().homeOf("no such user"), "/");
}

TEST(Users, ANumberIsNeverAName) {
  Users users({{"0", 4711, 4711}, {"4712", 4712, 4712}}, {{"10", 10, {"4712"}}});
  EXPECT_EQ(users.nameOf(4711), "4711");
  EXPECT_FALSE(users.find("0"));
  EXPECT_FALSE(users.find("4712"));
  EXPECT_FALSE(users.findGroup("10"));
}

TEST(Users, WhoIsKnownIsFoundWithoutTheSystem) {
  const Users users({{"toor", 7000, 7000}, {"4712", 4712, 4712}}, {});
  EXPECT_EQ(users.known("toor"), 7000u);
  EXPECT_EQ(users.known("3999999999"), 3999999999u);  // a user without a name
  EXPECT_EQ(users.known("4712"), 4712u);              // one whose name is no name
  for (const char* name : {"root", "7000", "99999999999", "", "-1", "0x10", "7000 "})
    EXPECT_FALSE(users.known(name)) << name;
}

TEST(Users, OfSeveralNamesTheFirstIsShown) {
  Users users({{"toor", 7000, 7000}, {"root2", 7000, 7000}}, {});
  EXPECT_EQ(users.nameOf(7000), "toor");
  EXPECT_EQ(users.find("root2"), 7000u);
}

TEST(Users, MembersAreThoseOfTheListAndThoseWhosePrimaryGroupItIs) {
  Users users({{"ann_", 7003, 7100}, {"bob_", 7001, 7200}, {"eve_", 7002, 7300}},
              {{"wheel_", 7100, {"bob_", "nobody of that name", "bob_"}}, {"empty_", 7400, {}}});
  EXPECT_EQ(users.findGroup("wheel_"), (Uids{7001, 7003}));
  EXPECT_EQ(users.findGroup("empty_"), Uids());
  EXPECT_EQ(users.findGroupId("wheel_"), 7100u);
  EXPECT_FALSE(users.findGroupId("no such group"));
  EXPECT_FALSE(users.findGroupId("7100"));
}

}  // namespace

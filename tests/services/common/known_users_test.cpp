#include "services/common/known_users.h"

#include <gtest/gtest.h>

namespace {

using common::KnownUsers;

TEST(KnownUsers, AreThoseOfTheSystem) {
  const KnownUsers users;
  EXPECT_EQ(users.nameOf(0), "root");
  EXPECT_EQ(users.numberOf("root"), 0u);
  EXPECT_EQ(users.numberOf("nobody"), 65534u);
  EXPECT_EQ(users.nameOf(3999999999u), "3999999999");
  EXPECT_FALSE(users.numberOf("no such user"));
}

TEST(KnownUsers, WhoHasNoNameIsCalledByTheNumberAndNobodyElseIs) {
  const KnownUsers users({{"toor", 7000, 7000}, {"4712", 4712, 4712}});
  EXPECT_EQ(users.numberOf("toor"), 7000u);
  EXPECT_EQ(users.numberOf("3999999999"), 3999999999u);
  EXPECT_EQ(users.numberOf("4712"), 4712u);  // its name is no name
  for (const char* name : {"root", "7000", "99999999999", "", "-1", "0x10", "7000 "})
    EXPECT_FALSE(users.numberOf(name)) << name;
}

TEST(KnownUsers, OfSeveralTheFirstCounts) {
  KnownUsers users({{"toor", 7000, 7000}, {"root2", 7000, 7000}, {"toor", 7001, 7001}});
  users.add({"later", 7000, 7000});
  users.add({"0", 7002, 7002});
  EXPECT_EQ(users.nameOf(7000), "toor");
  EXPECT_EQ(users.nameOf(7002), "7002");
  for (const char* name : {"toor", "root2", "later"}) EXPECT_EQ(users.numberOf(name), 7000u) << name;
  EXPECT_EQ(users.find("toor")->group, 7000u);
  EXPECT_EQ(users.find("root"), nullptr);
  EXPECT_EQ(users.byName().size(), 3u);
}

}  // namespace

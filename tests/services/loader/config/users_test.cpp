#include "services/loader/config/users.h"

#include <gtest/gtest.h>

namespace {

TEST(Users, NamesAreThoseOfTheSystem) {
  loader::Users users;
  EXPECT_EQ(users.nameOf(0), "root");
  EXPECT_EQ(users.nameOf(65534), "nobody");
}

TEST(Users, AUserWithoutANameIsCalledByHisNumber) {
  loader::Users users;
  EXPECT_EQ(users.nameOf(3999999999u), "3999999999");
}

TEST(Users, NumbersAreFoundByName) {
  EXPECT_EQ(loader::Users::numberOf("root"), 0u);
  EXPECT_EQ(loader::Users::numberOf("no such user"), static_cast<uid_t>(-1));
}

}  // namespace

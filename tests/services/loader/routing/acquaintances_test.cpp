#include "services/loader/routing/acquaintances.h"

#include <gtest/gtest.h>

#include <vector>

namespace {

using loader::Acquaintances;
using Ids = std::vector<unsigned int>;

TEST(Acquaintances, EachIsKeptOnceInTheOrderOfTheIds) {
  Acquaintances some;
  for (const unsigned int id : {30u, 10u, 10u, 20u, 30u, 10u}) some.add(id);
  EXPECT_EQ(some.ids(), (Ids{10, 20, 30}));
  EXPECT_FALSE(some.isEverybody());
}

TEST(Acquaintances, WhoIsForgottenMayBeMetAgain) {
  Acquaintances some;
  some.add(10);
  some.forget(10);
  some.forget(11);
  EXPECT_EQ(some.ids(), Ids());
  some.add(10);
  EXPECT_EQ(some.ids(), Ids{10});
}

TEST(Acquaintances, TooManyAreEverybodyAndTakeNoMemory) {
  Acquaintances many;
  for (unsigned int id = 2; id < 2 + Acquaintances::kMost; ++id) many.add(id);
  EXPECT_FALSE(many.isEverybody());
  EXPECT_EQ(many.ids().size(), Acquaintances::kMost);
  many.add(2);
  EXPECT_FALSE(many.isEverybody());
  many.add(5000);
  EXPECT_TRUE(many.isEverybody());
  EXPECT_EQ(many.ids().capacity(), 0u);
  many.add(5001);
  many.forget(5000);
  EXPECT_TRUE(many.isEverybody());
}

}  // namespace

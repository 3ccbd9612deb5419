#include "services/loader/routing/senders.h"

#include <gtest/gtest.h>

#include <vector>

namespace {

using loader::Senders;
using Figures = std::vector<unsigned long long>;

// Sender, messages, bytes; sender, ...
Figures figuresOf(const Senders& senders) {
  Figures figures;
  for (const Senders::Sent& one : senders.all())
    figures.insert(figures.end(), {one.sender, one.messages, one.bytes});
  return figures;
}

Figures othersOf(const Senders& senders) { return {senders.others().messages, senders.others().bytes}; }

TEST(Senders, EachHasItsOwnFiguresInTheOrderOfTheIds) {
  Senders some;
  for (const unsigned int id : {30u, 10u, 10u, 20u, 30u, 10u}) some.add(id, id + 1);
  EXPECT_EQ(figuresOf(some), (Figures{10, 3, 33, 20, 1, 21, 30, 2, 62}));
  EXPECT_EQ(othersOf(some), (Figures{0, 0}));
}

TEST(Senders, WhoIsForgottenCountsAmongTheOthersAndMayComeAgain) {
  Senders some;
  some.add(20, 5);
  some.add(10, 7);
  some.forget(10);
  some.forget(11);
  EXPECT_EQ(figuresOf(some), (Figures{20, 1, 5}));
  EXPECT_EQ(othersOf(some), (Figures{1, 7}));
  some.add(10, 9);
  some.add(20, 5);
  EXPECT_EQ(figuresOf(some), (Figures{10, 1, 9, 20, 2, 10}));
  EXPECT_EQ(othersOf(some), (Figures{1, 7}));
}

TEST(Senders, WhoComesWhenTooManyAreThereCountsAmongTheOthers) {
  Senders many;
  for (unsigned int id = 1; id <= Senders::kMost; ++id) many.add(id, 1);
  many.add(5000, 3);
  many.add(5001, 4);
  many.add(5001, 4);
  many.add(1, 1);
  EXPECT_EQ(many.all().size(), Senders::kMost);
  EXPECT_EQ(othersOf(many), (Figures{3, 11}));
  EXPECT_EQ(many.all().front().messages, 2u);
  many.forget(1);
  many.add(5000, 3);
  EXPECT_EQ(many.all().back().sender, 5000u);
  EXPECT_EQ(othersOf(many), (Figures{5, 13}));
}

}  // namespace

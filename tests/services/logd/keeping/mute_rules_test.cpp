#include "services/logd/keeping/mute_rules.h"

#include <gtest/gtest.h>

namespace logd {
namespace {

TEST(MuteRules, ASourceIsMutedWhenOneOfItsTopicsIs) {
  MuteRules rules;
  EXPECT_TRUE(rules.set(8, true));
  EXPECT_TRUE(rules.mutes({32, 8}));
  EXPECT_FALSE(rules.mutes({32, 7}));
  EXPECT_FALSE(rules.mutes({}));
}

TEST(MuteRules, ItStaysMutedWhileAnotherRuleHolds) {
  MuteRules rules;
  (void)rules.set(8, true);
  (void)rules.set(32, true);
  EXPECT_TRUE(rules.set(8, false));
  EXPECT_TRUE(rules.mutes({32, 8}));
  EXPECT_TRUE(rules.set(32, false));
  EXPECT_FALSE(rules.mutes({32, 8}));
}

TEST(MuteRules, WhatWasSoBeforeIsNoChange) {
  MuteRules rules;
  EXPECT_FALSE(rules.set(8, false));
  EXPECT_TRUE(rules.set(8, true));
  EXPECT_FALSE(rules.set(8, true));
}

}  // namespace
}  // namespace logd

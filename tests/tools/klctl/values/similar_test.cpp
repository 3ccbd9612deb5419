#include "tools/klctl/values/similar.h"

#include <gtest/gtest.h>

namespace klctl {

TEST(Similar, ALetterMoreLessOrAnotherOneIsOneDifference) {
  for (const char* word : {"netf", "netiff", "netix", "ntif", "netif"})
    EXPECT_EQ(closest(word, {"log", "netif"}), "netif") << word;
}

TEST(Similar, NeighboursInTheWrongOrderAreOneDifference) {
  EXPECT_EQ(closest("netfi", {"log", "netif"}), "netif");
  EXPECT_EQ(closest("lgo", {"log", "netif"}), "log");
}

TEST(Similar, LongWordsMayDifferMore) {
  EXPECT_EQ(closest("getlal", {"getall"}), "getall");
  EXPECT_EQ(closest("restrat", {"start", "restart"}), "restart");
  EXPECT_EQ(closest("link_monitro2", {"link_monitor"}), "link_monitor");
}

TEST(Similar, TheClosestCandidateCountsAndOfEqualOnesTheFirst) {
  EXPECT_EQ(closest("starts", {"start", "stats"}), "start");
  EXPECT_EQ(closest("stat", {"stats", "start"}), "stats");
}

TEST(Similar, AWordThatIsLikeNoCandidateHasNone) {
  EXPECT_EQ(closest("nobody", {"loader", "netif", "log"}), "");
  EXPECT_EQ(closest("ls", {"list", "show", "run"}), "");
  EXPECT_EQ(closest("", {"ab"}), "");
  EXPECT_EQ(closest("get", {}), "");
}

TEST(Similar, TheQuestionFollowsASentence) {
  EXPECT_EQ(didYouMean("gat", {"get", "set"}), "; did you mean 'get'?");
  EXPECT_EQ(didYouMean("fetch", {"get", "set"}), "");
}

}  // namespace klctl

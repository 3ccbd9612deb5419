#include "tools/klctl/values/rights_words.h"

#include <gtest/gtest.h>

namespace klctl {

TEST(RightsWords, ARightHasTheWordOfTheConfiguration) {
  EXPECT_EQ(rightsText(0), "none");
  EXPECT_EQ(rightsText(64), "read");
  EXPECT_EQ(rightsText(64 | 128 | 512 | 1024), "read and change and control and contents");
  EXPECT_EQ(rightsText(128 | 0x40000), "change and 262144");
}

TEST(RightsWords, ASentenceHasTheBits) {
  EXPECT_EQ(rightsPhrase(64), "\"read\" (64)");
  EXPECT_EQ(rightsPhrase(192), "\"read\" and \"change\" (192)");
  EXPECT_EQ(rightsPhrase(0), "no right (0)");
  EXPECT_EQ(rightsPhrase(0x80000000), "a right that only root has");
  EXPECT_EQ(rightsPhrase(0xffffffff), "all rights");
}

}  // namespace klctl

#include "services/loader/config/rights.h"

#include <gtest/gtest.h>

namespace {

using loader::Rights;
using loader::wordsOf;

TEST(WordsOfRights, AreThoseOfTheConfiguration) {
  EXPECT_EQ(wordsOf(Rights::nothing()), "none");
  EXPECT_EQ(wordsOf(Rights::everything()), "all");
  EXPECT_EQ(wordsOf(Rights::of(kl::RIGHT_READ)), "read");
  EXPECT_EQ(wordsOf(Rights::of(64 | 128 | 512 | 1024)), "read and change and control and contents");
}

TEST(WordsOfRights, BitsWithoutAWordAreOneNumber) {
  EXPECT_EQ(wordsOf(0x40040), "read and 0x40000");
  EXPECT_EQ(wordsOf(kl::RIGHT_OF_NOBODY), "0x80000000");
  EXPECT_EQ(wordsOf(0u), "0x0");
  EXPECT_EQ(wordsOf(kl::RIGHTS_ALL), "all");
}

}  // namespace

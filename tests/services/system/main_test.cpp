#include <gtest/gtest.h>

#include "tests/support/process/child.h"

namespace kl_system {

TEST(SystemProgram, SaysWhatItIs) {
  const auto help = kl::test::runProgram({KL_BIN_DIR "/kl-system", "--help"});
  EXPECT_EQ(help.exitStatus, 0);
  EXPECT_NE(help.out.find("Tells other services of the machine"), std::string::npos);
  const auto version = kl::test::runProgram({KL_BIN_DIR "/kl-system", "--version"});
  EXPECT_EQ(version.exitStatus, 0);
  EXPECT_TRUE(version.out.starts_with("kl-system "));
}

TEST(SystemProgram, AMistakeInItsWordsIsStatusTwo) {
  EXPECT_EQ(kl::test::runProgram({KL_BIN_DIR "/kl-system", "--bogus"}).exitStatus, 2);
}

TEST(SystemProgram, WithoutALoaderItEndsWithStatusOne) {
  EXPECT_EQ(kl::test::runProgram({KL_BIN_DIR "/kl-system"}).exitStatus, 1);
}

}  // namespace kl_system

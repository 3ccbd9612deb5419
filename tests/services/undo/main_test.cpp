#include <gtest/gtest.h>

#include "tests/support/process/child.h"

namespace undo {

TEST(UndoProgram, SaysWhatItIs) {
  const auto help = kl::test::runProgram({KL_BIN_DIR "/kl-undo", "--help"});
  EXPECT_EQ(help.exitStatus, 0);
  EXPECT_NE(help.out.find("Keeps what services report of changes"), std::string::npos);
  const auto version = kl::test::runProgram({KL_BIN_DIR "/kl-undo", "--version"});
  EXPECT_EQ(version.exitStatus, 0);
  EXPECT_TRUE(version.out.starts_with("kl-undo "));
}

TEST(UndoProgram, AMistakeInItsWordsIsStatusTwo) {
  EXPECT_EQ(kl::test::runProgram({KL_BIN_DIR "/kl-undo", "--bogus"}).exitStatus, 2);
}

TEST(UndoProgram, WithoutALoaderItEndsWithStatusOne) {
  EXPECT_EQ(kl::test::runProgram({KL_BIN_DIR "/kl-undo"}).exitStatus, 1);
}

}  // namespace undo

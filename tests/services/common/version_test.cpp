#include "services/common/version.h"

#include <gtest/gtest.h>

#include <string>

#include "kl/utilities.h"

namespace {

// "1.0.0" and "1.0.4" of the project are "1.0" and "1.0.4" of a version word.
TEST(VersionWord, IsThatOfTheProject) {
  std::string expected = KL_VERSION;
  if (expected.ends_with(".0")) expected.resize(expected.size() - 2);
  EXPECT_EQ(version2string(common::versionWord()), expected);
}

}  // namespace

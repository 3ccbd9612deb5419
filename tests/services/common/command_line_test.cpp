#include "services/common/command_line.h"

#include <gtest/gtest.h>

#include <vector>

namespace common {
namespace {

struct CommandLineTest : testing::Test {
  std::optional<CommandLine> read(std::vector<const char*> words) {
    words.insert(words.begin(), program.name.c_str());
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    auto line = readCommandLine(program, static_cast<int>(words.size()), words.data(), status, flags);
    out = testing::internal::GetCapturedStdout();
    err = testing::internal::GetCapturedStderr();
    return line;
  }

  Program program{"kl-x", "Does x.", "/etc/kl/kl-x.toml", "the x"};
  std::vector<Flag> flags;
  int status = -1;
  std::string out;
  std::string err;
};

TEST_F(CommandLineTest, WithoutArgumentsTheUsualFileIsRead) {
  const auto line = read({});
  ASSERT_TRUE(line);
  EXPECT_EQ(line->file, "/etc/kl/kl-x.toml");
  EXPECT_FALSE(line->isGiven);
  EXPECT_FALSE(line->checksOnly);
}

TEST_F(CommandLineTest, AFileMayBeNamedAndChecked) {
  const auto line = read({"--config", "/x.toml", "--check"});
  ASSERT_TRUE(line);
  EXPECT_EQ(line->file, "/x.toml");
  EXPECT_TRUE(line->isGiven);
  EXPECT_TRUE(line->checksOnly);
}

TEST_F(CommandLineTest, AProgramHasFlagsOfItsOwn) {
  bool isLoud = false;
  flags = {{"--loud", "Says more", &isLoud}};
  EXPECT_TRUE(read({}));
  EXPECT_FALSE(isLoud);
  EXPECT_TRUE(read({"--loud"}));
  EXPECT_TRUE(isLoud);
  EXPECT_FALSE(read({"--help"}));
  EXPECT_NE(out.find("Says more"), std::string::npos) << out;
}

TEST_F(CommandLineTest, HelpAndVersionEndWithStatus0) {
  EXPECT_FALSE(read({"--help"}));
  EXPECT_EQ(status, 0);
  EXPECT_TRUE(out.starts_with("Does x.\n")) << out;
  EXPECT_NE(out.find("/etc/kl/kl-x.toml"), std::string::npos) << out;
  EXPECT_NE(out.find("1 when the x cannot run"), std::string::npos) << out;
  status = -1;
  EXPECT_FALSE(read({"--version"}));
  EXPECT_EQ(status, 0);
  EXPECT_TRUE(out.starts_with("kl-x ")) << out;
}

TEST_F(CommandLineTest, AMistakeEndsWithStatus2AndALine) {
  for (const std::vector<const char*>& words :
       std::vector<std::vector<const char*>>{{"--nonsense"}, {"--config"}, {"argument"}}) {
    status = -1;
    EXPECT_FALSE(read(words));
    EXPECT_EQ(status, 2);
    EXPECT_NE(err, "");
  }
}

TEST_F(CommandLineTest, AProgramWithoutAConfigurationKnowsNoSuchWords) {
  program.configurationFile.clear();
  EXPECT_FALSE(read({"--config", "/x.toml"}));
  EXPECT_EQ(status, 2);
  EXPECT_FALSE(read({"--check"}));
  EXPECT_EQ(status, 2);
  const auto line = read({});
  ASSERT_TRUE(line);
  EXPECT_FALSE(line->isGiven);
}

TEST(CommandLineFile, OnlyOneThatWasNamedMustExist) {
  Mistakes mistakes;
  EXPECT_EQ((CommandLine{"/nowhere/x.toml", false, false}).readFile(mistakes), "");
  EXPECT_TRUE(mistakes.empty());
  EXPECT_FALSE((CommandLine{"/nowhere/x.toml", true, false}).readFile(mistakes));
  EXPECT_EQ(mistakes.size(), 1u);
}

}  // namespace
}  // namespace common

#include "services/loader/config/command_line.h"

#include <gtest/gtest.h>

#include <vector>

namespace {

using loader::CommandLine;

std::optional<CommandLine> read(std::vector<const char*> arguments, int& status) {
  arguments.insert(arguments.begin(), "kl-loader");
  return loader::readCommandLine(static_cast<int>(arguments.size()), arguments.data(), status);
}

TEST(LoaderCommandLine, WithoutArgumentsTheInstalledFileIsRead) {
  int status = -1;
  const auto line = read({}, status);
  ASSERT_TRUE(line);
  EXPECT_FALSE(line->isGiven);
  EXPECT_FALSE(line->checksOnly);
  EXPECT_TRUE(line->file.ends_with("/kl/kl-loader.toml")) << line->file;
}

TEST(LoaderCommandLine, AFileMayBeNamedAndChecked) {
  int status = -1;
  const auto line = read({"--config", "/x.toml", "--check"}, status);
  ASSERT_TRUE(line);
  EXPECT_EQ(line->file, "/x.toml");
  EXPECT_TRUE(line->isGiven);
  EXPECT_TRUE(line->checksOnly);
}

TEST(LoaderCommandLine, HelpAndVersionEndWithStatus0) {
  int status = -1;
  EXPECT_FALSE(read({"--help"}, status));
  EXPECT_EQ(status, 0);
  status = -1;
  EXPECT_FALSE(read({"--version"}, status));
  EXPECT_EQ(status, 0);
}

TEST(LoaderCommandLine, AMistakeEndsWithStatus2) {
  for (const std::vector<const char*>& arguments :
       std::vector<std::vector<const char*>>{{"--nonsense"}, {"--config"}, {"argument"}}) {
    int status = -1;
    EXPECT_FALSE(read(arguments, status));
    EXPECT_EQ(status, 2);
  }
}

}  // namespace

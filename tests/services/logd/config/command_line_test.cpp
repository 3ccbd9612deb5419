#include "services/logd/config/command_line.h"

#include <gtest/gtest.h>

#include <vector>

namespace logd {
namespace {

std::optional<CommandLine> read(std::vector<const char*> words, int& status) {
  words.insert(words.begin(), "kl-logd");
  return readCommandLine(static_cast<int>(words.size()), words.data(), status);
}

TEST(LogdCommandLine, WithoutWordsTheUsualFileIsMeant) {
  int status = 0;
  const auto line = read({}, status);
  ASSERT_TRUE(line);
  EXPECT_TRUE(line->file.ends_with("/kl/kl-logd.toml"));
  EXPECT_FALSE(line->isGiven);
  EXPECT_FALSE(line->checksOnly);
  EXPECT_EQ(line->syslog, "");
}

TEST(LogdCommandLine, EveryOptionIsRead) {
  int status = 0;
  const auto line = read({"--config", "file", "--check", "--syslog"}, status);
  ASSERT_TRUE(line);
  EXPECT_EQ(line->file, "file");
  EXPECT_TRUE(line->isGiven);
  EXPECT_TRUE(line->checksOnly);
  EXPECT_EQ(line->syslog, "/dev/log");
}

TEST(LogdCommandLine, HelpEndsWithStatus0AndAMistakeWith2) {
  int status = -1;
  EXPECT_FALSE(read({"--help"}, status));
  EXPECT_EQ(status, 0);
  EXPECT_FALSE(read({"--nonsense"}, status));
  EXPECT_EQ(status, 2);
}

}  // namespace
}  // namespace logd

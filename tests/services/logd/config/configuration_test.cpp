#include "services/logd/config/configuration.h"

#include <gtest/gtest.h>

#include "kl/services.h"
#include "tests/services/logd/fixture.h"

namespace logd::test {
namespace {

constexpr char kNames[] = "topics = \"" KL_SOURCE_DIR "/services/logd/topics.list\"\n";

std::string mistakesIn(const std::string& text) {
  common::Mistakes mistakes;
  (void)parseConfiguration(text, "file", mistakes);
  std::string all;
  for (const common::Mistake& m : mistakes) all += m.describe() + "\n";
  return all;
}

TEST(LogdConfiguration, EverythingHasADefault) {
  common::Mistakes mistakes;
  const Configuration c = parseConfiguration("[[file]]\npath = \"/a\"\n", "file", mistakes);
  EXPECT_TRUE(mistakes.empty());
  EXPECT_EQ(c.book.memory, 4u * 1024 * 1024);
  EXPECT_EQ(c.limits.clients, 256u);
  EXPECT_EQ(c.limits.linesPerSecond, 2000u);
  EXPECT_EQ(c.limits.burst, 10000u);
  EXPECT_EQ(c.limits.clientsPerUser, 64u);
  EXPECT_EQ(c.limits.idleSeconds, 600u);
  EXPECT_EQ(c.limits.bytesPerSecond, 1048576u);
  EXPECT_EQ(c.limits.bytesBurst, 8388608u);
  EXPECT_EQ(c.book.syslog, "");
  ASSERT_EQ(c.book.files.size(), 1u);
  EXPECT_EQ(c.book.files[0].mostBytes, 1024u * 1024);
  EXPECT_EQ(c.book.files[0].count, 5u);
  EXPECT_EQ(c.book.files[0].sync, kl::LOG_SYNC_NEVER);
  EXPECT_TRUE(c.book.files[0].topics.empty());
  EXPECT_TRUE(c.book.files[0].isShared);
}

TEST(LogdConfiguration, EveryKeyIsRead) {
  common::Mistakes mistakes;
  const Configuration c = parseConfiguration(std::string("[log]\n") + kNames + R"(
memory = 100000
clients = 3
lines_per_second = 0
burst = 4
clients_per_user = 2
idle_seconds = 30
bytes_per_second = 5000
bytes_burst = 70000
syslog = "/dev/log"
mute = ["debug", 300]
[[file]]
path = "/a"
topics = ["error", 32]
size = 2048
files = 1
shared = false
sync = "line"
[[file]]
path = "/b"
sync = "second"
)",
                                             "file", mistakes);
  for (const common::Mistake& m : mistakes) ADD_FAILURE() << m.describe();
  EXPECT_EQ(c.book.memory, 100000u);
  EXPECT_EQ(c.limits.clients, 3u);
  EXPECT_EQ(c.limits.linesPerSecond, 0u);
  EXPECT_EQ(c.limits.burst, 4u);
  EXPECT_EQ(c.limits.clientsPerUser, 2u);
  EXPECT_EQ(c.limits.idleSeconds, 30u);
  EXPECT_EQ(c.limits.bytesPerSecond, 5000u);
  EXPECT_EQ(c.limits.bytesBurst, 70000u);
  EXPECT_EQ(c.book.syslog, "/dev/log");
  EXPECT_EQ(c.book.muted, (Topics{8, 300}));
  ASSERT_EQ(c.book.files.size(), 2u);
  EXPECT_EQ(c.book.files[0].path, "/a");
  EXPECT_EQ(c.book.files[0].topics, (Topics{4, 32}));
  EXPECT_EQ(c.book.files[0].mostBytes, 2048u);
  EXPECT_EQ(c.book.files[0].count, 1u);
  EXPECT_FALSE(c.book.files[0].isShared);
  EXPECT_EQ(c.book.files[0].sync, kl::LOG_SYNC_LINE);
  EXPECT_EQ(c.book.files[1].sync, kl::LOG_SYNC_SECOND);
}

TEST(LogdConfiguration, AMistakeIsToldWithItsLine) {
  EXPECT_EQ(mistakesIn("[log]\nmemory = 1"),
            "file:2: [log] memory: expected a number from 65536 to 1073741824, found 1\n");
  EXPECT_EQ(mistakesIn("[lag]\n"), "file:1: lag: expected one of the keys file, log\n");
  EXPECT_EQ(mistakesIn("log = 5"), "file:1: log: expected a table, found 5\n");
  EXPECT_EQ(mistakesIn("\n[[file]]\n"), "file:2: [file] path: expected a path that begins with /\n");
  EXPECT_EQ(mistakesIn("[[file]]\npath = \"/a\"\n[[file]]\npath = \"/a\"\n"),
            "file:4: [file] path: expected a path that no other file has\n");
  EXPECT_EQ(mistakesIn("[file]\npath = \"/a\""),
            "file:1: file: expected a table for each file, headed by [[file]], found a table\n");
  EXPECT_EQ(mistakesIn("[log]\nmute = [\"nonsense\"]"),
            "file:2: [log] mute: expected names and numbers of topics, which \"nonsense\" is not\n");
  EXPECT_TRUE(
      mistakesIn("[log]\ntopics = \"/nowhere\"").starts_with("/nowhere: expected a file that can be read"));
  EXPECT_TRUE(mistakesIn("[log").starts_with("file:1: expected TOML: "));
}

TEST(LogdConfiguration, AFileThatIsMissingIsAMistake) {
  common::Mistakes mistakes;
  (void)readConfiguration({"/nowhere/kl-logd.toml", true}, mistakes);
  ASSERT_EQ(mistakes.size(), 1u);
  EXPECT_TRUE(mistakes[0].describe().starts_with("/nowhere/kl-logd.toml: expected a file that can be read"));
}

TEST(LogdConfiguration, TheShippedExampleIsRight) {
  common::Mistakes mistakes;
  const Configuration c = readConfiguration({KL_SOURCE_DIR "/services/logd/kl-logd.toml", true}, mistakes);
  for (const common::Mistake& m : mistakes) ADD_FAILURE() << m.describe();
  EXPECT_EQ(c.book.files.size(), 2u);
}

}  // namespace
}  // namespace logd::test

#include "services/logd/keeping/log_file.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>

#include <vector>

#include "kl/services.h"
#include "tests/services/logd/fixture.h"

namespace logd::test {
namespace {

namespace fs = std::filesystem;

constexpr Nanoseconds kSecond = 1'000'000'000;

struct LogFileTest : testing::Test {
  LogFile make(const FileRule& rule) {
    return LogFile(rule, [this](const std::string& sentence) { news.push_back(sentence); });
  }

  LogFile make(unsigned long long mostBytes, unsigned int count) {
    return make({folder / "log", {}, mostBytes, count, kl::LOG_SYNC_NEVER});
  }

  void write(LogFile& file, const std::string& line) {
    file.add(line + "\n", now);
    file.flush(now);
  }

  // While it is set, a write that makes a file bigger than so many bytes fails.
  void limitFiles(rlim_t bytes) {
    (void)::signal(SIGXFSZ, SIG_IGN);
    rlimit limit{};
    ASSERT_EQ(::getrlimit(RLIMIT_FSIZE, &limit), 0);
    limit.rlim_cur = bytes;
    ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &limit), 0);
  }

  Folder folder;
  std::vector<std::string> news;
  Nanoseconds now = kSecond;
};

TEST_F(LogFileTest, LinesAreAppendedWithOneWrite) {
  LogFile file = make(1000, 2);
  file.add("a\n", now);
  file.add("b\n", now);
  EXPECT_EQ(contentOf(folder / "log"), "");
  file.flush(now);
  EXPECT_EQ(contentOf(folder / "log"), "a\nb\n");
  LogFile again = make(1000, 2);
  write(again, "c");
  EXPECT_EQ(contentOf(folder / "log"), "a\nb\nc\n");
}

TEST_F(LogFileTest, AFolderThatIsMissingIsMade) {
  LogFile file = make({folder / "a/b/log", {}, 1000, 2, kl::LOG_SYNC_NEVER});
  write(file, "a");
  EXPECT_EQ(contentOf(folder / "a/b/log"), "a\n");
}

TEST_F(LogFileTest, AFullFileIsReplacedAndTheOldestGoes) {
  LogFile file = make(10, 3);
  for (const char* line : {"line 1", "line 2", "line 3", "line 4"}) write(file, line);
  EXPECT_EQ(contentOf(folder / "log"), "line 4\n");
  EXPECT_EQ(contentOf(folder / "log.1"), "line 3\n");
  EXPECT_EQ(contentOf(folder / "log.2"), "line 2\n");
  EXPECT_FALSE(fs::exists(folder / "log.3"));
}

TEST_F(LogFileTest, AFileCanBeTheOnlyOne) {
  LogFile file = make(10, 1);
  write(file, "line 1");
  write(file, "line 2");
  EXPECT_EQ(contentOf(folder / "log"), "line 2\n");
  EXPECT_FALSE(fs::exists(folder / "log.1"));
}

TEST_F(LogFileTest, TogetherTheyNeverTakeMoreThanTheirShareOfTheDisk) {
  LogFile file = make(1000, 4);
  for (int i = 0; i < 500; ++i) {
    file.add(std::string(static_cast<std::size_t>(i) % 400, 'x') + "\n", now);
    if (i % 7 == 0) file.flush(now);
    ASSERT_LE(folder.size(), 4000u);
  }
}

TEST_F(LogFileTest, ALineFillsAFileToItsLastByte) {
  LogFile file = make(10, 2);
  write(file, "123456789");
  EXPECT_EQ(contentOf(folder / "log"), "123456789\n");
  write(file, "abcdefghij");
  EXPECT_EQ(contentOf(folder / "log"), "abcdefghi\n") << "a longer one is cut";
  EXPECT_EQ(contentOf(folder / "log.1"), "123456789\n");
}

TEST_F(LogFileTest, WhatAnEarlierConfigurationLeftGoes) {
  for (const char* name : {"log", "log.1", "log.2", "log.3", "log.17"})
    std::ofstream(folder / name) << std::string(500, 'x') << "\n";
  std::ofstream(folder / "log.old") << "kept";
  std::ofstream(folder / "log.01") << "kept";
  LogFile file = make(600, 3);
  write(file, "a");
  EXPECT_TRUE(fs::exists(folder / "log.2"));
  EXPECT_FALSE(fs::exists(folder / "log.3"));
  EXPECT_FALSE(fs::exists(folder / "log.17"));
  EXPECT_TRUE(fs::exists(folder / "log.old"));
  EXPECT_TRUE(fs::exists(folder / "log.01"));
}

TEST_F(LogFileTest, FilesThatAreTooBigForASmallerConfigurationGo) {
  std::ofstream(folder / "log") << std::string(5000, 'x') << "\n";
  std::ofstream(folder / "log.1") << std::string(500, 'x') << "\n";
  LogFile file = make(1000, 3);
  write(file, "a");
  EXPECT_LE(folder.size(), 3000u);
  EXPECT_EQ(contentOf(folder / "log"), "a\n");
}

TEST_F(LogFileTest, ALineThatAKilledServiceLeftUnfinishedIsEnded) {
  std::ofstream(folder / "log") << "whole\nhal";
  LogFile file = make(1000, 2);
  write(file, "next");
  EXPECT_EQ(contentOf(folder / "log"), "whole\nhal\nnext\n");
}

TEST_F(LogFileTest, AReopenedFileIsMadeAnew) {
  LogFile file = make(1000, 2);
  write(file, "a");
  fs::rename(folder / "log", folder / "moved");
  write(file, "b");
  file.reopen(now);
  write(file, "c");
  EXPECT_EQ(contentOf(folder / "moved"), "a\nb\n");
  EXPECT_EQ(contentOf(folder / "log"), "c\n");
}

TEST_F(LogFileTest, AFullDiskStopsItWithOneSentenceAndItGoesOnByItself) {
  LogFile file = make(1000, 2);
  write(file, "before");
  limitFiles(10);
  write(file, "too much");
  write(file, "not tried");
  EXPECT_EQ(news, std::vector<std::string>{folder /
                                           "log: File too large: lines are not written until they can be"});
  EXPECT_EQ(file.failure(), "File too large");
  EXPECT_EQ(contentOf(folder / "log"), "before\n") << "nothing half";
  now += kSecond;
  write(file, "tried in vain");
  EXPECT_EQ(news.size(), 1u);
  limitFiles(RLIM_INFINITY);
  write(file, "too soon");
  EXPECT_EQ(contentOf(folder / "log"), "before\n");
  now += kSecond;
  write(file, "after");
  EXPECT_EQ(contentOf(folder / "log"), "before\nafter\n");
  ASSERT_EQ(news.size(), 2u);
  EXPECT_EQ(news[1], folder / "log: lines are written again, 4 were not");
  EXPECT_EQ(file.lost(), 4u);
  EXPECT_EQ(file.failure(), "");
}

TEST_F(LogFileTest, WhatFitsOfSeveralLinesIsWrittenWhole) {
  LogFile file = make(1000, 2);
  limitFiles(8);
  for (const char* line : {"abc\n", "de\n", "fgh\n", "i\n"}) file.add(line, now);
  file.flush(now);
  limitFiles(RLIM_INFINITY);
  EXPECT_EQ(contentOf(folder / "log"), "abc\nde\n");
  EXPECT_EQ(file.lost(), 2u);
}

TEST_F(LogFileTest, ADeviceIsWrittenToAndNeverReplaced) {
  LogFile file = make({"/dev/full", {}, 1024, 2, kl::LOG_SYNC_LINE});
  write(file, "a");
  EXPECT_EQ(news.size(), 1u);
  EXPECT_EQ(news[0], "/dev/full: No space left on device: lines are not written until they can be");
  LogFile sink = make({"/dev/null", {}, 1024, 2, kl::LOG_SYNC_LINE});
  for (int i = 0; i < 100; ++i) write(sink, std::string(500, 'x'));
  EXPECT_EQ(news.size(), 1u);
  EXPECT_TRUE(fs::is_character_file("/dev/null"));
}

constexpr unsigned int kFlooder = 4711;
constexpr unsigned int kQuiet = 4712;

TEST_F(LogFileTest, AUsersFloodReplacesNoLinesOfOthers) {
  LogFile file = make(10000, 2);
  file.add("root's\n", now);
  file.add("quiet\n", now, kQuiet);
  for (int i = 0; i < 10000; ++i) {
    file.add("flood\n", now, kFlooder);
    file.flush(now);
  }
  write(file, "root's last");
  file.add("quiet again\n", now, kQuiet);
  file.flush(now);
  const std::string all = contentOf(folder / "log");
  EXPECT_TRUE(all.starts_with("root's\nquiet\nflood\n"));
  EXPECT_TRUE(all.ends_with("flood\nroot's last\nquiet again\n")) << "what is left is for others";
  EXPECT_FALSE(fs::exists(folder / "log.1"));
  EXPECT_EQ(news,
            std::vector<std::string>{folder / "log: the user 4711 has had its part: further lines of it are "
                                              "left out until the file is replaced"});
  EXPECT_GT(file.lost(), 9000u);
}

TEST_F(LogFileTest, ALongLineOfAUserWithoutAPartReplacesNothing) {
  LogFile file = make(1024, 2);
  write(file, "root's");
  for (int i = 0; i < 10; ++i) file.add(std::string(5000, 'x') + "\n", now, kFlooder);
  file.flush(now);
  EXPECT_EQ(contentOf(folder / "log"), "root's\n");
  EXPECT_FALSE(fs::exists(folder / "log.1"));
}

TEST_F(LogFileTest, TheNextFileHasAPartForTheUserAgainAndSaysHowManyLinesAreMissing) {
  LogFile file = make(1000, 2);
  for (int i = 0; i < 100; ++i) file.add("123456789\n", now, kFlooder);
  while (!fs::exists(folder / "log.1")) write(file, "root's");
  file.add("again\n", now, kFlooder);
  file.flush(now);
  EXPECT_TRUE(contentOf(folder / "log").ends_with("again\n"));
  ASSERT_EQ(news.size(), 2u);
  EXPECT_EQ(news[1], folder / "log: 62 lines of users who had had their part were left out");
}

TEST_F(LogFileTest, AFileThatIsADayOldIsReplacedForAUserWithoutAPart) {
  LogFile file = make(1000, 2);
  for (int i = 0; i < 100; ++i) file.add("123456789\n", now, kFlooder);
  now += 24 * 3600 * kSecond;
  file.add("again\n", now, kFlooder);
  file.flush(now);
  EXPECT_EQ(contentOf(folder / "log"), "again\n");
  EXPECT_EQ(contentOf(folder / "log.1").size(), 380u);
}

TEST_F(LogFileTest, AFileThatIsNotSharedIsWhoevers) {
  LogFile file = make({folder / "log", {}, 1000, 2, kl::LOG_SYNC_NEVER, false});
  for (int i = 0; i < 150; ++i) file.add("123456789\n", now, kFlooder);
  file.flush(now);
  EXPECT_TRUE(fs::exists(folder / "log.1"));
  EXPECT_EQ(file.lost(), 0u);
}

TEST_F(LogFileTest, AFileTakesItsTopicsOrAll) {
  EXPECT_TRUE((FileRule{"/a", {}}).takes({}));
  EXPECT_TRUE((FileRule{"/a", {4, 5}}).takes({32, 5}));
  EXPECT_FALSE((FileRule{"/a", {4, 5}}).takes({32}));
}

}  // namespace
}  // namespace logd::test

#include "services/logd/keeping/log_book.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>

#include "kl/services.h"
#include "tests/services/logd/fixture.h"

namespace logd::test {
namespace {

struct LogBookTest : testing::Test {
  void addFile(const std::string& path, const Topics& topics = {}) {
    FileRule rule;
    rule.path = path;
    rule.topics = topics;
    configuration.files.push_back(rule);
  }
  Folder folder;
  BookRules configuration;
};

std::string lastTextOf(const LogBook& book) { return book.ring()[book.ring().end() - 1].text; }

TEST_F(LogBookTest, ALineGoesToMemoryAndToTheFilesThatTakeIt) {
  addFile(folder / "all");
  addFile(folder / "errors", {4});
  LogBook book(configuration);
  book.add(lineOf("good", {7}, 0), 1);
  book.add(lineOf("bad", {4}, 0), 1);
  book.flush(1);
  EXPECT_EQ(book.ring().end(), 2u);
  EXPECT_EQ(contentOf(folder / "all"),
            "1970-01-01T00:00:00.000000Z p[7] 7: good\n1970-01-01T00:00:00.000000Z p[7] 4: bad\n");
  EXPECT_EQ(contentOf(folder / "errors"), "1970-01-01T00:00:00.000000Z p[7] 4: bad\n");
}

TEST_F(LogBookTest, ATextThatIsTooLongIsCutAndSaysSo) {
  LogBook book(configuration);
  book.add(lineOf(std::string(40000, 'x')), 1);
  const std::string text = lastTextOf(book);
  EXPECT_EQ(text.size(), 32768u + 17);
  EXPECT_TRUE(text.ends_with("x [7232 bytes cut]")) << text.substr(32760);
}

TEST_F(LogBookTest, WhatTheServiceSaysIsALineOfItsOwn) {
  LogBook book(configuration);
  book.say(kl::TOPIC_WARNING, "careful");
  EXPECT_EQ(book.ring().end(), 0u);
  book.flush(1);
  ASSERT_EQ(book.ring().end(), 1u);
  const Line& line = book.ring()[0];
  EXPECT_EQ(line.text, "careful");
  EXPECT_EQ(line.origin->process, "kl-logd");
  EXPECT_EQ(line.origin->pid, static_cast<unsigned int>(::getpid()));
  EXPECT_EQ(line.origin->source, 0u);
  EXPECT_EQ(line.origin->topics, (Topics{kl::TOPIC_WARNING, kl::TOPIC_LOGD}));
}

TEST_F(LogBookTest, AFullDiskIsToldOnceAndStopsNeitherMemoryNorOtherFiles) {
  addFile("/dev/full");
  addFile(folder / "all");
  LogBook book(configuration);
  for (int i = 0; i < 10; ++i) {
    book.add(lineOf("line", {}, 0), 1);
    book.flush(1);
  }
  EXPECT_EQ(book.ring().end(), 11u);
  EXPECT_EQ(book.ring()[1].text,
            "/dev/full: No space left on device: lines are not written until they can be");
  const std::string written = contentOf(folder / "all");
  EXPECT_EQ(std::count(written.begin(), written.end(), '\n'), 11);
}

TEST_F(LogBookTest, WhatTheMachinesLogDoesNotTakeIsToldEachSecond) {
  configuration.syslog = folder / "nobody";
  LogBook book(configuration);
  book.add(lineOf("a"), 1);
  book.add(lineOf("b"), 1);
  book.tick(1);
  EXPECT_EQ(lastTextOf(book), "the machine's own log did not take 2 lines");
}

TEST_F(LogBookTest, ALossOfTheMachinesOwnLogIsToldOnceAndNotToIt) {
  configuration.syslog = folder / "nobody";
  LogBook book(configuration);
  book.add(lineOf("a"), 1);
  for (Nanoseconds second = 1; second < 5; ++second) book.tick(second);
  EXPECT_EQ(book.ring().end(), 2u);
}

TEST_F(LogBookTest, AUsersFloodIsLeftOutOfAFileAndTheLinesAboutThatAreThere) {
  addFile(folder / "all");
  configuration.files[0].mostBytes = 2000;
  LogBook book(configuration);
  for (int i = 0; i < 100; ++i) {
    book.add(lineOfUser(4711, "flood"), 1);
    book.add(lineOfUser(::geteuid(), "ours"), 1);
    book.flush(1);
  }
  const std::string all = contentOf(folder / "all.1") + contentOf(folder / "all");
  EXPECT_NE(all.find(": the user 4711 has had its part"), std::string::npos);
  EXPECT_NE(all.find(" lines of users who had had their part were left out"), std::string::npos);
  EXPECT_EQ(book.files().front().rule().mostBytes, 2000u);
  EXPECT_GT(book.files().front().lost(), 0u);
}

TEST_F(LogBookTest, TheLoadersLinesAreTheSystemsWhoeverItRunsAs) {
  configuration.memory = 65536;
  configuration.system = SystemUsers(4711);
  LogBook book(configuration);
  book.add(lineOfUser(4711, "the loader's"), 1);
  for (int i = 0; i < 2000; ++i) book.add(lineOf(std::string(100, 'x')), 1);
  EXPECT_FALSE(book.ring().find(1)) << "root and the loader have one part";
  for (int i = 0; i < 100; ++i) book.add(lineOfUser(4711, "the loader's"), 1);
  for (int i = 0; i < 2000; ++i) book.add(lineOfUser(4712, std::string(100, 'x')), 1);
  EXPECT_TRUE(book.ring().find(2101));
}

TEST_F(LogBookTest, AReaderHearsOfEveryLine) {
  int count = 0;
  LogBook book(configuration);
  book.setOnNews([&] { ++count; });
  book.add(lineOf("a"), 1);
  book.say(kl::TOPIC_INFO, "b");
  book.flush(1);
  EXPECT_EQ(count, 2);
}

TEST_F(LogBookTest, TheConfigurationsRulesHoldFromTheStart) {
  configuration.muted = {8};
  EXPECT_TRUE(LogBook(configuration).mutes().isMuted(8));
}

TEST_F(LogBookTest, TheClockThatRatesAreMeasuredByGoesForward) {
  const Nanoseconds before = steadyTime();
  EXPECT_GE(steadyTime(), before);
  EXPECT_GT(timeOfDay(), 1'700'000'000'000'000'000ull);
}

}  // namespace
}  // namespace logd::test

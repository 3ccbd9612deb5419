#include "services/loader/admission/id_counter.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

namespace {

using loader::IdCounter;

class IdCounterTest : public testing::Test {
 protected:
  void SetUp() override { ASSERT_NE(::mkdtemp(folder_), nullptr); }
  void TearDown() override { std::filesystem::remove_all(folder_); }

  std::string file() const { return std::string(folder_) + "/next-id"; }
  void write(const std::string& text) { std::ofstream(file()) << text; }
  std::string content() const {
    std::ostringstream text;
    text << std::ifstream(file()).rdbuf();
    return text.str();
  }

  // Picks all ids from this one on; the first that did not come.
  static unsigned int spend(IdCounter& counter, unsigned int id) {
    while (id <= IdCounter::kLast && counter.next() == id) ++id;
    return id;
  }

  char folder_[32] = "/tmp/id_counter_XXXXXX";
  loader::Log log_{-1};
};

TEST_F(IdCounterTest, CountsUpwardFromTheFirstPickedId) {
  IdCounter counter(file(), log_);
  EXPECT_EQ(counter.next(), 0x10000u);
  EXPECT_EQ(counter.next(), 0x10001u);
}

TEST_F(IdCounterTest, ARestartNeverGivesAnIdAgain) {
  unsigned int highest = 0;
  for (int start = 0; start < 5; ++start) {
    IdCounter counter(file(), log_);
    const unsigned int id = counter.next();
    EXPECT_GT(id, highest);
    highest = id;
  }
}

TEST_F(IdCounterTest, TheFileIsAheadOfWhatWasGivenOut) {
  IdCounter counter(file(), log_);
  for (int i = 0; i < 3000; ++i) {
    const unsigned int id = counter.next();
    EXPECT_LT(id, std::stoul(content()));
  }
}

TEST_F(IdCounterTest, BehindTheLastIdComesTheFirst) {
  write(std::to_string(IdCounter::kLast) + "\n");
  IdCounter counter(file(), log_);
  EXPECT_EQ(counter.next(), IdCounter::kLast);
  EXPECT_EQ(content(), std::to_string(IdCounter::kFirst) + "\n");
  EXPECT_EQ(counter.next(), IdCounter::kFirst);
}

TEST_F(IdCounterTest, AnOrderlyEndGivesBackWhatIsLeft) {
  for (unsigned int start = 0; start < 300; ++start)
    EXPECT_EQ(IdCounter(file(), log_).next(), IdCounter::kFirst + start);
}

TEST_F(IdCounterTest, ALoaderThatWasKilledCostsItsBlock) {
  IdCounter killed(file(), log_);
  EXPECT_EQ(killed.next(), IdCounter::kFirst);
  EXPECT_EQ(IdCounter(file(), log_).next(), IdCounter::kFirst + IdCounter::kBlock);
}

// All ids but those of a block in the time of this test.
TEST_F(IdCounterTest, NoIdComesAgainWithinADay) {
  unsigned int now = 1000;
  IdCounter counter(file(), log_, [&] { return now; });
  ASSERT_EQ(spend(counter, IdCounter::kFirst), IdCounter::kLast + 1);
  EXPECT_EQ(counter.next(), 0u);
  now += IdCounter::kRestSeconds - 1;
  EXPECT_EQ(counter.next(), 0u);
  EXPECT_EQ(counter.next(true), IdCounter::kFirst);  // for those to whom it does not matter
  EXPECT_EQ(counter.next(), 0u);
  now += 1;
  EXPECT_EQ(counter.next(), IdCounter::kFirst + 1);
}

TEST_F(IdCounterTest, AnIdRestsFromItsOwnUseNotFromThatOfItsBlock) {
  write(std::to_string(IdCounter::kFirst + IdCounter::kBlock - 1) + "\n");
  unsigned int now = 0;
  IdCounter counter(file(), log_, [&] { return now; });
  now = 500;  // the only id of the block, long after its beginning
  EXPECT_EQ(counter.next(), IdCounter::kFirst + IdCounter::kBlock - 1);
  ASSERT_EQ(spend(counter, IdCounter::kFirst + IdCounter::kBlock), IdCounter::kLast + 1);
  now = IdCounter::kRestSeconds + 499;
  EXPECT_EQ(counter.next(), 0u);
  now = IdCounter::kRestSeconds + 500;
  EXPECT_EQ(counter.next(), IdCounter::kFirst);
}

TEST_F(IdCounterTest, AFileThatIsNoCounterBeginsAnew) {
  for (const char* text : {"", "x", "12", "99999999999999"}) {
    write(text);
    EXPECT_EQ(IdCounter(file(), log_).next(), IdCounter::kFirst) << text;
  }
}

TEST_F(IdCounterTest, CountingGoesOnWithoutAFile) {
  IdCounter counter("/nowhere/next-id", log_);
  EXPECT_EQ(counter.next(), 0x10000u);
  EXPECT_EQ(counter.next(), 0x10001u);
}

}  // namespace

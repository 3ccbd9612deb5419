#include "services/common/log_records.h"

#include <gtest/gtest.h>

#include <array>
#include <fstream>
#include <iterator>
#include <sstream>
#include <vector>

#include "tests/support/hex.h"

namespace {

std::vector<unsigned char> bytesOf(const std::string& record) { return {record.begin(), record.end()}; }

bool isPairOfDigits(const std::string& word) {
  return word.size() == 2 && word.find_first_not_of("0123456789abcdef") == std::string::npos;
}

// The three examples of the page: the pairs of digits at the beginning of the lines in its blocks.
std::vector<std::vector<unsigned char>> examplesOfThePage() {
  std::ifstream in(KL_SOURCE_DIR "/docs/log.md");
  std::vector<std::string> examples;
  bool isInBlock = false;
  for (std::string line; std::getline(in, line) && examples.size() <= 3;) {
    if (line.starts_with("```")) {
      isInBlock = !isInBlock;
      if (isInBlock) examples.emplace_back();
      continue;
    }
    std::istringstream words(line);
    for (std::string word; isInBlock && words >> word && isPairOfDigits(word);) examples.back() += word;
  }
  examples.resize(3);
  std::vector<std::vector<unsigned char>> records;
  for (const std::string& digits : examples) records.push_back(kl::test::bytes(digits));
  return records;
}

TEST(CompanionLogRecords, AreThoseOfTheDocument) {
  const std::array<unsigned short, 2> topics{16, 4};
  const std::vector<std::vector<unsigned char>> examples = examplesOfThePage();
  EXPECT_EQ(bytesOf(common::registrationRecord(5, topics)), examples[0]);
  EXPECT_EQ(bytesOf(common::lineRecord(5, "abc")), examples[1]);
  EXPECT_EQ(bytesOf(common::muteRecord(5, true)), examples[2]);
}

TEST(CompanionLogRecords, ARegistrationIsReadAsItWasWritten) {
  const std::array<unsigned short, 2> topics{0x1234, 0xfedc};
  const auto record = bytesOf(common::registrationRecord(0x8001, topics));
  EXPECT_EQ(common::lengthOf(record.data()), record.size());
  EXPECT_EQ(common::sourceOfLine(record.data()), 0U);
  EXPECT_EQ(common::kindOfControl(record.data()), 0U);
  EXPECT_EQ(common::sourceOfRegistration(record.data()), 0x8001U);
  EXPECT_EQ(common::topicOf(record.data(), 0), 0x1234U);
  EXPECT_EQ(common::topicOf(record.data(), 1), 0xfedcU);
}

TEST(CompanionLogRecords, ALineIsReadAsItWasWritten) {
  const auto record = bytesOf(common::lineRecord(0x8001, std::string(300, 'x')));
  EXPECT_EQ(common::lengthOf(record.data()), 304U);
  EXPECT_EQ(record.size(), 304U);
  EXPECT_EQ(common::sourceOfLine(record.data()), 0x8001U);
}

TEST(CompanionLogRecords, AMuteIsReadAsItWasWritten) {
  for (const bool mutes : {true, false}) {
    const auto bytes = bytesOf(common::muteRecord(0x8001, mutes));
    const common::MuteRecord record = common::readMuteRecord(bytes.data());
    EXPECT_EQ(record.length, common::kMuteRecordBytes);
    EXPECT_EQ(record.source, 0x8001U);
    EXPECT_EQ(record.mutes, mutes);
  }
}

// Any number but 0 mutes.
TEST(CompanionLogRecords, AMuteOfAnotherNumberMutes) {
  const std::array<unsigned char, 6> bytes{0, 6, 0, 5, 1, 0};
  EXPECT_TRUE(common::readMuteRecord(bytes.data()).mutes);
}

}  // namespace

// The examples of docs/log.md, as they stand there.

#include <gtest/gtest.h>

#include <fstream>
#include <iterator>
#include <sstream>

#include "log/log_records.h"
#include "tests/support/hex.h"

namespace kl::logging {
namespace {

bool isHexPair(const std::string& word) {
  return word.size() == 2 && word.find_first_not_of("0123456789abcdef") == std::string::npos;
}

// The bytes of the page's example number `index`: the pairs of digits at the beginning of its lines.
std::vector<unsigned char> example(unsigned int index) {
  std::ifstream in(KL_SOURCE_DIR "/docs/log.md");
  const std::string text(std::istreambuf_iterator<char>(in), {});
  std::size_t at = 0;
  for (unsigned int fence = 0; fence <= 2 * index; ++fence) at = text.find("```\n", at) + 4;
  std::istringstream lines(text.substr(at, text.find("```", at) - at));
  std::string digits;
  for (std::string line; std::getline(lines, line);) {
    std::istringstream words(line);
    for (std::string word; words >> word && isHexPair(word);) digits += word;
  }
  return test::bytes(digits);
}

TEST(LogPage, TheFirstExampleIsARegistration) {
  std::vector<unsigned char> record(registrationBytes(2));
  const std::vector<unsigned short> topics{16, 4};
  putRegistration(record.data(), 5, topics);
  EXPECT_EQ(example(0), record);
}

TEST(LogPage, TheSecondExampleIsALine) {
  std::vector<unsigned char> record(kLineHeadBytes);
  putLineHead(record.data(), 5, 3);
  for (const char c : {'a', 'b', 'c'}) record.push_back(static_cast<unsigned char>(c));
  EXPECT_EQ(example(1), record);
}

TEST(LogPage, TheThirdExampleMutes) {
  const std::vector<unsigned char> bytes = example(2);
  ASSERT_EQ(bytes.size(), kMuteRecordBytes);
  const MuteRecord record = readMuteRecord(bytes.data());
  EXPECT_EQ(record.length, kMuteRecordBytes);
  EXPECT_EQ(record.sourceId, 5u);
  EXPECT_TRUE(record.mutes);
}

}  // namespace
}  // namespace kl::logging

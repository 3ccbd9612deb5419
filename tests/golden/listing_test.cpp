// The files are what their page lists.

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <set>
#include <sstream>

#include "tests/golden/golden.h"
#include "tests/support/hex.h"

namespace golden {
namespace {

// One word of a listing: pairs of digits, or one pair and how often it is there ("78x256").
void appendWord(Bytes& to, const std::string& word) {
  const std::size_t times = word.find('x');
  const Bytes bytes = kl::test::bytes(word.substr(0, times));
  for (int n = times == std::string::npos ? 1 : std::stoi(word.substr(times + 1)); n > 0; --n)
    to.insert(to.end(), bytes.begin(), bytes.end());
}

void appendLine(Bytes& to, const std::string& line) {
  std::istringstream words(line.substr(0, line.find('#')));
  for (std::string word; words >> word;) appendWord(to, word);
}

std::map<std::string, Bytes> listings() {
  std::ifstream page(KL_SOURCE_DIR "/tests/golden/README.md");
  std::map<std::string, Bytes> found;
  std::string name;
  bool inListing = false;
  for (std::string line; std::getline(page, line);) {
    if (line.rfind("### ", 0) == 0) name = line.substr(4);
    else if (line == "```") inListing = !inListing;
    else if (inListing) appendLine(found[name], line);
  }
  return found;
}

std::set<std::string> binaryFiles() {
  std::set<std::string> names;
  for (const auto& entry : std::filesystem::directory_iterator(KL_SOURCE_DIR "/tests/golden")) {
    const std::string kind = entry.path().extension();
    if (kind != ".cpp" && kind != ".h" && kind != ".md" && kind != ".txt")
      names.insert(entry.path().filename());
  }
  return names;
}

TEST(GoldenFiles, AreWhatTheirPageLists) {
  std::set<std::string> listed;
  for (const auto& [name, bytes] : listings()) {
    listed.insert(name);
    EXPECT_EQ(kl::test::hex(file(name)), kl::test::hex(bytes)) << name;
  }
  EXPECT_EQ(listed, binaryFiles());
}

}  // namespace
}  // namespace golden

// The example of docs/undo.md, as it stands there.

#include <gtest/gtest.h>

#include <fstream>
#include <iterator>
#include <sstream>

#include "services/undo/reports.h"
#include "tests/services/undo/fixture.h"
#include "tests/support/hex.h"

namespace undo {
namespace {

// The pairs of digits at the beginning of the lines of the page's last block.
std::vector<unsigned char> example() {
  std::ifstream in(KL_SOURCE_DIR "/docs/undo.md");
  const std::string page{std::istreambuf_iterator<char>(in), {}};
  const std::size_t end = page.rfind("```");
  const std::size_t begin = page.rfind("```\n", end - 1) + 4;
  std::istringstream lines(page.substr(begin, end - begin));
  std::string digits;
  for (std::string line; std::getline(lines, line);) {
    std::istringstream words(line);
    for (std::string word; words >> word && word.find_first_not_of("0123456789abcdef") == std::string::npos;)
      digits += word;
  }
  return kl::test::bytes(digits);
}

}  // namespace

TEST(UndoPage, TheUndoMessageIsAsShown) {
  kl::message reported = report("x");
  reported.insert(kl::SYS_FROM, {500, 3});
  kl::message record = recordFrom(reported, 0);
  record.insert(kl::STD_ID, 9);
  kl::message asker;
  asker.insert(kl::SYS_USER, "bob");
  asker.insert(kl::SYS_POLICY, 192);
  EXPECT_EQ(kl::test::hex(example()), kl::test::hex(flat(undoMessage(record, asker))));
}

}  // namespace undo

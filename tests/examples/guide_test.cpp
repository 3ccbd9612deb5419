// The guide, its neighbours and the README quote the examples and tests, so that each listing is compiled and run; a
// quotation that is no longer true must not stay.

#include <gtest/gtest.h>

#include <fstream>
#include <sstream>

namespace {

std::string textOf(const std::string& file) {
  std::ostringstream text;
  text << std::ifstream(std::string(KL_SOURCE_DIR) + "/" + file).rdbuf();
  return text.str();
}

struct Quotation {
  std::string file;
  std::string text;
};

// The blocks that name their file behind the language: "```cpp examples/netif.cpp".
std::vector<Quotation> quotationsIn(const std::string& guide) {
  static constexpr char kFence[] = "```";
  std::vector<Quotation> quotations;
  std::istringstream lines(textOf(guide));
  for (std::string line; std::getline(lines, line);) {
    const std::size_t blank = line.find(' ');
    if (!line.starts_with(kFence) || blank == std::string::npos) continue;
    Quotation quotation{line.substr(blank + 1), ""};
    while (std::getline(lines, line) && line != kFence) quotation.text += line + "\n";
    quotations.push_back(quotation);
  }
  return quotations;
}

void expectTrueQuotations(const std::string& document, std::size_t atLeast) {
  const auto quotations = quotationsIn(document);
  EXPECT_GE(quotations.size(), atLeast);
  for (const Quotation& quotation : quotations)
    EXPECT_NE(textOf(quotation.file).find("\n" + quotation.text), std::string::npos)
        << quotation.file << " has no\n"
        << quotation.text;
}

// A listing in C++ that names no file is compiled by nobody.
void expectNoLooseListings(const std::string& document) {
  std::istringstream lines(textOf(document));
  unsigned int number = 0;
  for (std::string line; std::getline(lines, line);)
    EXPECT_NE((++number, line), "```cpp") << document << ":" << number;
  EXPECT_GT(number, 0u) << "there is no " << document;
}

}  // namespace

TEST(Guide, QuotesTheExamplesAsTheyAre) { expectTrueQuotations("docs/guide.md", 40); }

TEST(Guide, EachListingIsCompiledAndRun) {
  for (const char* document : {"docs/guide.md", "docs/descriptions.md", "docs/coming-from.md", "README.md"})
    expectNoLooseListings(document);
}

TEST(DescriptionsPage, QuotesTheExampleAsItIs) { expectTrueQuotations("docs/descriptions.md", 2); }

TEST(ComingFromPage, QuotesTheExamplesAsTheyAre) { expectTrueQuotations("docs/coming-from.md", 3); }

TEST(MessagePage, QuotesTheExampleAsItIs) { expectTrueQuotations("docs/message.md", 2); }

TEST(Readme, ShowsTheSmallestServiceAsItIs) { expectTrueQuotations("README.md", 1); }

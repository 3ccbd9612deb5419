// The page for the hours in which something has gone wrong: each of its commands is run after the fault that it is about,
// and prints what the page says.  Numbers differ from night to night, so any of them stands for any other; a line "..."
// stands for some lines.

#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <sstream>
#include <string>
#include <vector>

#include "kl/utilities.h"
#include "netif.kl.h"
#include "tests/services/loader/supervision.h"
#include "tests/support/doubles/loader_process.h"
#include "tests/support/page.h"

namespace {

struct Listing {
  std::string command;
  std::vector<std::string> output;
};

// The commands of a section, each with what it prints.
std::vector<Listing> listingsIn(const std::string& page, const std::string& section) {
  std::vector<Listing> listings;
  std::istringstream lines(page.substr(std::min(page.find("\n## " + section + "\n"), page.size() - 1) + 1));
  bool isListing = false;
  for (std::string line; std::getline(lines, line) && (listings.empty() || !line.starts_with("## "));) {
    if (line.starts_with("```")) isListing = !isListing;
    else if (isListing && line.starts_with("$ ")) listings.push_back({line.substr(2), {}});
    else if (isListing && !listings.empty()) listings.back().output.push_back(line);
  }
  return listings;
}

// One "#" for each word with digits in it, one space between words, and no folder before a file.
std::string shapeOf(const std::string& line) {
  std::istringstream words(line);
  std::string shape;
  for (std::string word; words >> word;) {
    word = word.substr(word.rfind('/') + 1);
    const bool hasDigit = word.find_first_of("0123456789") != std::string::npos;
    const bool isPlace = word.find(".cpp:") != std::string::npos;
    shape += (shape.empty() ? "" : " ") + (isPlace ? word.substr(0, word.find(':')) : hasDigit ? "#" : word);
  }
  return shape;
}

bool fits(const std::vector<std::string>& expected, std::size_t e, const std::vector<std::string>& found,
          std::size_t f) {
  if (e == expected.size()) return f == found.size();
  if (expected[e] == "...")
    return fits(expected, e + 1, found, f) || (f < found.size() && fits(expected, e, found, f + 1));
  return f < found.size() && shapeOf(expected[e]) == shapeOf(found[f]) && fits(expected, e + 1, found, f + 1);
}

std::string outputOf(const std::string& command) {
  std::string text;
  std::FILE* const pipe = ::popen(("PATH=" KL_BIN_DIR ":$PATH; " + command + " 2>&1").c_str(), "r");
  char bytes[4096];
  for (std::size_t n = 0; (n = std::fread(bytes, 1, sizeof bytes, pipe)) > 0;) text.append(bytes, n);
  EXPECT_EQ(::pclose(pipe), 0) << command << "\n" << text;
  return text;
}

void expectAsWritten(const Listing& listing) {
  const std::string text = outputOf(listing.command);
  std::vector<std::string> found;
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);) found.push_back(line);
  EXPECT_TRUE(fits(listing.output, 0, found, 0)) << "$ " << listing.command << "\n" << text;
}

}  // namespace

class Night : public kl::test::Supervision {};

TEST_F(Night, AServiceCrashes) {
  std::error_code ignored;
  std::filesystem::remove_all(kl::underRoot("/kelo/loader/crashes"), ignored);
  const kl::test::LoaderProcess loader("[[service]]\nname = \"netif\"\ncommand = [\"" KL_BIN_DIR
                                       "/netif\"]\n");
  connect();
  ASSERT_TRUE(reachesState(netif::SERVICE, kl::SVC_STATE_RUNNING));
  ASSERT_EQ(::kill(static_cast<pid_t>(row(netif::SERVICE).get(kl::SVC_PID, 0)), SIGSEGV), 0);
  ASSERT_TRUE(loader.logs("; crash 1\n")) << loader.log();
  ASSERT_TRUE(reachesState(netif::SERVICE, kl::SVC_STATE_RUNNING));
  const auto listings = listingsIn(kl::test::pageOf("docs/night.md"), "A service crashes");
  ASSERT_GE(listings.size(), 3u);
  for (const Listing& listing : listings) expectAsWritten(listing);
}

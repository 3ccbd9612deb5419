// The page for the hours in which something has gone wrong: each of its commands is run after the fault that it is about,
// and prints what the page says.  Numbers differ from night to night, so any of them stands for any other; a line "..."
// stands for some lines.

#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "kl/store.h"
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

// The system's folders are where the test has its own.
std::string outputOf(std::string command, int status) {
  if (const std::size_t at = command.find(" /kelo/"); at != std::string::npos)
    command.replace(at + 1, 5, kl::underRoot("/kelo"));
  std::string text;
  std::FILE* const pipe = ::popen(("PATH=" KL_BIN_DIR ":$PATH; " + command + " 2>&1").c_str(), "r");
  char bytes[4096];
  for (std::size_t n = 0; (n = std::fread(bytes, 1, sizeof bytes, pipe)) > 0;) text.append(bytes, n);
  EXPECT_EQ(WEXITSTATUS(::pclose(pipe)), status) << command << "\n" << text;
  return text;
}

void expectAsWritten(const Listing& listing, int status) {
  const std::string text = outputOf(listing.command, status);
  std::vector<std::string> found;
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);) found.push_back(line);
  EXPECT_TRUE(fits(listing.output, 0, found, 0)) << "$ " << listing.command << "\n" << text;
}

// Each command of a section in turn, and the status that each ends with.
void expectSection(const std::string& section, const std::vector<int>& statuses) {
  const auto listings = listingsIn(kl::test::pageOf("docs/night.md"), section);
  ASSERT_EQ(listings.size(), statuses.size()) << section;
  for (std::size_t i = 0; i < listings.size(); ++i) expectAsWritten(listings[i], statuses[i]);
}

const std::string kNetif = "[[service]]\nname = \"netif\"\ncommand = [\"" KL_BIN_DIR "/netif\"]\n";

std::string failing(const std::string& name, unsigned int id) {
  return "[[service]]\nname = \"" + name + "\"\nid = " + std::to_string(id) +
         "\ncommand = [\"/bin/false\"]\n";
}

}  // namespace

class Night : public kl::test::Supervision {
 protected:
  // Until it has ended often enough that it is found between two starts.
  void awaitFailure(const kl::test::LoaderProcess& loader) {
    ASSERT_TRUE(loader.logs("): ended with status 1; starts again in 1.6 s\n")) << loader.log();
    connect();
  }
};

// A stack is walked up to the end of the page in which the Runner was made.  Where that is near, main() is not shown, and
// the night is tried once more.
TEST_F(Night, AServiceCrashes) {
  for (int nights = 0; nights < 20; ++nights) {
    std::error_code ignored;
    std::filesystem::remove_all(kl::underRoot("/kelo/loader/crashes"), ignored);
    const kl::test::LoaderProcess loader(kNetif);
    connect();
    ASSERT_TRUE(reachesState(netif::SERVICE, kl::SVC_STATE_RUNNING));
    ASSERT_EQ(::kill(static_cast<pid_t>(row(netif::SERVICE).get(kl::SVC_PID, 0)), SIGSEGV), 0);
    ASSERT_TRUE(loader.logs("; crash 1\n")) << loader.log();
    ASSERT_TRUE(reachesState(netif::SERVICE, kl::SVC_STATE_RUNNING));
    if (loader.log().find(" main; crash 1\n") == std::string::npos) {
      a_.close();
      continue;
    }
    return expectSection("A service crashes", {0, 0, 0});
  }
  FAIL() << "main() is never shown";
}

TEST_F(Night, AServiceDoesNotAnswer) {
  const kl::test::LoaderProcess loader(kNetif);
  connect();
  ASSERT_TRUE(reachesState(netif::SERVICE, kl::SVC_STATE_RUNNING));
  ASSERT_EQ(::kill(static_cast<pid_t>(row(netif::SERVICE).get(kl::SVC_PID, 0)), SIGSTOP), 0);
  std::FILE* const waiting = ::popen(KL_BIN_DIR "/klctl getall netif 2>&1", "r");
  for (kl::message found; found.get(kl::SVC_OLDEST, 0) < 500; ::usleep(10000)) found = row(netif::SERVICE);
  expectSection("A service does not answer", {0, 1, 0});
  char line[200] = {};
  EXPECT_NE(std::fgets(line, sizeof line, waiting), nullptr);
  EXPECT_STREQ(line, "klctl: netif: std failure: broken path (2)\n");
  EXPECT_EQ(WEXITSTATUS(::pclose(waiting)), 1);
}

TEST_F(Night, AServiceDoesNotStay) {
  const kl::test::LoaderProcess loader(failing("broken", 600));
  awaitFailure(loader);
  expectSection("A service does not stay", {0});
}

TEST_F(Night, SomebodyIsNotAllowed) {
  const kl::test::LoaderProcess loader(kNetif);
  connect();
  ASSERT_TRUE(reachesState(netif::SERVICE, kl::SVC_STATE_RUNNING));
  expectSection("Somebody is not allowed", {1});
}

TEST_F(Night, TheLogIsSilent) {
  const kl::test::LoaderProcess loader(failing("log", 18));
  awaitFailure(loader);
  expectSection("The log is silent", {1, 0});
}

TEST_F(Night, AStoreIsDamaged) {
  const std::string path = kl::underRoot("/kelo/undo/records");
  std::filesystem::create_directories(kl::underRoot("/kelo/undo"));
  kl::message record;
  record.insert_bool(0x00000001, true);
  {
    kl::Store store(path, 1);
    store.set(0, record);
    record.insert_string(0x20000002, std::string(140, 'x'));
    store.set(1, record);
  }
  std::fstream(path + ".dat", std::ios::in | std::ios::out).seekp(2).write("XX", 2);
  expectSection("A store is damaged", {1, 1, 0});
}

// The page for the hours in which something has gone wrong: each of its commands is run after the fault that it is about,
// and prints what the page says.  Numbers differ from night to night, so any of them stands for any other; a line "..."
// stands for some lines, and a line that is too long for the page is broken behind a backslash.

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "kl/store.h"
#include "kl/utilities.h"
#include "netif.kl.h"
#include "tests/services/loader/supervision.h"
#include "tests/support/doubles/loader_process.h"
#include "tests/support/page.h"
#include "tests/support/process/child_process.h"

namespace {

struct Listing {
  std::string command;
  std::vector<std::string> output;
};

// A line that ends in a backslash goes on in the next.
void addLine(std::vector<std::string>& output, const std::string& line) {
  if (output.empty() || !output.back().ends_with('\\')) return output.push_back(line);
  output.back().back() = ' ';
  output.back() += line;
}

// The commands of a section, each with what it prints.
std::vector<Listing> listingsIn(const std::string& page, const std::string& section) {
  std::vector<Listing> listings;
  std::istringstream lines(page.substr(std::min(page.find("\n## " + section + "\n"), page.size() - 1) + 1));
  bool isListing = false;
  for (std::string line; std::getline(lines, line) && (listings.empty() || !line.starts_with("## "));) {
    if (line.starts_with("```")) isListing = !isListing;
    else if (isListing && line.starts_with("$ ")) listings.push_back({line.substr(2), {}});
    else if (isListing && !listings.empty()) addLine(listings.back().output, line);
  }
  return listings;
}

// One level stands for all that a history has.
std::string flattened(std::string history) {
  for (const std::string level : {"▂", "▃", "▄", "▅", "▆", "▇", "█"})
    for (std::size_t at; (at = history.find(level)) != std::string::npos;)
      history.replace(at, level.size(), "▁");
  return history;
}

// "#" for one with digits, a file for a folder with it and for a place in it, seconds for milliseconds.
std::string shapeOfWord(std::string word) {
  word = word.substr(word.rfind('/') + 1);
  if (word.find(".cpp:") != std::string::npos) return word.substr(0, word.find(':'));
  if (word.find_first_of("0123456789") != std::string::npos) return "#";
  const bool isUnit = word == "ms" || word == "ms," || word == "ms:" || word == "ms)" || word == "ms),";
  return isUnit ? word.substr(1) : flattened(word);
}

// One space between words.
std::string shapeOf(const std::string& line) {
  std::istringstream words(line);
  std::string shape;
  for (std::string word; words >> word;) shape += (shape.empty() ? "" : " ") + shapeOfWord(word);
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
  std::FILE* const pipe =
      ::popen(("LC_ALL=C.UTF-8 PATH=" KL_BIN_DIR ":$PATH timeout 20 " + command + " 2>&1").c_str(), "r");
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

const std::string kLog = "[[service]]\nname = \"log\"\nid = 18\ncommand = [\"" KL_BIN_DIR "/kl-logd\"]\n";
const std::string kNetif = "[[service]]\nname = \"netif\"\ncommand = [\"" KL_BIN_DIR "/netif\"]\n";

// A service that the test itself is.
constexpr unsigned int kWebId = 28;
const std::string kWeb = "[[service]]\nname = \"web\"\nid = 28\n";
constexpr unsigned int kLeasesId = 300;
constexpr unsigned int kReportsId = 301;

// A request of an ordinary user is answered with "not allowed".
bool nobodyIsRefused() {
  constexpr uid_t kNobody = 65534;
  return kl::test::holdsAs(kNobody, [] {
    kl::test::RawPeer web;
    const bool isIn = web.connect() && web.registerAs(kWebId) == kWebId &&
                      web.send(kl::test::request({netif::SERVICE}, kl::CMD_SETOBJ, 17, {7}));
    const auto answer = isIn ? web.receiveReply(17) : std::nullopt;
    unsigned int code = kl::ERROR_OK;
    return answer && kl::isError(*answer, &code) && code == kl::ERROR_NOTALLOWED;
  });
}

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

  // Until a request has waited for the service so long that this is told.
  void awaitAge(unsigned int id) {
    for (kl::message found; found.get(kl::SVC_OLDEST, 0) < 500; ::usleep(10000)) found = row(id);
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
  awaitAge(netif::SERVICE);
  expectSection("A service does not answer", {0, 1, 0});
  char line[200] = {};
  EXPECT_NE(std::fgets(line, sizeof line, waiting), nullptr);
  EXPECT_STREQ(line, "klctl: netif: std failure: broken path (2)\n");
  EXPECT_EQ(WEXITSTATUS(::pclose(waiting)), 1);
}

TEST_F(Night, AServiceAsksTooMuch) {
  const kl::test::LoaderProcess loader(kNetif + kWeb);
  connect();
  ASSERT_TRUE(reachesState(netif::SERVICE, kl::SVC_STATE_RUNNING));
  kl::test::RawPeer web = kl::test::RawPeer::registered(kWebId);
  std::atomic<bool> isOver = false;
  std::thread flood([&] {
    for (unsigned int i = 1; !isOver; ++i)
      if (!web.send(kl::test::request({netif::SERVICE}, kl::CMD_GETCOUNT, i, {7})) || !web.receiveReply(i))
        return;
  });
  expectSection("A service asks too much", {0, 0});
  isOver = true;
  flood.join();
}

TEST_F(Night, RequestsAreForgotten) {
  const kl::test::LoaderProcess loader(kl::test::service("leases", kLeasesId, "serve") + kWeb);
  connect();
  ASSERT_TRUE(reachesState(kLeasesId, kl::SVC_STATE_RUNNING));
  kl::test::RawPeer web = kl::test::RawPeer::registered(kWebId);
  for (unsigned int i = 1; i <= 62; ++i)
    ASSERT_TRUE(web.send(kl::test::request({kLeasesId, 0}, kl::CMD_POLL, i, {7})));
  awaitAge(kLeasesId);
  expectSection("Requests are forgotten", {0, 0});
}

TEST_F(Night, ServicesWaitForEachOther) {
  const kl::test::LoaderProcess loader(kLog + kl::test::service("leases", kLeasesId, "circle 301") +
                                       kl::test::service("reports", kReportsId, "circle 300"));
  connect();
  ASSERT_TRUE(reachesState(kl::SERVICE_LOG, kl::SVC_STATE_RUNNING));
  ASSERT_TRUE(reachesState(kLeasesId, kl::SVC_STATE_RUNNING));
  ASSERT_TRUE(reachesState(kReportsId, kl::SVC_STATE_RUNNING));
  ASSERT_TRUE(a_.send(kl::test::request({kLeasesId, 0}, kl::CMD_RESET, 17, {7})));
  ASSERT_TRUE(loader.logs("a circle of requests: "));
  awaitAge(kLeasesId);
  awaitAge(kReportsId);
  expectSection("Services wait for each other", {1, 0, 0});
}

TEST_F(Night, AQueueIsFull) {
  const kl::test::LoaderProcess loader(kNetif + kWeb);
  connect();
  ASSERT_TRUE(reachesState(netif::SERVICE, kl::SVC_STATE_RUNNING));
  const auto netifPid = static_cast<pid_t>(row(netif::SERVICE).get(kl::SVC_PID, 0));
  ASSERT_EQ(::kill(netifPid, SIGSTOP), 0);
  kl::test::RawPeer web = kl::test::RawPeer::registered(kWebId);
  const std::string load(30'000, 'x');
  unsigned int requests = 0;
  const auto ask = [&] {
    kl::message m = kl::test::request({netif::SERVICE}, kl::CMD_SETOBJ, ++requests, {7});
    m.insert_string(0x20000001, load);
    return web.send(m);
  };
  std::optional<kl::message> refused;
  while (!refused) {
    ASSERT_TRUE(ask());
    refused = web.receive(0);
  }
  ASSERT_EQ(errorOf(refused), kl::ERROR_BUSY);
  awaitAge(netif::SERVICE);
  std::atomic<bool> isOver = false;
  std::thread goesOn([&] {
    while (!isOver && ask()) (void)web.receive(100);
  });
  expectSection("A queue is full", {0, 1, 0});
  isOver = true;
  goesOn.join();
  ASSERT_EQ(::kill(netifPid, SIGCONT), 0);
}

TEST_F(Night, AServiceDoesNotStay) {
  const kl::test::LoaderProcess loader(failing("broken", 600));
  awaitFailure(loader);
  expectSection("A service does not stay", {0, 0});
}

TEST_F(Night, SomebodyIsNotAllowed) {
  if (::geteuid() != 0) GTEST_SKIP() << "only root can become another user";
  const kl::test::LoaderProcess loader(kLog + kNetif + "commands = {}\n" + kWeb + "user = \"nobody\"\n");
  connect();
  ASSERT_TRUE(reachesState(kl::SERVICE_LOG, kl::SVC_STATE_RUNNING));
  ASSERT_TRUE(reachesState(netif::SERVICE, kl::SVC_STATE_RUNNING));
  ASSERT_TRUE(nobodyIsRefused());
  expectSection("Somebody is not allowed", {0, 1});
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

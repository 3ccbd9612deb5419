// Many processes that log through the library, and a log service that is killed under them.
//
// Lines may be lost when the log service is killed: those that a process had written to its socket and the service
// had not yet read, and those of the one read in hand.  The process cannot know of them.  They follow each other
// without a gap, once for each kill, and are no more than the process's socket buffer and one read hold.  There is one
// exception: a service that is being ended can lose its connections before the socket it listens on.  The process then
// reports the line that failed, connects once more, to a service that will never accept it, and what it writes there
// is lost as well.  Every other line is in the file, or was reported by the library as dropped.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <functional>
#include <iostream>
#include <set>
#include <sstream>

#include "kl/conventions.h"
#include "kl/services.h"
#include "kl/utilities.h"
#include "tests/services/logd/system.h"
#include "tests/support/build/effort.h"
#include "tests/support/process/child.h"
#include "tests/support/process/child_process.h"

namespace logd::test {
namespace {

constexpr unsigned int kWriters = 20;
constexpr int kLongestMs = 3'600'000;  // for the writers: a hang ends with the time of the test
constexpr std::size_t kReadBytes = 65536;
constexpr std::size_t kRecordHead = 4;

using Numbers = std::set<unsigned int>;

std::string textOf(unsigned int writer, unsigned int line) {
  return "w" + std::to_string(writer) + " " + std::to_string(line) + " " + std::string(line % 100, 'x') + ".";
}

std::string configuration() {
  return "[log]\nlines_per_second = 0\nmemory = 67108864\n"
         "[[file]]\npath = \"" +
         kl::underRoot("/kelo/all.log") + "\"\nsize = 1000000000\nfiles = 1\n";
}

class Writers {
 public:
  Writers(unsigned int count, unsigned int batch, unsigned int pause) {
    for (unsigned int i = 0; i < kWriters; ++i) start(i, {count, batch, pause});
  }

  bool end() {
    bool allDone = true;
    for (kl::test::ChildProcess& writer : writers_) allDone = writer.waitForEnd(kLongestMs) == 0 && allDone;
    return allDone;
  }

  // The lines that the library said it dropped.
  static Numbers reported(unsigned int writer) {
    Numbers lines;
    std::istringstream out(contentOf(outputOf(writer)));
    unsigned int number = 0;
    for (std::string line; std::getline(out, line);)
      if (std::sscanf(line.c_str(), "lost %u", &number) == 1) lines.insert(number);
    return lines;
  }

 private:
  static std::string outputOf(unsigned int writer) {
    return kl::underRoot("/kelo/writer.") + std::to_string(writer);
  }

  void start(unsigned int writer, const std::vector<unsigned int>& numbers) {
    writers_.emplace_back([&] {
      ::dup2(::open(outputOf(writer).c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600), STDOUT_FILENO);
      std::vector<std::string> words = {KL_BIN_DIR "/kl-test-writer", std::to_string(writer)};
      for (const unsigned int number : numbers) words.push_back(std::to_string(number));
      kl::test::become(words);
    });
  }

  std::vector<kl::test::ChildProcess> writers_;
};

// The numbers of the lines of each writer that are whole in the file, in the file's order.
std::vector<std::vector<unsigned int>> wholeLinesInFile() {
  std::vector<std::vector<unsigned int>> found(kWriters);
  std::istringstream file(contentOf(kl::underRoot("/kelo/all.log")));
  for (std::string line; std::getline(file, line);) {
    unsigned int writer = 0;
    unsigned int number = 0;
    const std::size_t text = line.find(": w");
    if (text == std::string::npos || std::sscanf(line.c_str() + text, ": w%u %u ", &writer, &number) != 2)
      continue;
    if (writer < kWriters && line.substr(text + 2) == textOf(writer, number)) found[writer].push_back(number);
  }
  return found;
}

bool isAscending(const std::vector<unsigned int>& numbers) {
  return std::adjacent_find(numbers.begin(), numbers.end(), std::greater_equal<>()) == numbers.end();
}

Numbers unreported(unsigned int count, const std::vector<unsigned int>& whole, const Numbers& reported) {
  Numbers missing;
  for (unsigned int i = 0; i < count; ++i) missing.insert(missing.end(), i);
  for (const unsigned int line : whole) missing.erase(line);
  for (const unsigned int line : reported) missing.erase(line);
  return missing;
}

// Runs of lines that were lost one after the other: how many there are, and the bytes on the socket of the largest.
struct Runs {
  unsigned int count = 0;
  std::size_t largestBytes = 0;
};

// One line that was reported between two that were not does not end a run: it is the one that failed when the process
// connected once more to the service that was being ended.
Runs runsOf(unsigned int writer, const Numbers& lines, const Numbers& reported) {
  const auto goesOn = [&](unsigned int line) {
    return (line > 0 && lines.contains(line - 1)) ||
           (line > 1 && reported.contains(line - 1) && lines.contains(line - 2));
  };
  Runs runs;
  std::size_t bytes = 0;
  for (const unsigned int line : lines) {
    if (!goesOn(line)) {
      ++runs.count;
      bytes = 0;
    }
    bytes += kRecordHead + textOf(writer, line).size();
    runs.largestBytes = std::max(runs.largestBytes, bytes);
  }
  return runs;
}

std::uintmax_t sizeOf(const std::string& file) {
  std::error_code error;
  const auto size = std::filesystem::file_size(file, error);
  return error ? 0 : size;
}

std::size_t socketBufferBytes() {
  int ends[2];
  EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
  const common::Descriptor a(ends[0]);
  const common::Descriptor b(ends[1]);
  int bytes = 0;
  socklen_t size = sizeof bytes;
  EXPECT_EQ(::getsockopt(a.get(), SOL_SOCKET, SO_SNDBUF, &bytes, &size), 0);
  return static_cast<std::size_t>(bytes);
}

// All writers' connections have been read to their end; the loader may have one as well.  Some may not even have been
// accepted when their writers end.  They are accepted in the order in which they came: one that comes last is waited for.
bool everythingIsTaken(System& system) {
  LogClient last;
  const bool isThere =
      last.write(registration(1, {301}) + textRecord(1, "that was all")) && system.hasLine("that was all");
  last.close();
  return isThere && comesTrue([&] {
           return system.ask({kl::SERVICE_LOG}, kl::CMD_GET).get(kl::LOG_CLIENTS, kWriters) < 2;
         });
}

TEST(LogLoad, AHundredThousandLinesFromTwentyProcessesArriveWholeAndInOrder) {
  constexpr unsigned int kLines = kl::test::repeated(5000);
  System system(configuration());
  Writers writers(kLines, 100, 0);
  ASSERT_TRUE(writers.end());
  ASSERT_TRUE(everythingIsTaken(system));
  std::size_t inFile = 0;
  std::size_t dropped = 0;
  const auto found = wholeLinesInFile();
  for (unsigned int i = 0; i < kWriters; ++i) {
    const Numbers reported = Writers::reported(i);
    EXPECT_TRUE(isAscending(found[i])) << "writer " << i;
    EXPECT_TRUE(unreported(kLines, found[i], reported).empty()) << "writer " << i;
    inFile += found[i].size();
    dropped += reported.size();
  }
  kl::message filter;
  filter.insert(kl::LOG_TOPICS, {300});
  EXPECT_EQ(system.ask({kl::SERVICE_LOG}, kl::CMD_GETCOUNT, filter).get(kl::STD_GETALLNO, 0), inFile);
  std::cout << inFile << " lines in the file, " << dropped << " reported as dropped\n";
}

TEST(LogLoad, OfAKilledServiceOnlyWhatItHadNotReadIsLostUnreported) {
  constexpr unsigned int kLines = 3000;
  constexpr unsigned int kKills = 3;
  constexpr std::uintmax_t kBetweenKills = 1000000;  // bytes in the file
  const std::size_t most = 2 * socketBufferBytes() + kReadBytes;
  System system(configuration());
  Writers writers(kLines, 10, 2);
  pid_t pid = system.logService();
  for (unsigned int i = 0; i < kKills; ++i) {
    const auto before = sizeOf(kl::underRoot("/kelo/all.log"));
    ASSERT_TRUE(comesTrue([&] { return sizeOf(kl::underRoot("/kelo/all.log")) > before + kBetweenKills; }))
        << "nobody writes";
    ASSERT_EQ(::kill(pid, SIGKILL), 0);
    pid = system.logService(pid);
  }
  ASSERT_TRUE(writers.end());
  ASSERT_TRUE(everythingIsTaken(system));
  std::size_t inFile = 0;
  std::size_t dropped = 0;
  std::size_t unknown = 0;
  std::size_t largest = 0;
  const auto found = wholeLinesInFile();
  for (unsigned int i = 0; i < kWriters; ++i) {
    const Numbers reported = Writers::reported(i);
    const Numbers lost = unreported(kLines, found[i], reported);
    const Runs runs = runsOf(i, lost, reported);
    EXPECT_TRUE(isAscending(found[i])) << "writer " << i;
    EXPECT_LE(runs.count, kKills) << "writer " << i;
    EXPECT_LE(runs.largestBytes, most) << "writer " << i;
    inFile += found[i].size();
    dropped += reported.size();
    unknown += lost.size();
    largest = std::max(largest, runs.largestBytes);
  }
  EXPECT_GT(dropped, 0u) << "nobody noticed the kills";
  std::cout << kKills << " kills: " << inFile << " of " << kWriters * kLines << " lines in the file, "
            << dropped << " reported as dropped, " << unknown << " lost in sockets, at most " << largest
            << " bytes of one\n";
}

}  // namespace
}  // namespace logd::test

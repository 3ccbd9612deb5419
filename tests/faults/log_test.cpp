// The log client while the system refuses: each fault is told in the fixed lines, costs no more than the lines that it
// tells as lost, and the next line comes through.

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <memory>
#include <sstream>

#include "kl/logger.h"
#include "kl/runner.h"
#include "tests/support/calls/faults.h"
#include "tests/support/doubles/log_service.h"
#include "tests/support/hex.h"

namespace {

using kl::test::exposed;
using kl::test::FaultRun;

void say(kl::Logger& logger, kl::Source* source, std::string_view text) {
  logger.log(source, text.data(), static_cast<unsigned int>(text.size()));
}

void pass(kl::Runner& runner) {
  runner.addTimer(
      nullptr, [](void*) {}, 0);
  runner.runSocks(kl::getJiffies());
}

bool isFixed(const std::string& line) {
  static const char* const kWhole[] = {"sleeping",
                                       "dropping",
                                       "dopping line",
                                       "EOF",
                                       "registeration failed, dropping a line",
                                       "msg too short, dropping"};
  static const char* const kBegins[] = {"could not connect to log: ", "could not set to non blocking: ",
                                        "writeRaw failed: ", "ret=-1, len=", "partial write written="};
  return std::find(std::begin(kWhole), std::end(kWhole), line) != std::end(kWhole) ||
         std::any_of(std::begin(kBegins), std::end(kBegins),
                     [&](const char* begin) { return line.rfind(begin, 0) == 0; });
}

// How many of the lines say that a record may be lost.
unsigned int losses(const std::string& out) {
  unsigned int count = 0;
  std::istringstream lines(out);
  for (std::string line; std::getline(lines, line);) {
    EXPECT_TRUE(isFixed(line)) << line;
    count += line == "dropping" || line == "dopping line" || line == "registeration failed, dropping a line";
  }
  return count;
}

// The service, which takes up each connection that the client makes.
class Service {
 public:
  void collect() {
    take();
    if (isConnected_ && !service_.isLeft()) return;
    isConnected_ = service_.accept();
    if (isConnected_) take();
  }
  bool had(const std::string& text) const {
    return std::search(came_.begin(), came_.end(), text.begin(), text.end()) != came_.end();
  }

 private:
  void take() {
    const std::vector<unsigned char> more = service_.receive();
    came_.insert(came_.end(), more.begin(), more.end());
  }

  kl::test::LogService service_;
  bool isConnected_ = false;
  std::vector<unsigned char> came_;
};

// How many of the lines do not come; the one behind them does.
std::size_t missingLines(const std::vector<std::string>& texts) {
  Service service;
  const kl::Runner runner;
  std::unique_ptr<kl::Logger> logger;
  kl::Source* source = nullptr;
  exposed([&] { logger = std::make_unique<kl::Logger>(); });
  service.collect();
  exposed([&] { source = logger->registerSource({5}); });
  for (const std::string& text : texts) {
    exposed([&] { say(*logger, source, text); });
    service.collect();
  }
  say(*logger, source, "the last one");
  service.collect();
  EXPECT_TRUE(service.had("the last one"));
  exposed([&] { logger.reset(); });
  return static_cast<std::size_t>(
      std::count_if(texts.begin(), texts.end(), [&](const std::string& text) { return !service.had(text); }));
}

std::string beginOfOutput(const FaultRun& run) {
  if (run.is("write", EAGAIN) || run.is("writev", EAGAIN)) return "sleeping\n";
  if (run.is("write", EPIPE)) return "writeRaw failed: Broken pipe\nret=-1, len=";
  if (run.is("socket", EMFILE)) return "could not connect to log: Too many open files\n";
  if (run.is("connect", ECONNREFUSED)) return "could not connect to log: Connection refused\n";
  if (run.is("fcntl", ENOLCK)) return "could not set to non blocking: No locks available\n";
  return "";
}

TEST(LogFaults, EachLineComesOrIsToldAsLost) {
  const std::vector<std::string> texts = {"alpha", std::string(5000, 'b'), "gamma"};
  const unsigned int tried = kl::test::forEachFault(
      kl::test::everyFault(), [&] { std::fprintf(stderr, "%zu", missingLines(texts)); },
      [](const FaultRun& run) {
        EXPECT_EQ(run.child.exitStatus, 0);
        EXPECT_LE(std::stoul(run.child.err), losses(run.child.out)) << run.child.out;
        EXPECT_EQ(run.child.out.rfind(beginOfOutput(run), 0), 0U) << run.child.out;
      });
  EXPECT_GE(tried, 20U);
}

TEST(LogFaults, AMuteRecordIsObeyedAsSoonAsItCanBeRead) {
  const unsigned int tried = kl::test::forEachFault(
      kl::test::everyFault(),
      [] {
        kl::test::LogService service;
        kl::Runner runner;
        kl::Logger logger;
        ASSERT_TRUE(service.accept());
        kl::Source* source = logger.registerSource({5});
        service.send("0006 0001 0001");
        exposed([&] { pass(runner); });
        pass(runner);
        std::fprintf(stderr, "%d", source->muted);
      },
      [](const FaultRun& run) {
        EXPECT_EQ(run.child.exitStatus, 0);
        (void)losses(run.child.out);
        if (run.is("poll", EINTR) || run.is("read", EINTR) || run.is("read", EAGAIN)) {
          EXPECT_EQ(run.child.out, "");
          EXPECT_EQ(run.child.err, "1");
        }
      });
  EXPECT_GE(tried, 5U);
}

}  // namespace

// Services that crash under the loader as it runs: what the log, the table and the store say.

#include "services/loader/crashes/crashes.h"

#include <gtest/gtest.h>
#include <signal.h>

#include <cstdlib>
#include <filesystem>
#include <string>

#include "kl/conventions.h"
#include "kl/services.h"
#include "kl/utilities.h"
#include "services/common/tap.h"
#include "tests/services/loader/supervision.h"
#include "tests/support/build/effort.h"
#include "tests/support/doubles/loader_process.h"

namespace {

using kl::test::LoaderProcess;
using kl::test::service;
namespace fs = std::filesystem;
namespace tap = common::tap;

constexpr char kOtherwise[] = "under a sanitizer or an emulator a crash looks otherwise";

class CrashedServices : public kl::test::Supervision {
 protected:
  CrashedServices() {
    std::error_code ignored;
    fs::remove_all(folder(), ignored);
  }

  static std::string folder() { return kl::underRoot("/kelo/loader/crashes"); }

  // Makes the service do what the command says; it does not survive that.
  void crash(unsigned int command) {
    ASSERT_TRUE(askUntilAnswered({32}));
    EXPECT_EQ(errorOf(ask({32}, command)), kl::ERROR_BRKPATH);
  }

  std::string lastEnd() { return row(32).get(kl::SVC_LAST_END, ""); }
};

TEST_F(CrashedServices, TheLogAndTheTableNameTheSignalAndThePlaceAndNotTheReport) {
  if (!kl::test::kCrashesPlainly) GTEST_SKIP() << kOtherwise;
  const LoaderProcess loader(service("frail", 32, "fault"));
  connect();
  crash(kl::CMD_START);
  EXPECT_TRUE(loader.logs("killed by SIGSEGV; starts again in 0.1 s")) << loader.log();
  EXPECT_TRUE(loader.logs("killed by SIGSEGV in ")) << loader.log();
  EXPECT_TRUE(loader.logs(" (anonymous namespace)::touch; crash 1\n")) << loader.log();
  EXPECT_TRUE(lastEnd().ends_with(" (anonymous namespace)::touch")) << lastEnd();
  EXPECT_EQ(loader.log().find("backtrace:"), std::string::npos);
  EXPECT_TRUE(fs::exists(folder() + "/1"));
}

TEST_F(CrashedServices, TheLoaderShowsThemWithTheMessageThatWasInHand) {
  if (!kl::test::kCrashesPlainly) GTEST_SKIP() << kOtherwise;
  const LoaderProcess loader(service("frail", 32, "fault"));
  connect();
  crash(kl::CMD_START);
  ASSERT_TRUE(loader.logs("; crash 1\n")) << loader.log();
  kl::message request = kl::test::request({1, kl::LOADER_CRASHES}, kl::CMD_GETOBJ, 77, {7});
  request.insert(kl::STD_ID, 1);
  ASSERT_TRUE(a_.send(request));
  const kl::message shown = a_.receiveReply(77).value_or(kl::message());
  EXPECT_EQ(shown.get(kl::SVC_NAME, ""), "frail");
  const std::string report = shown.get(kl::CRASH_REPORT, "");
  EXPECT_NE(report.find("\nbacktrace:\n"), std::string::npos) << report;
  EXPECT_NE(report.find(" u32 [SYS_CMD]=CMD_START\n"), std::string::npos) << report;
}

TEST_F(CrashedServices, AProfileKeepsNoneOfThatBack) {
  if (!kl::test::kCrashesPlainly) GTEST_SKIP() << kOtherwise;
  const LoaderProcess loader(service("frail", 32, "fault", "profile = \"quiet\"\n"));
  connect();
  crash(kl::CMD_START);
  EXPECT_TRUE(loader.logs("killed by SIGSEGV in ")) << loader.log();
  EXPECT_TRUE(loader.logs(" (anonymous namespace)::touch; crash 1\n")) << loader.log();
  ASSERT_TRUE(askUntilAnswered({32}));  // it is started again
}

TEST_F(CrashedServices, TheLastMessagesOfTheServiceAreKeptWithIt) {
  if (!kl::test::kCrashesPlainly) GTEST_SKIP() << kOtherwise;
  const LoaderProcess loader(service("frail", 32, "fault"));
  connect();
  crash(kl::CMD_START);
  ASSERT_TRUE(loader.logs("; crash 1\n")) << loader.log();
  kl::message request = kl::test::request({1, kl::LOADER_CRASHES}, kl::CMD_GETOBJ, 77, {7});
  request.insert(kl::STD_ID, 1);
  ASSERT_TRUE(a_.send(request));
  const kl::message shown = a_.receiveReply(77).value_or(kl::message());
  std::vector<unsigned int> commands;
  for (const kl::message m : shown.get(tap::MESSAGES, {}))
    if (!m.get(tap::ANSWER, false) && m.get(tap::RECEIVERS, {}) == std::vector<unsigned int>{32})
      commands.push_back(m.get(tap::COMMAND, 0));
  ASSERT_FALSE(commands.empty());
  EXPECT_EQ(commands.back(), kl::CMD_START);
}

TEST_F(CrashedServices, TheSameCrashIsCounted) {
  if (!kl::test::kCrashesPlainly) GTEST_SKIP() << kOtherwise;
  if (sizeof(void*) == 4) GTEST_SKIP() << "on 32 bits a stack through libc is another one each time";
  const LoaderProcess loader(service("frail", 32, "fault"));
  connect();
  // Of a stack that lies badly in its page fewer callers are shown than it takes to tell.
  unsigned int crashes = 0;
  for (; crashes < 5 && loader.log().find(", for the 2. time\n") == std::string::npos; ++crashes) {
    ASSERT_TRUE(askUntilAnswered({32}));
    const std::string process = "frail (32, pid " + std::to_string(row(32).get(kl::SVC_PID, 0)) + "): ";
    crash(kl::CMD_RESET);
    ASSERT_TRUE(loader.logs(process + "killed by SIGABRT in ")) << loader.log();
  }
  EXPECT_LT(crashes, 5u) << loader.log();
  EXPECT_FALSE(fs::exists(folder() + "/" + std::to_string(crashes)));
}

TEST_F(CrashedServices, AStackOverflowLeavesNoReportAndTheLoaderSaysSo) {
  if (!kl::test::kCrashesPlainly) GTEST_SKIP() << kOtherwise;
  const LoaderProcess loader(service("frail", 32, "fault"));
  connect();
  crash(kl::CMD_CANCEL);
  EXPECT_TRUE(loader.logs("killed by SIGSEGV without a report, as after a stack overflow; starts again"))
      << loader.log();
}

TEST_F(CrashedServices, AStatusAndAnOrderlyEndAreToldAsWell) {
  const LoaderProcess loader(service("frail", 32, "serve"));
  connect();
  ASSERT_TRUE(askUntilAnswered({32}));
  EXPECT_FALSE(row(32).has(kl::SVC_LAST_END));
  shutdownService(32, 3);
  ASSERT_TRUE(loader.logs("ended with status 3")) << loader.log();
  EXPECT_EQ(lastEnd(), "ended with status 3");
}

TEST_F(CrashedServices, OrdinaryOutputComesOutWhereTheLoadersOwnDoes) {
  const LoaderProcess loader(service("talker", 32, "chatter hello"));
  EXPECT_TRUE(loader.logs("hello\n")) << loader.log();
}

}  // namespace

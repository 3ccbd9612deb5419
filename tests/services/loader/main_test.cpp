// The program as a whole: its exit statuses.

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <string>

#include "kl/utilities.h"
#include "tests/support/doubles/loader_process.h"
#include "tests/support/process/child.h"

namespace {

using kl::test::LoaderProcess;

int statusOf(const std::string& arguments) {
  const int status = std::system((KL_BIN_DIR "/kl-loader " + arguments + " >/dev/null 2>&1").c_str());
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

TEST(LoaderMain, HelpVersionAndAGoodCheckEndWithStatus0) {
  EXPECT_EQ(statusOf("--help"), 0);
  EXPECT_EQ(statusOf("--version"), 0);
  EXPECT_EQ(statusOf("--check --config " KL_SOURCE_DIR "/services/loader/kl-loader.toml"), 0);
}

TEST(LoaderMain, AWarningEndsACheckWithStatus0) {
  const std::string file = kl::underRoot("/kelo/warned.toml");
  std::ofstream(file) << "[rights]\nnobodyknowsme = \"read\"\n";
  const auto loader = kl::test::runProgram({KL_BIN_DIR "/kl-loader", "--check", "--config", file});
  EXPECT_EQ(loader.exitStatus, 0);
  EXPECT_EQ(loader.err,
            "kl-loader: " + file +
                ":2: [rights] nobodyknowsme: never matches: this system has nobody of that name\n");
}

// That of the packages, on a machine that has their user.
TEST(LoaderMain, TheConfigurationOfThePackagesIsRight) {
  std::ifstream in(KL_SOURCE_DIR "/debian/etc/kl-loader.toml");
  std::string text((std::istreambuf_iterator<char>(in)), {});
  ASSERT_NE(text.find("user = \"kelo\""), std::string::npos);
  for (std::size_t at = 0; (at = text.find("\"kelo\"", at)) != std::string::npos;)
    text.replace(at, 6, "\"daemon\"");
  const std::string file = kl::underRoot("/kelo/packaged.toml");
  std::ofstream(file) << text;
  EXPECT_EQ(statusOf("--check --config " + file), 0);
}

// The text between .nf and .fi behind "Example".
TEST(LoaderMain, TheExampleOfThePageIsRightOnAFreshMachine) {
  std::ifstream in(KL_SOURCE_DIR "/docs/man/kl-loader.8");
  const std::string page((std::istreambuf_iterator<char>(in)), {});
  const std::size_t begin = page.find(".nf\n", page.find(".SS Example\n")) + 4;
  const std::string text = page.substr(begin, page.find(".fi\n", begin) - begin);
  ASSERT_NE(text.find("[[service]]"), std::string::npos);
  const std::string file = kl::underRoot("/kelo/example.toml");
  std::ofstream(file) << text;
  EXPECT_EQ(statusOf("--check --config " + file), 0);
}

TEST(LoaderMain, AMistakeEndsWithStatus2) {
  EXPECT_EQ(statusOf("--nonsense"), 2);
  EXPECT_EQ(statusOf("--check --config /nowhere/kl-loader.toml"), 2);
  EXPECT_EQ(statusOf("--check --config " KL_SOURCE_DIR "/LICENSE"), 2);
}

TEST(LoaderMain, AFolderOrAnUnreadableFileAsConfigurationEndsWithStatus2AndALine) {
  for (const std::string file : {"/tmp", "/proc/self/mem", "/dev/zero"}) {
    const auto loader = kl::test::runProgram({KL_BIN_DIR "/kl-loader", "--config", file});
    EXPECT_EQ(loader.exitStatus, 2) << file;
    EXPECT_TRUE(loader.err.starts_with("kl-loader: " + file + ": expected a file ")) << loader.err;
    EXPECT_EQ(std::count(loader.err.begin(), loader.err.end(), '\n'), 1) << loader.err;
  }
}

TEST(LoaderMain, AMistakeInTheConfigurationIsToldAndNothingIsStarted) {
  LoaderProcess loader("[loader]\nqueue_limit = 1\n");
  EXPECT_EQ(loader.waitForEnd(), 2);
  EXPECT_NE(loader.log().find("kl-loader.toml:2: [loader] queue_limit: expected a number from 4096"),
            std::string::npos)
      << loader.log();
}

TEST(LoaderMain, AMarkerOfAnotherUserIsRemovedWhenItStarts) {
  constexpr uid_t kNobody = 65534;
  const std::string marker = kl::runFolderPath() + "/marked";
  ASSERT_TRUE(LoaderProcess().logs(""));  // the folder is there now
  std::ofstream(marker).flush();
  if (::chown(marker.c_str(), kNobody, kNobody) != 0) GTEST_SKIP() << "needs root, to give a file away";
  const LoaderProcess loader("[[service]]\nid = 500\nname = \"marked\"\n");
  EXPECT_TRUE(loader.logs(marker + ": is of another user (65534); removed")) << loader.log();
  EXPECT_NE(::access(marker.c_str(), F_OK), 0);
}

// The words that a service manager hears of a loader's life, from first to last.
TEST(LoaderMain, TellsItsServiceManagerThatItIsReadyAndThatItEnds) {
  const int manager = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  const timeval patience{20, 0};
  (void)::setsockopt(manager, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  const std::string name = kl::underRoot("/kelo/notify");
  name.copy(address.sun_path, sizeof address.sun_path - 1);
  ASSERT_EQ(::bind(manager, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
  ::setenv("NOTIFY_SOCKET", name.c_str(), 1);
  LoaderProcess loader;
  ::unsetenv("NOTIFY_SOCKET");
  char words[64] = {};
  EXPECT_GT(::recv(manager, words, sizeof words - 1, 0), 0);
  EXPECT_STREQ(words, "READY=1\n");
  loader.signal(SIGTERM);
  EXPECT_EQ(loader.waitForEnd(), 0);
  EXPECT_GT(::recv(manager, words, sizeof words - 1, 0), 0);
  EXPECT_STREQ(words, "STOPPING=1\n");
  ::close(manager);
}

TEST(LoaderMain, AnOrderlyEndHasStatus0) {
  LoaderProcess loader;
  loader.signal(SIGTERM);
  EXPECT_EQ(loader.waitForEnd(), 0);
}

}  // namespace

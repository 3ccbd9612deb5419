// The program as a whole: its exit statuses.

#include <gtest/gtest.h>
#include <sys/wait.h>

#include <algorithm>
#include <cstdlib>
#include <string>

#include "kl/utilities.h"
#include "services/logd/intake/listener.h"
#include "tests/support/process/child.h"

namespace {

int statusOf(const std::string& arguments) {
  const int status = std::system((KL_BIN_DIR "/kl-logd " + arguments + " >/dev/null 2>&1").c_str());
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

TEST(LogdMain, HelpVersionAndAGoodCheckEndWithStatus0) {
  EXPECT_EQ(statusOf("--help"), 0);
  EXPECT_EQ(statusOf("--version"), 0);
  EXPECT_EQ(statusOf("--check --config " KL_SOURCE_DIR "/services/logd/kl-logd.toml"), 0);
}

TEST(LogdMain, AMistakeEndsWithStatus2) {
  EXPECT_EQ(statusOf("--nonsense"), 2);
  EXPECT_EQ(statusOf("--check --config /nowhere/kl-logd.toml"), 2);
  EXPECT_EQ(statusOf("--check --config " KL_SOURCE_DIR "/LICENSE"), 2);
}

TEST(LogdMain, AFolderOrAnUnreadableFileAsConfigurationEndsWithStatus2AndALine) {
  for (const std::string file : {"/tmp", "/proc/self/mem", "/dev/zero"}) {
    const auto service = kl::test::runProgram({KL_BIN_DIR "/kl-logd", "--config", file});
    EXPECT_EQ(service.exitStatus, 2) << file;
    EXPECT_TRUE(service.err.starts_with("kl-logd: " + file + ": expected a file ")) << service.err;
    EXPECT_EQ(std::count(service.err.begin(), service.err.end(), '\n'), 1) << service.err;
  }
}

TEST(LogdMain, WithoutALoaderItEndsWithStatus1) { EXPECT_EQ(statusOf("3<&-"), 1); }

TEST(LogdMain, ASecondOneSaysThatThereIsOneAndEndsWithStatus1) {
  logd::Listener first;
  ASSERT_EQ(first.open(), "");
  const auto second = kl::test::runProgram({KL_BIN_DIR "/kl-logd"});
  EXPECT_EQ(second.exitStatus, 1);
  EXPECT_EQ(second.err, "kl-logd: " + kl::logSocketPath() + ": a log service is running already\n");
}

}  // namespace

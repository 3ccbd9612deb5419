// klctl log -f as a program, with a real loader and a real log service.

#include "tools/klctl/verbs/log_follow.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <fstream>

#include "kl/utilities.h"
#include "tests/support/doubles/loader_process.h"
#include "tests/support/process/child.h"
#include "tests/support/process/running_program.h"
#include "tools/klctl/values/json.h"

namespace klctl {
namespace {

using kl::test::LoaderProcess;
using kl::test::RunningProgram;
using kl::test::runProgram;

constexpr char kKlctl[] = KL_BIN_DIR "/klctl";
const std::string kConfiguration = kl::underRoot("/kelo/kl-logd.toml");
const std::string kService = "[[service]]\nname = \"log\"\nrestart = \"always\"\ncommand = [\"" KL_BIN_DIR
                             "/kl-logd\", \"--config\", \"" +
                             kConfiguration + "\"]\n";

struct FollowLog : testing::Test {
  FollowLog() {
    std::ofstream(kConfiguration) << "[log]\ntopics = \"" KL_SOURCE_DIR "/services/logd/topics.list\"\n";
    loader = std::make_unique<LoaderProcess>(kService);
  }

  using Words = std::vector<std::string>;

  // Two lines with the topics info and 300, "wNAME 0 ." and "wNAME 1 x.".
  static Words writer(const std::string& name) {
    return {KL_BIN_DIR "/kl-test-writer", name, "2", "10", "1"};
  }
  static void write(const std::string& name) { EXPECT_EQ(runProgram(writer(name)).exitStatus, 0); }

  static Words asStranger(const Words& program) {
    Words words{"/usr/bin/setpriv", "--reuid=65534", "--regid=65534", "--clear-groups"};
    words.insert(words.end(), program.begin(), program.end());
    return words;
  }

  static void killLogService() {
    const Json row = Json::parse(runProgram({kKlctl, "--json", "get", "loader:18"}).out);
    EXPECT_EQ(::kill(row["pid"].get<pid_t>(), SIGKILL), 0);
  }

  std::unique_ptr<LoaderProcess> loader;
};

TEST_F(FollowLog, WhatIsThereComesFirstAndThenWhatComes) {
  EXPECT_EQ(runProgram({kKlctl, "get", "log"}).exitStatus, 0) << "it is there";
  write("1");
  RunningProgram klctl({kKlctl, "log", "-f", "--topic", "300"});
  EXPECT_TRUE(klctl.line().ends_with("] info,300: w1 0 ."));
  EXPECT_TRUE(klctl.line().ends_with("] info,300: w1 1 x."));
  write("2");
  EXPECT_TRUE(klctl.line().ends_with("] info,300: w2 0 ."));
  EXPECT_TRUE(klctl.line().ends_with("] info,300: w2 1 x."));
  EXPECT_EQ(klctl.end(SIGINT), 0);
}

TEST_F(FollowLog, AsJsonEachLineIsALine) {
  EXPECT_EQ(runProgram({kKlctl, "get", "log"}).exitStatus, 0);
  write("1");
  RunningProgram klctl({kKlctl, "log", "-f", "--json", "--topic", "300"});
  EXPECT_EQ(Json::parse(klctl.line())["text"], "w1 0 .");
}

TEST_F(FollowLog, AServiceThatIsKilledIsWaitedForAndNoLineComesTwice) {
  EXPECT_EQ(runProgram({kKlctl, "get", "log"}).exitStatus, 0);
  write("1");
  RunningProgram klctl({kKlctl, "log", "-f", "--topic", "info"});
  EXPECT_TRUE(klctl.says("w1 1 x.\n"));
  killLogService();
  EXPECT_TRUE(klctl.remarks("log is gone: it has ended; waiting for it"));
  EXPECT_TRUE(klctl.remarks("log is back"));
  write("2");
  EXPECT_TRUE(klctl.line().ends_with("w2 0 ."));
}

TEST_F(FollowLog, AnOrdinaryUserFollowsItsOwnLinesAndIsTold) {
  if (::geteuid() != 0) GTEST_SKIP() << "only root can be another user";
  if (runProgram(asStranger({"/usr/bin/test", "-x", kKlctl})).exitStatus != 0)
    GTEST_SKIP() << "others cannot reach " << kKlctl;
  EXPECT_EQ(runProgram({kKlctl, "get", "log"}).exitStatus, 0);
  write("1");
  RunningProgram klctl(asStranger({kKlctl, "log", "-f", "--topic", "300"}));
  EXPECT_EQ(runProgram(asStranger(writer("2"))).exitStatus, 0);
  EXPECT_TRUE(klctl.line().ends_with("] info,300: w2 0 ."));
  EXPECT_TRUE(klctl.remarks("log: only your own lines are shown; "));
}

TEST_F(FollowLog, AMutedTopicIsNotWrittenAnyMore) {
  EXPECT_EQ(runProgram({kKlctl, "get", "log"}).exitStatus, 0);
  EXPECT_EQ(runProgram({kKlctl, "log", "mute", "300"}).exitStatus, 0);
  const Json rule = Json::parse(runProgram({kKlctl, "--json", "get", "log/1:300"}).out);
  EXPECT_EQ(rule["muted"], true);
  EXPECT_EQ(runProgram({kKlctl, "log", "unmute", "300"}).exitStatus, 0);
}

}  // namespace
}  // namespace klctl

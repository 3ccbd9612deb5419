#include "services/loader/config/process_limits.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <string>

#include "services/loader/config/configuration.h"
#include "tests/support/process/child.h"

namespace {

using common::Mistakes;
using loader::ProcessLimits;

constexpr char kService[] = "[[service]]\nname = \"x\"\nid = 3\ncommand = [\"/bin/x\"]\n";

std::string textOf(const Mistakes& mistakes) {
  std::string text;
  for (const common::Mistake& mistake : mistakes) text += (text.empty() ? "" : "\n") + mistake.describe();
  return text;
}

loader::Configuration parsed(const std::string& text, Mistakes& mistakes) {
  return loader::parseConfiguration(text, "f", mistakes);
}

ProcessLimits limitsIn(const std::string& lines) {
  Mistakes mistakes;
  const loader::Configuration configuration = parsed(kService + lines, mistakes);
  EXPECT_EQ(textOf(mistakes), "");
  return configuration.services.at(0).limits;
}

std::string mistakesIn(const std::string& lines) {
  Mistakes mistakes;
  (void)parsed(kService + lines, mistakes);
  return textOf(mistakes);
}

TEST(ProcessLimitsTest, WithoutKeysThereAreNone) { EXPECT_EQ(limitsIn(""), ProcessLimits()); }

TEST(ProcessLimitsTest, EachIsAKey) {
  const ProcessLimits limits = limitsIn(
      "memory = 67_108_864\nfiles = 100\ntasks = 10\nnice = -3\noom_score = -5\numask = \"027\"\n"
      "new_privileges = true\n");
  EXPECT_EQ(limits.memory, 67'108'864u);
  EXPECT_EQ(limits.files, 100u);
  EXPECT_EQ(limits.tasks, 10u);
  EXPECT_EQ(limits.nice, -3);
  EXPECT_EQ(limits.oomScore, -5);
  EXPECT_EQ(limits.umask, mode_t{027});
  EXPECT_TRUE(limits.mayGainPrivileges);
}

TEST(ProcessLimitsTest, WhatIsNoneIsAMistakeInItsLine) {
  EXPECT_EQ(mistakesIn("memory = 4096"),
            "f:5: [service] memory: expected a number from 1048576 to 70368744177664, found 4096");
  EXPECT_EQ(mistakesIn("memory = \"64M\""),
            "f:5: [service] memory: expected a number from 1048576 to 70368744177664, found \"64M\"");
  EXPECT_EQ(mistakesIn("files = 3"), "f:5: [service] files: expected a number from 16 to 1048576, found 3");
  EXPECT_EQ(mistakesIn("tasks = 0"), "f:5: [service] tasks: expected a number from 1 to 4194304, found 0");
  EXPECT_EQ(mistakesIn("nice = 20"), "f:5: [service] nice: expected a number from -20 to 19, found 20");
  EXPECT_EQ(mistakesIn("oom_score = 1001"),
            "f:5: [service] oom_score: expected a number from -1000 to 1000, found 1001");
  for (const char* mask : {"22", "\"\"", "\"8\"", "\"1777\"", "\"00022\"", "\"-1\""})
    EXPECT_EQ(mistakesIn(std::string("umask = ") + mask),
              std::string(
                  "f:5: [service] umask: expected a text of octal digits, from \"000\" to \"0777\", found ") +
                  mask);
}

TEST(ProcessLimitsTest, WhatTheLoaderDoesNotStartHasNone) {
  Mistakes mistakes;
  (void)parsed("[[service]]\nname = \"x\"\nid = 3\nnice = 5\n", mistakes);
  EXPECT_EQ(
      textOf(mistakes),
      "f:1: [service]: expected a command: a process that the loader does not start has no limits of it");
}

TEST(ProcessLimitsTest, WhatDoesNotBindRootIsTold) {
  if (::geteuid() != 0) GTEST_SKIP() << "another user's processes are bound";
  Mistakes mistakes;
  EXPECT_EQ(textOf(parsed(kService + std::string("tasks = 10\n"), mistakes).warnings),
            "f:5: [service] tasks: never binds: root may have any number of them");
}

TEST(ProcessLimitsTest, WhatOnlyRootMayGiveIsTold) {
  const auto result = kl::test::runInChild([] {
    if (::geteuid() == 0 && ::setuid(54323) != 0) ::_exit(2);
    Mistakes mistakes;
    const std::string told = textOf(
        parsed(kService + std::string("nice = -3\noom_score = -5\nfiles = 1048576\n"), mistakes).warnings);
    const bool isTold = told.find("f:5: [service] nice: only root may give less than 0") != told.npos &&
                        told.find("f:6: [service] oom_score: only root may give less than 0") != told.npos;
    ::_exit(isTold ? 0 : 1);
  });
  EXPECT_EQ(result.exitStatus, 0) << result.err;
}

}  // namespace

// The fate of services when the configuration is read anew.

#include "services/loader/config/difference.h"

#include <gtest/gtest.h>
#include <unistd.h>

namespace loader {
namespace {

using Names = std::vector<std::string>;

const std::string kNetif = "[[service]]\nname = \"netif\"\nid = 32\ncommand = [\"/bin/netif\"]\n";
const std::string kOther = "[[service]]\nname = \"other\"\nid = 33\n";

Configuration parsed(const std::string& text) {
  common::Mistakes mistakes;
  Configuration configuration = parseConfiguration(text, "f", mistakes);
  for (const common::Mistake& mistake : mistakes) ADD_FAILURE() << mistake.describe();
  return configuration;
}

Difference between(const std::string& former, const std::string& now) {
  return differenceOf(parsed(former), parsed(now));
}

TEST(Difference, TheSameTextChangesNothing) {
  const Difference difference = between(kNetif + kOther, kNetif + kOther);
  EXPECT_EQ(difference.unchanged, 2u);
  EXPECT_EQ(difference.describe(), "2 unchanged");
}

TEST(Difference, OrderAndCommentsAreNoChange) {
  const std::string access = "access = { \"root\" = \"all\" }\n";
  const Difference difference =
      between(kNetif + access + kOther, "# moves every line\n\n" + kOther + kNetif + access);
  EXPECT_EQ(difference.describe(), "2 unchanged");
}

TEST(Difference, ServicesThatCameAndWentAreNamed) {
  const Difference difference = between(kNetif, kOther);
  EXPECT_EQ(difference.started, Names{"other"});
  EXPECT_EQ(difference.ended, Names{"netif"});
  EXPECT_EQ(difference.describe(), "1 started, 1 ended");
}

TEST(Difference, AServiceWithAnotherIdIsAnotherOne) {
  const Difference difference = between(kOther, "[[service]]\nname = \"other\"\nid = 34\n");
  EXPECT_EQ(difference.started, Names{"other"});
  EXPECT_EQ(difference.ended, Names{"other"});
}

TEST(Difference, WhoStartsAServiceMakesItAnotherOne) {
  const Difference difference = between(kOther, kOther + "command = [\"/bin/other\"]\n");
  EXPECT_EQ(difference.started, Names{"other"});
  EXPECT_EQ(difference.ended, Names{"other"});
}

TEST(Difference, TheKeysThatChangedAreNamed) {
  const Difference difference = between("[rights]\nroot = \"all\"\n" + kNetif + kOther,
                                        kNetif + "memory = 2097152\nrestart = \"never\"\nfolder = \"/\"\n" +
                                            kOther + "access = { root = 64 }\n");
  EXPECT_EQ(difference.restarted, Names{"netif"});
  EXPECT_EQ(difference.restartedKeys, Names{"folder, memory, restart"});
  EXPECT_EQ(difference.adjusted, (Names{"[rights]", "other"}));
  EXPECT_EQ(difference.adjustedKeys, (Names{"", "access"}));
}

TEST(Difference, WhatTheProcessIsGivenRestartsIt) {
  for (const char* key : {"command = [\"/bin/netif\", \"-v\"]", "folder = \"/tmp\"",
                          "environment = { A = \"b\" }", "settings = { 0x08000007 = 1 }", "memory = 67108864",
                          "files = 100", "tasks = 10", "nice = 3", "oom_score = 5", "umask = \"027\"",
                          "capabilities = []", "new_privileges = true", "profile = \"plain\""}) {
    const std::string now =
        "[[service]]\nname = \"netif\"\nid = 32\n" +
        (std::string(key).starts_with("command") ? "" : std::string("command = [\"/bin/netif\"]\n")) + key;
    EXPECT_EQ(between(kNetif, now).restarted, Names{"netif"}) << key;
  }
}

TEST(Difference, WhoItRunsAsRestartsIt) {
  if (::geteuid() != 0) GTEST_SKIP() << "another user is for root to give";
  EXPECT_EQ(between(kNetif, kNetif + "user = \"nobody\"").restarted, Names{"netif"});
  EXPECT_EQ(between(kNetif, kNetif + "user = \"root\"").describe(), "1 unchanged");
}

TEST(Difference, WhatConcernsTheLoaderAloneRestartsNobody) {
  for (const char* key : {"restart = \"never\"", "start = false", "start = \"demand\"", "start_seconds = 3",
                          "leave_idle_seconds = 4", "watchdog_seconds = 3", "access = { root = \"all\" }",
                          "commands = { CMD_GET = \"none\" }"})
    EXPECT_EQ(between(kNetif, kNetif + key).adjusted, Names{"netif"}) << key;
  EXPECT_EQ(between(kNetif, "[[service]]\nname = \"lan\"\nid = 32\ncommand = [\"/bin/netif\"]\n").adjusted,
            Names{"lan"});
}

TEST(Difference, RightsOfUsersAndOfTheLoaderAreNamedByTheirTables) {
  const Difference difference =
      between("", "[loader]\naccess = { root = \"all\" }\n[rights]\ndefault = \"none\"\n");
  EXPECT_EQ(difference.adjusted, (Names{"[rights]", "[loader]"}));
  EXPECT_EQ(between("", "[loader]\nmetrics_socket = true\n").adjusted, Names{"[loader]"});
  EXPECT_EQ(between("", "[loader]\ndescriptions = \"/nowhere\"\n").adjusted, Names{"[loader]"});
}

TEST(Difference, WhatTheLoaderGoesByUntilItsEndIsForLater) {
  const Difference difference = between(
      "",
      "[loader]\nstate_folder = \"/a\"\nqueue_limit = 5000\nstall_seconds = 3\n[quota]\nregistrations = 7\n");
  EXPECT_EQ(difference.later,
            (Names{"loader.state_folder", "loader.queue_limit", "loader.stall_seconds", "quota"}));
  EXPECT_EQ(difference.describe(), "4 for the next start of the loader");
}

}  // namespace
}  // namespace loader

#include "services/loader/config/configuration.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "kl/conventions.h"
#include "kl/utilities.h"

namespace {

using common::Mistake;
using loader::Configuration;
using loader::RestartRule;
using loader::Rights;

Configuration read(const std::string& text) {
  std::vector<Mistake> mistakes;
  Configuration c = loader::parseConfiguration(text, "test.toml", mistakes);
  for (const Mistake& m : mistakes) ADD_FAILURE() << m.describe();
  return c;
}

// The mistakes of a text, one a line.
std::string mistakesIn(const std::string& text) {
  std::vector<Mistake> mistakes;
  (void)loader::parseConfiguration(text, "test.toml", mistakes);
  std::string result;
  for (const Mistake& m : mistakes) result += (result.empty() ? "" : "\n") + m.describe();
  return result;
}

// The warnings of a text without mistakes, one a line.
std::string warningsIn(const std::string& text) {
  std::string result;
  for (const Mistake& m : read(text).warnings) result += (result.empty() ? "" : "\n") + m.describe();
  return result;
}

constexpr char kService[] = "[[service]]\nname = \"x\"\nid = 32\n";

std::string mistakesInService(const std::string& lines) { return mistakesIn(kService + lines); }

TEST(Configuration, AnEmptyFileIsTheBuiltInConfiguration) {
  const Configuration c = read("");
  const Configuration builtIn = loader::defaultConfiguration();
  EXPECT_EQ(c.stateFolder, builtIn.stateFolder);
  EXPECT_EQ(c.queueLimit, 1024u * 1024);
  EXPECT_EQ(c.stallSeconds, 10u);
  EXPECT_EQ(c.startSeconds, 60u);
  EXPECT_FALSE(c.metrics.isOn);
  EXPECT_TRUE(c.rights.empty());
  EXPECT_TRUE(c.destinationsWithAccess().empty());
  EXPECT_TRUE(c.services.empty());
  EXPECT_EQ(c.stateFolder + "/", kl::runFolderPath().substr(0, kl::runFolderPath().size() - 3) + "loader/");
}

TEST(Configuration, EveryKeyIsRead) {
  const Configuration c = read(R"(
[loader]
state_folder = "/var/lib/kelo"
queue_limit = 65536
access = { default = "none" }
stall_seconds = 0
start_seconds = 90

[rights]
default = "read"
"@bin" = "all"
daemon = ["read", "change", "control"]
bin = 0x41

[[service]]
name = "netif"
id = 0x20
command = ["/usr/bin/netif", "--quiet"]
user = "daemon"
folder = "/tmp"
environment = { LANG = "C" }
rights = ["read"]
access = { default = "none" }
commands = { "0x60001" = "control" }
restart = "never"
start = false
start_seconds = 0

[service.settings]
0x08000007 = 1000

[[service]]
name = "other"
id = 33
)");
  EXPECT_EQ(c.stateFolder, "/var/lib/kelo");
  EXPECT_EQ(c.queueLimit, 65536u);
  EXPECT_EQ(c.stallSeconds, 0u);
  EXPECT_EQ(c.startSeconds, 90u);
  ASSERT_EQ(c.rights.entries.size(), 4u);
  EXPECT_EQ(c.rights.entries[0].rights, Rights::of(64 | 128 | 512));
  EXPECT_EQ(c.rights.entries[1].rights, Rights::of(0x41));
  EXPECT_EQ(c.rights.entries[2].rights, Rights::everything());
  EXPECT_EQ(c.rights.entries[3].rights, Rights::of(64));
  ASSERT_EQ(c.services.size(), 2u);
  const loader::ServiceConfiguration& s = c.services[0];
  EXPECT_EQ(s.id, 32u);
  EXPECT_EQ(s.startSeconds, 0u);
  EXPECT_EQ(c.services[1].startSeconds, 90u);
  EXPECT_EQ(s.name, "netif");
  EXPECT_EQ(s.command, (std::vector<std::string>{"/usr/bin/netif", "--quiet"}));
  EXPECT_EQ(s.user, "daemon");
  EXPECT_EQ(s.folder, "/tmp");
  EXPECT_EQ(s.environment.at("LANG"), "C");
  EXPECT_EQ(s.rights, Rights::of(64));
  EXPECT_EQ(s.userId(), 1u);
  EXPECT_EQ(c.accessOf(32), &s.access);
  EXPECT_EQ(c.accessOf(kl::SERVICE_LOADER), &c.access);
  EXPECT_EQ(c.accessOf(33), nullptr);
  EXPECT_EQ(c.destinationsWithAccess(), (std::vector<unsigned int>{kl::SERVICE_LOADER, 32}));
  ASSERT_TRUE(s.commands);
  EXPECT_EQ(s.commands->at(0x60001), 512u);
  EXPECT_EQ(s.restart, RestartRule::kNever);
  EXPECT_FALSE(s.startsAtBoot);
  EXPECT_EQ(kl::message(s.settings).get_u32(0x08000007, 0), 1000u);
  EXPECT_TRUE(c.services[1].command.empty());
  EXPECT_FALSE(c.services[1].rights);
  EXPECT_FALSE(c.services[1].commands);
  EXPECT_TRUE(c.services[1].startsAtBoot);
  EXPECT_EQ(c.services[1].restart, RestartRule::kAfterCrash);
  EXPECT_TRUE(c.services[1].settings.empty());
}

TEST(Configuration, QuotasAreReadAndOthersStandWithTheirDefaults) {
  const loader::Limits builtIn;
  EXPECT_EQ(read("").quota.user, builtIn.user);
  EXPECT_EQ(read("").quota.registrations, 100u);
  const loader::Limits quota = read(R"(
[quota]
registrations = 7
registration_burst = 8
[quota.user]
connections = 9
[quota.all]
queue_bytes = 1000000
[quota.reserve]
requests = 10
)")
                                   .quota;
  EXPECT_EQ(quota.registrations, 7u);
  EXPECT_EQ(quota.registrationBurst, 8u);
  EXPECT_EQ(quota.user[loader::Resource::kConnections], 9u);
  EXPECT_EQ(quota.user[loader::Resource::kQueueBytes], builtIn.user[loader::Resource::kQueueBytes]);
  EXPECT_EQ(quota.all[loader::Resource::kQueueBytes], 1000000u);
  EXPECT_EQ(quota.reserve[loader::Resource::kRequests], 10u);
}

TEST(Configuration, AQuotaThatNobodyCouldWorkWithIsAMistake) {
  EXPECT_NE(
      mistakesIn("[quota.user]\nqueue_bytes = 1000\n").find("queue_bytes: expected a number from 131072"),
      std::string::npos);
  EXPECT_NE(mistakesIn("[quota.user]\nbytes = 1000\n"), "");
  EXPECT_NE(mistakesIn("[quota]\nregistrations = 0\n"), "");
}

TEST(Configuration, AKnownNameNeedsNoId) {
  EXPECT_EQ(read("[[service]]\nname = \"system\"\n").services.at(0).id, 24u);
}

TEST(Configuration, MistakesNameFileLineAndWhatWasExpected) {
  EXPECT_EQ(mistakesIn("[loader]\nqueue_limit = \"much\"\n"),
            "test.toml:2: [loader] queue_limit: expected a number from 4096 to 16777216, found \"much\"");
  EXPECT_EQ(mistakesIn("\n\n[loader]\nqueue_limit = 1\n"),
            "test.toml:4: [loader] queue_limit: expected a number from 4096 to 16777216, found 1");
  EXPECT_EQ(mistakesInService("start = 1\n"),
            "test.toml:4: [service] start: expected true, false or \"demand\", found 1");
  EXPECT_EQ(mistakesInService("start = \"boot\"\n"),
            "test.toml:4: [service] start: expected true, false or \"demand\", found \"boot\"");
  EXPECT_EQ(mistakesInService("leave_idle_seconds = -1\n"),
            "test.toml:4: [service] leave_idle_seconds: expected a number from 0 to 86400, found -1");
  EXPECT_EQ(
      mistakesInService("leave_idle_seconds = 1.5\n"),
      "test.toml:4: [service] leave_idle_seconds: expected a number from 0 to 86400, found a number with a "
      "fraction");
  EXPECT_EQ(mistakesInService("command = \"/bin/x\"\n"),
            "test.toml:4: [service] command: expected a list of texts: the program and its arguments, found "
            "\"/bin/x\"");
  EXPECT_EQ(mistakesInService("restart = \"maybe\"\n"),
            "test.toml:4: [service] restart: expected \"crash\", \"always\" or \"never\", found \"maybe\"");
  EXPECT_EQ(
      mistakesInService("command = [\"/bin/x\"]\nuser = \"no such user\"\n"),
      "test.toml:5: [service] user: expected the name of a user of this system, found \"no such user\"");
  EXPECT_EQ(mistakesInService("rights = \"some\"\n"),
            "test.toml:4: [service] rights: expected \"none\", \"all\", \"read\", \"change\", \"control\", "
            "\"contents\", a list of rights, or a number of policy bits, found \"some\"");
  EXPECT_EQ(mistakesInService("environment = { A = 1 }\n"),
            "test.toml:4: [environment] A: expected a text, found 1");
  EXPECT_EQ(mistakesInService("environment = { KL_ROOT = \"/tmp/x\" }\n"),
            "test.toml:4: [service] environment: expected no KL_ROOT: services have that of the loader");
}

TEST(Configuration, WhomTheSystemDoesNotKnowIsAWarningWhereNobodyNeedsHim) {
  EXPECT_EQ(warningsIn("[rights]\nnobodyknowsme = \"all\"\n\"@norsuchgroup\" = \"read\"\n"),
            "test.toml:2: [rights] nobodyknowsme: never matches: this system has nobody of that name\n"
            "test.toml:3: [rights] @norsuchgroup: never matches: this system has nobody of that name");
  EXPECT_EQ(warningsIn(std::string(kService) + "user = \"nobodyknowsme\"\n"),
            "test.toml:4: [service] user: this system has nobody of that name");
  EXPECT_EQ(warningsIn("[rights]\n1 = \"read\"\n"),
            "test.toml:2: [rights] 1: never matches: this system has nobody of that name");
}

TEST(Configuration, OwnRightsOfWhoMayDoEverythingAreAWarning) {
  EXPECT_EQ(warningsIn(std::string(kService) + "rights = \"read\"\n"),
            "test.toml:4: [service] rights: never matches: root and the loader's own user may do everything "
            "anyway");
  EXPECT_EQ(warningsIn(std::string(kService) + "user = \"daemon\"\nrights = \"read\"\n"), "");
}

TEST(Configuration, TheSocketOfMetricsIsForTheLoaderAloneOrForAGroup) {
  EXPECT_EQ(read("[loader]\nmetrics_socket = true\n").metrics,
            (loader::MetricsSocket{true, loader::MetricsSocket::kOwnGroup}));
  EXPECT_EQ(read("[loader]\nmetrics_socket = true\nmetrics_group = \"root\"\n").metrics,
            (loader::MetricsSocket{true, 0}));
  constexpr char kUnknown[] = "[loader]\nmetrics_socket = true\nmetrics_group = \"nobodyknowsus\"\n";
  EXPECT_FALSE(read(kUnknown).metrics.isOn);
  EXPECT_EQ(warningsIn(kUnknown),
            "test.toml:3: [loader] metrics_group: this system has no such group, so there is no socket");
  EXPECT_EQ(warningsIn("[loader]\nmetrics_group = \"root\"\n"),
            "test.toml:2: [loader] metrics_group: there is no socket for it: metrics_socket is not true");
}

TEST(Configuration, ASyntaxMistakeHasItsLine) {
  const std::string text = mistakesIn("[loader]\nqueue_limit = \n");
  EXPECT_EQ(text.rfind("test.toml:2: expected TOML: ", 0), 0u) << text;
}

TEST(Configuration, AnUnknownKeyIsAMistake) {
  EXPECT_EQ(
      mistakesIn("[loader]\nqueue_limits = 4096\n"),
      "test.toml:2: [loader] queue_limits: expected one of the keys access, descriptions, metrics_group, "
      "metrics_socket, queue_limit, stall_seconds, start_seconds, state_folder");
  EXPECT_EQ(mistakesIn("\n[services]\n"),
            "test.toml:2: services: expected one of the keys loader, quota, rights, service");
  EXPECT_NE(
      mistakesInService("comand = [\"/bin/x\"]\n")
          .find("test.toml:4: [service] comand: expected one of the keys access, capabilities, command, "),
      std::string::npos);
}

TEST(Configuration, EveryMistakeIsReported) {
  const std::string all = mistakesIn("[loader]\na = 1\nb = 2\n[rights]\ndefault = 1.5\n");
  EXPECT_EQ(std::count(all.begin(), all.end(), '\n'), 2) << all;
}

TEST(Configuration, AServiceNeedsANameAndAnId) {
  EXPECT_EQ(mistakesIn("[[service]]\nid = 3\n"), "test.toml:1: [service]: expected a name for this service");
  EXPECT_EQ(
      mistakesIn("[[service]]\nname = \"x y\"\n"),
      "test.toml:1: [service]: expected an id: the name \"x y\" is not one that the system has a number for");
}

TEST(Configuration, AServiceMayBeStartedOnDemandAndLeaveWhenItIsIdle) {
  const Configuration c = read(
      "[[service]]\nname = \"x\"\nid = 3\ncommand = [\"/bin/x\"]\nstart = \"demand\"\nleave_idle_seconds = "
      "60\n"
      "[[service]]\nname = \"y\"\nid = 4\ncommand = [\"/bin/x\"]\n");
  EXPECT_TRUE(c.services.at(0).startsOnDemand);
  EXPECT_FALSE(c.services.at(0).startsAtBoot);
  EXPECT_EQ(c.services.at(0).leaveIdleSeconds, 60u);
  EXPECT_FALSE(c.services.at(1).startsOnDemand);
  EXPECT_TRUE(c.services.at(1).startsAtBoot);
  EXPECT_EQ(c.services.at(1).leaveIdleSeconds, 0u);
}

TEST(Configuration, WhatTheLoaderDoesNotStartCannotWaitToBeStarted) {
  EXPECT_EQ(mistakesIn("[[service]]\nname = \"x\"\nid = 3\nstart = \"demand\"\n"),
            "test.toml:1: [service]: expected a command: start is \"demand\"");
  EXPECT_EQ(mistakesIn("[[service]]\nname = \"x\"\nid = 3\nleave_idle_seconds = 5\n"),
            "test.toml:1: [service]: expected a command: leave_idle_seconds is not 0");
  EXPECT_EQ(mistakesIn("[[service]]\nname = \"x\"\nid = 3\nwatchdog_seconds = 5\n"),
            "test.toml:1: [service]: expected a command: watchdog_seconds is not 0");
}

TEST(Configuration, SomeIdsCannotBeConfigured) {
  for (const char* id : {"0", "1", "0xff0001", "0xff0002", "0xff0003", "0xffffffff"})
    EXPECT_NE(mistakesIn("[[service]]\nname = \"x\"\nid = " + std::string(id) + "\n")
                  .find("test.toml:3: [service] id: expected a service id"),
              std::string::npos)
        << id;
  EXPECT_EQ(read("[[service]]\nname = \"x\"\nid = 0xfffffffe\n").services.at(0).id, 0xfffffffeu);
}

TEST(Configuration, IdsAndNamesAreEachTheirOwn) {
  EXPECT_EQ(mistakesIn("[[service]]\nname = \"x\"\nid = 3\n[[service]]\nname = \"x\"\nid = 3\n"),
            "test.toml:4: [service]: expected an id of its own: another service has it\n"
            "test.toml:4: [service]: expected a name of its own: another service has it");
}

TEST(Configuration, AFileThatCannotBeReadIsAMistake) {
  std::vector<Mistake> mistakes;
  (void)loader::readConfiguration({"/nowhere/kl-loader.toml", true}, mistakes);
  ASSERT_EQ(mistakes.size(), 1u);
  EXPECT_EQ(mistakes[0].describe(),
            "/nowhere/kl-loader.toml: expected a file that can be read: No such file or directory");
}

TEST(Configuration, AnEmptyFileIsRight) {
  std::vector<Mistake> mistakes;
  (void)loader::readConfiguration({"/dev/null", true}, mistakes);
  EXPECT_TRUE(mistakes.empty());
}

TEST(Configuration, TheExampleIsRight) {
  std::vector<Mistake> mistakes;
  const Configuration c =
      loader::readConfiguration({KL_SOURCE_DIR "/services/loader/kl-loader.toml", true}, mistakes);
  for (const Mistake& m : mistakes) ADD_FAILURE() << m.describe();
  EXPECT_FALSE(c.services.empty());
}

TEST(Configuration, AFileThatIsAFolderIsAMistake) {
  std::vector<Mistake> mistakes;
  (void)loader::readConfiguration({"/tmp", true}, mistakes);
  ASSERT_EQ(mistakes.size(), 1u);
  EXPECT_EQ(mistakes[0].describe(), "/tmp: expected a file that can be read: Is a directory");
}

TEST(Configuration, WithoutAFileAtTheUsualPlaceItIsTheBuiltInOne) {
  std::vector<Mistake> mistakes;
  const Configuration c = loader::readConfiguration({"/nowhere/kl-loader.toml", false}, mistakes);
  EXPECT_TRUE(mistakes.empty());
  EXPECT_EQ(c.stateFolder, loader::defaultConfiguration().stateFolder);
}

TEST(ConfigurableIds, TheLoaderAndThePathValuesAreNotAmongThem) {
  for (const unsigned int id : {0u, 1u, kl::PATH_ALL, kl::PATH_MULTI, kl::PATH_SELF, kl::BADID})
    EXPECT_FALSE(loader::isConfigurable(id)) << id;
  for (const unsigned int id : {2u, 24u, 0x10000u, 0xff0000u, 0xff0004u, 0xfffffffeu})
    EXPECT_TRUE(loader::isConfigurable(id)) << id;
}

}  // namespace

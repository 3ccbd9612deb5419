#include "services/loader/config/service_names.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "services/loader/config/configuration.h"

namespace {

using loader::ServiceNames;

// A folder with the description of the service "leases", and configurations that use it.
class ServiceNamesTest : public testing::Test {
 protected:
  ServiceNamesTest() {
    char name[] = "/tmp/loader-names-XXXXXX";
    folder_ = ::mkdtemp(name);
    describe(
        "settings = [{ name = \"seconds\", field = \"u32:1\", min = 60, max = 7200 },\n"
        "{ name = \"mode\", field = \"u32:2\", values = { slow = 1, fast = 2 } },\n"
        "{ name = \"card\", field = \"string:3\", max = 4 },\n"
        "{ name = \"pool\", field = \"message:4\" }]\n"
        "fields = [{ name = \"first\", field = \"u32:9\" }]\n"
        "[[objects]]\nname = \"lease\"\n"
        "commands = [{ name = \"release_all\", code = 0x60001, right = \"change\" },\n"
        "{ name = \"go\", code = 7, right = \"read\" }]\n"
        "[[objects]]\nname = \"pool\"\nhandler = 1\n"
        "commands = [{ name = \"release_all\", code = 0x60001, right = \"change\" },\n"
        "{ name = \"go\", code = 8, right = \"read\" }]\n");
  }
  ~ServiceNamesTest() override { std::filesystem::remove_all(folder_); }

  void describe(const std::string& text) { std::ofstream(folder_ / "leases.toml") << text; }

  loader::Configuration read(const std::string& service) {
    mistakes_.clear();
    return loader::parseConfiguration("[loader]\ndescriptions = \"" + folder_.string() +
                                          "\"\n[[service]]\nname = \"leases\"\nid = 300\n" + service,
                                      "f", mistakes_);
  }

  kl::message settings(const std::string& text) {
    const auto configuration = read("[service.settings]\n" + text);
    for (const common::Mistake& m : mistakes_) ADD_FAILURE() << m.describe();
    return kl::message(configuration.services.at(0).settings);
  }

  // The only mistake.
  std::string mistakeOf(const std::string& service) {
    (void)read(service);
    EXPECT_EQ(mistakes_.size(), 1u) << service;
    return mistakes_.empty() ? "" : mistakes_.front().describe();
  }

  std::filesystem::path folder_;
  common::Mistakes mistakes_;
};

TEST_F(ServiceNamesTest, SettingsHaveNames) {
  const kl::message m =
      settings("seconds = 600\nmode = \"fast\"\ncard = \"eth0\"\npool = { first = 5, 0x08000007 = 6 }\n");
  EXPECT_EQ(m.get_u32(0x08000001, 0), 600u);
  EXPECT_EQ(m.get_u32(0x08000002, 0), 2u);
  EXPECT_EQ(m.get_string(0x20000003, ""), "eth0");
  const kl::message pool(m.get_message(0x28000004, {}));
  EXPECT_EQ(pool.get_u32(0x08000009, 0), 5u);
  EXPECT_EQ(pool.get_u32(0x08000007, 0), 6u);
}

TEST_F(ServiceNamesTest, NumbersAreTakenAsTheyAre) {
  EXPECT_EQ(settings("0x08000001 = 1\nmode = 77\n").get_u32(0x08000001, 0), 1u);
  EXPECT_EQ(settings("mode = 77\n").get_u32(0x08000002, 0), 77u);  // values without a word are legal
}

TEST_F(ServiceNamesTest, ANameThatThereIsNotIsAMistakeInItsLine) {
  EXPECT_EQ(mistakeOf("[service.settings]\nsecond = 600\n"),
            "f:7: [service] second: expected a key that is a field id, like 0x08000007, or a name (" +
                (folder_ / "leases.toml").string() +
                " has the settings seconds, mode, card, pool), found 600");
  EXPECT_EQ(
      mistakeOf("commands = { release_al = \"read\" }\n"),
      "f:6: [commands] release_al: expected a key that is a command, like \"0x60001\" or \"CMD_START\", or "
      "a name (" +
          (folder_ / "leases.toml").string() + " has the commands release_all, go), found \"read\"");
}

TEST_F(ServiceNamesTest, SettingsKeepTheBoundsOfTheDescription) {
  EXPECT_EQ(mistakeOf("[service.settings]\nseconds = 59\n"),
            "f:7: [service] seconds: expected a number from 0 to 4294967295, at least 60 and at most 7200, "
            "found 59");
  EXPECT_NE(mistakeOf("[service.settings]\nseconds = 7201\n").find("at most 7200"), std::string::npos);
  EXPECT_NE(mistakeOf("[service.settings]\ncard = \"eth01\"\n").find("at most 4"), std::string::npos);
  EXPECT_NE(mistakeOf("[service.settings]\nmode = \"medium\"\n").find("or \"slow\", or \"fast\""),
            std::string::npos);
  EXPECT_NE(mistakeOf("[service.settings]\nmode = -1\n").find("found -1"), std::string::npos);
}

TEST_F(ServiceNamesTest, WhatIsGivenByNameAndByNumberIsAMistake) {
  EXPECT_NE(mistakeOf("[service.settings]\n0x08000001 = 600\nseconds = 600\n").find("each setting once"),
            std::string::npos);
  EXPECT_NE(mistakeOf("commands = { \"0x60001\" = \"read\", release_all = \"read\" }\n").find("given twice"),
            std::string::npos);
}

TEST_F(ServiceNamesTest, CommandsHaveNames) {
  const auto configuration = read("commands = { release_all = \"control\" }\n");
  EXPECT_TRUE(mistakes_.empty());
  EXPECT_EQ(configuration.services.at(0).commands->at(0x60001), 512u);
}

TEST_F(ServiceNamesTest, ANameOfTwoCommandsIsAMistake) {
  EXPECT_EQ(mistakeOf("commands = { go = \"control\" }\n"),
            "f:6: [commands] go: several commands of the service have this name: give their numbers");
}

TEST_F(ServiceNamesTest, ADescriptionIsReadOnlyForANameAndItsMistakesAreTold) {
  describe("fields = 7\n");
  (void)read("commands = { \"0x60001\" = \"read\" }\n[service.settings]\n0x08000001 = 1\n");
  EXPECT_TRUE(mistakes_.empty());
  (void)read("[service.settings]\nseconds = 600\n");
  ASSERT_EQ(mistakes_.size(), 2u);
  EXPECT_EQ(mistakes_[0].describe(),
            (folder_ / "leases.toml").string() + ":1: expected a list 'fields = [ ... ]'");
  EXPECT_NE(mistakes_[1].describe().find("which cannot be read"), std::string::npos)
      << mistakes_[1].describe();
}

TEST_F(ServiceNamesTest, WithoutADescriptionThereAreNoNames) {
  std::filesystem::remove(folder_ / "leases.toml");
  EXPECT_EQ(mistakeOf("[service.settings]\nseconds = 600\n"),
            "f:7: [service] seconds: expected a key that is a field id, like 0x08000007, or a name (names "
            "are those "
            "of " +
                (folder_ / "leases.toml").string() + ", which cannot be read), found 600");
}

TEST(InstalledDescriptions, AreThoseBesideTheProgram) {
  common::Mistakes mistakes;
  ServiceNames names(loader::installedDescriptions(), "system", mistakes);
  ASSERT_NE(names.findSetting("look_ticks"), nullptr);
  EXPECT_EQ(names.findSetting("look_ticks")->id, 0x08000001u);
  EXPECT_EQ(names.findSetting("look"), nullptr);
  EXPECT_TRUE(mistakes.empty());
}

}  // namespace

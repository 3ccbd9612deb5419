#include "services/loader/config/commands.h"

#include <gtest/gtest.h>

#include "kl/conventions.h"
#include "services/common/tap.h"

namespace {

using loader::CommandRights;

class CommandsTest : public testing::Test {
 protected:
  CommandRights read(const std::string& table) {
    mistakes_.clear();
    const auto file = common::parseToml("commands = " + table, "f", mistakes_);
    if (!file) return {};
    common::Section whole(*file, "service", "f", mistakes_);
    return loader::readCommands(whole);
  }

  common::Mistakes mistakes_;
};

TEST_F(CommandsTest, StandardCommandsNeedWhatTheLibrarySays) {
  const CommandRights commands = loader::standardCommands();
  EXPECT_EQ(commands.at(kl::CMD_GETALL), kl::RIGHT_READ);
  EXPECT_EQ(commands.at(kl::CMD_SET), kl::RIGHT_CHANGE);
  EXPECT_EQ(commands.at(kl::CMD_START), kl::RIGHT_CONTROL);
  EXPECT_EQ(commands.at(kl::CMD_NOTIFY), kl::RIGHT_OF_NOBODY);
  EXPECT_FALSE(commands.contains(kl::CMD_SHUTDOWN));
  EXPECT_FALSE(commands.contains(0x60001));
}

TEST_F(CommandsTest, ToOrderAtTheLoaderIsToControl) {
  EXPECT_EQ(loader::loaderCommands().at(kl::CMD_SETOBJ), kl::RIGHT_CONTROL);
  EXPECT_EQ(loader::loaderCommands().at(common::tap::CMD_TAP), kl::RIGHT_CONTROL);
  EXPECT_EQ(loader::loaderCommands().at(kl::CMD_GETALL), kl::RIGHT_READ);
}

TEST_F(CommandsTest, ATableNamesCommandsByNumberOrByName) {
  const CommandRights commands = read(
      "{ \"0x60001\" = \"read\", \"0x60002\" = [\"change\", \"control\"], \"0x60003\" = \"none\", "
      "CMD_SHUTDOWN = "
      "\"control\", SETOBJ = \"read\", \"0x60004\" = \"all\" }");
  EXPECT_TRUE(mistakes_.empty());
  EXPECT_EQ(commands.at(0x60001), 64u);
  EXPECT_EQ(commands.at(0x60002), 128u | 512u);
  EXPECT_EQ(commands.at(0x60003), 0u);
  EXPECT_EQ(commands.at(0x60004), 0xffffffffu);
  EXPECT_EQ(commands.at(kl::CMD_SHUTDOWN), 512u);
  EXPECT_EQ(commands.at(kl::CMD_SETOBJ), 64u);  // in the place of the library's
  EXPECT_EQ(commands.at(kl::CMD_GETALL), 64u);
}

TEST_F(CommandsTest, OtherKeysAreMistakes) {
  for (const char* table : {"{ START2 = \"read\" }", "{ \"60001\" = \"read\" }", "{ \"0x\" = \"read\" }",
                            "{ \"0x1ffffffff\" = \"read\" }", "{ \"0x60001\" = \"some\" }", "\"all\""}) {
    (void)read(table);
    EXPECT_EQ(mistakes_.size(), 1u) << table;
  }
}

TEST_F(CommandsTest, ACommandIsShownByItsNameOrItsNumber) {
  EXPECT_EQ(loader::nameOfCommand(kl::CMD_SETOBJ), "CMD_SETOBJ");
  EXPECT_EQ(loader::nameOfCommand(0x60001), "0x60001");
}

}  // namespace

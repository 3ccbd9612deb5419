#include "services/describe/told.h"

#include <gtest/gtest.h>

#include "services/describe/json.h"
#include "tests/services/describe/described.h"

namespace describe {
namespace {

Description installed() {
  return described(
      "fields = [{ name = \"pin\", field = \"string:1\", secret = true }]\n"
      "[[objects]]\nname = \"door\"\nfields = [\"pin\"]\n"
      "commands = [{ name = \"open\", code = 7, right = \"control\" }]\n");
}

}  // namespace

TEST(Told, AnEqualOneChangesNothing) {
  EXPECT_EQ(jsonOf(completed(installed(), installed())), jsonOf(installed()));
  EXPECT_TRUE(differencesOf(installed(), installed()).empty());
}

TEST(Told, AProcessAddsNames) {
  const Description told = described(
      "fields = [{ name = \"colour\", field = \"u32:2\", values = { red = 1 } }]\n"
      "topics = [{ name = \"door\", number = 300 }]\n"
      "[[objects]]\nname = \"door\"\nfields = [\"colour\"]\n"
      "commands = [{ name = \"paint\", code = 8, right = \"none\" }]\n"
      "[[objects]]\nname = \"bell\"\nhandler = 3\n");
  const Description all = completed(installed(), told);
  EXPECT_EQ(all.fields.at(1).name, "colour");
  EXPECT_EQ(all.fields.at(1).values.at(0).word, "red");
  EXPECT_EQ(all.objects.at(0).fields, (std::vector<std::string>{"pin", "colour"}));
  EXPECT_EQ(all.objects.at(0).commands.at(1).name, "paint");
  EXPECT_EQ(all.objects.at(0).commands.at(1).right, "");  // nobody who is believed says which
  EXPECT_EQ(all.objects.at(1).handler, 3u);
  EXPECT_EQ(all.topics.at(0).number, 300u);
}

TEST(Told, SecretsAndRightsAreThoseThatAreInstalled) {
  const Description told = described(
      "fields = [{ name = \"pin\", field = \"string:1\" }, { name = \"new\", field = \"u32:3\", secret = "
      "true }]\n"
      "[[objects]]\nname = \"door\"\ncommands = [{ name = \"open\", code = 7, right = \"none\" }]\n");
  const Description all = completed(installed(), told);
  EXPECT_TRUE(all.fields.at(0).isSecret);
  EXPECT_FALSE(all.fields.at(1).isSecret);
  EXPECT_EQ(all.objects.at(0).commands.at(0).right, "control");
}

TEST(Told, WhatIsInstalledHasItsNameAndItsNumber) {
  const Description told = described(
      "fields = [{ name = \"harmless\", field = \"string:1\" }, { name = \"pin\", field = \"string:2\" }]\n");
  const Description all = completed(installed(), told);
  ASSERT_EQ(all.fields.size(), 1u);
  EXPECT_EQ(all.fields.at(0).id, 0x20000001u);
}

TEST(Told, WhatIsNoNameIsLeftOut) {
  Description told;
  told.fields.resize(1);
  told.fields[0].name = "\x1b[2J";
  told.fields[0].id = 0x08000009;
  told.objects.resize(2);
  told.objects[0].name = "a b";
  told.objects[0].fields = {"x"};
  told.objects[1].name = "door";
  told.objects[1].fields = {"A"};
  told.topics.resize(1);
  told.topics[0].name = "..";
  const Description all = completed(installed(), told);
  EXPECT_EQ(jsonOf(all), jsonOf(installed()));
}

TEST(Told, DifferencesAreSaidOneByOne) {
  const Description told = described(
      "fields = [{ name = \"pin\", field = \"string:2\" }, { name = \"colour\", field = \"u32:2\" }]\n"
      "[[objects]]\nname = \"door\"\nhandler = 1\n");
  EXPECT_EQ(differencesOf(installed(), told),
            (std::vector<std::string>{
                "command open of door: installed 0x7, right control, the process has none",
                "field pin: installed string:1, the process says string:2",
                "object door: installed no handler, the process says handler 1",
                "field colour: the process says u32:2, none is installed",
            }));
}

}  // namespace describe

#include "tools/klgen/rules.h"

#include <gtest/gtest.h>

#include "kl/conventions.h"
#include "sample.kl.h"
#include "tests/tools/klgen/described.h"

namespace klgen {
namespace {

const kl::FieldRule& rule(unsigned int id) { return *sample::Thing::kRules.find(id); }

}  // namespace

TEST(Rules, SayWhereTheObjectsAre) {
  EXPECT_STREQ(sample::Thing::kRules.name, "thing");
  EXPECT_EQ(sample::Thing::kRules.service, 300u);
  EXPECT_EQ(sample::Thing::kRules.handler, kl::ObjectRules::kNone);
  EXPECT_EQ(sample::Pool::kRules.handler, 1u);
}

TEST(Rules, SayWhereTheObjectsAreKept) {
  EXPECT_STREQ(sample::Thing::kRules.store, "things");
  EXPECT_EQ(sample::Pool::kRules.store, nullptr);
}

TEST(Rules, SayWhatAFieldMayHold) {
  EXPECT_EQ(sample::Thing::kRules.fields.size(), 18u);
  EXPECT_STREQ(rule(sample::CLASS).name, "class");
  EXPECT_EQ(rule(sample::BYTES).min, 1u);
  EXPECT_EQ(rule(sample::BYTES).max, 9u);
  EXPECT_EQ(rule(sample::HOST).max, ~0ull);
  EXPECT_EQ(std::vector<unsigned int>(rule(sample::STATE).values.begin(), rule(sample::STATE).values.end()),
            (std::vector<unsigned int>{1, 2, 3}));
  EXPECT_TRUE(rule(sample::HOPS).values.empty()) << "an array keeps its numbers";
  EXPECT_EQ(sample::Thing::kRules.find(sample::RELEASED), nullptr);
}

TEST(Rules, SayWhichFieldsAreRequiredAndWhichCommandsTakeThem) {
  using Rule = kl::FieldRule;
  EXPECT_EQ(rule(sample::KIND).uses, Rule::kRequired | Rule::kSet) << "setobj takes whatever there is";
  EXPECT_EQ(rule(sample::HOST).uses, unsigned{Rule::kSet});
  EXPECT_EQ(sample::Thing::kRules.changes,
            kl::ObjectRules::kSet | kl::ObjectRules::kSetsOthers | kl::ObjectRules::kUndone);
  const auto description = described(
      "fields = [{ name = \"a\", field = \"u32:1\" }, { name = \"b\", field = \"u32:2\" }]\n"
      "[[objects]]\nname = \"x\"\nfields = [\"a\", \"b\"]\n"
      "commands = [{ name = \"addobj\", takes = [\"a\"] }, { name = \"setobj\", takes = [\"b\"] }, "
      "\"removeobj\",\n"
      "\"moveobj\"]\n");
  const std::string text = rulesOf(description, description.objects[0]);
  EXPECT_NE(text.find("{A, \"a\", 2U, 0, ~0ULL},"), std::string::npos) << text;
  EXPECT_NE(text.find("{B, \"b\", 4U, 0, ~0ULL},"), std::string::npos) << text;
  EXPECT_NE(text.find("kRules{\"x\", 4294967295U, 4294967295U, 15U, kFields, {}};"), std::string::npos)
      << text;
}

TEST(Rules, SayRightsThatAreNotThoseOfTheConventions) {
  ASSERT_EQ(sample::Pool::kRules.commands.size(), 1u);
  EXPECT_EQ(sample::Pool::kRules.commands[0].code, sample::CMD_RELEASE_ALL);
  EXPECT_EQ(sample::Pool::kRules.commands[0].right, kl::RIGHT_CHANGE);
  EXPECT_TRUE(sample::Thing::kRules.commands.empty());
  EXPECT_TRUE(sample::Pool::kRules.fields.empty());
  const auto description =
      described("objects = [{ name = \"x\", commands = [{ name = \"getobj\", right = \"control\" }] }]\n");
  EXPECT_NE(rulesOf(description, description.objects[0]).find("{16646146U, 512U},"), std::string::npos);
}

TEST(Rules, CommandsOfTheServicesOwnHaveAStructureForTheirName) {
  EXPECT_EQ(sample::PoolReleaseAll::kCommand, sample::CMD_RELEASE_ALL);
  EXPECT_TRUE((std::is_same_v<sample::PoolReleaseAll::Request, sample::PoolReleaseAllRequest>));
  EXPECT_TRUE((std::is_same_v<sample::PoolReleaseAll::Reply, sample::PoolReleaseAllReply>));
}

}  // namespace klgen

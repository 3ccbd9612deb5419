#include "services/logd/config/section.h"

#include <gtest/gtest.h>

#include "services/logd/config/configuration.h"

namespace logd {
namespace {

struct SectionTest : testing::Test {
  std::string told() const {
    std::string all;
    for (const Mistake& m : mistakes) all += m.describe() + "\n";
    return all;
  }
  toml::table table;
  std::vector<Mistake> mistakes;
};

TEST_F(SectionTest, ValuesAreReadByTheirKind) {
  table = toml::parse("a = 5\nb = \"text\"\nc = [\"x\", 7]\nd = \"second\"");
  Section section(table, "log", "file", mistakes);
  EXPECT_EQ(section.number("a", 1, 0, 10), 5u);
  EXPECT_EQ(section.text("b", ""), "text");
  EXPECT_EQ(section.words("c"), (std::vector<std::string>{"x", "7"}));
  EXPECT_EQ(section.choice("d", {"never", "second"}), 1u);
  section.refuseOthers();
  EXPECT_EQ(told(), "");
}

TEST_F(SectionTest, WhatIsMissingReadsAsItsDefault) {
  Section section(table, "log", "file", mistakes);
  EXPECT_EQ(section.number("a", 1, 0, 10), 1u);
  EXPECT_EQ(section.text("b", "x"), "x");
  EXPECT_TRUE(section.words("c").empty());
  EXPECT_EQ(section.choice("d", {"never", "second"}), 0u);
  EXPECT_EQ(told(), "");
}

TEST_F(SectionTest, WhatDoesNotFitIsAMistakeWhereItStands) {
  table = toml::parse("a = 11\nb = 5\nc = [true]\nd = \"never mind\"\ne = 1");
  Section section(table, "log", "file", mistakes);
  (void)section.number("a", 1, 0, 10);
  (void)section.text("b", "");
  (void)section.words("c");
  (void)section.choice("d", {"never", "second"});
  section.refuseOthers();
  EXPECT_EQ(told(),
            "file:1: [log] a: expected a number from 0 to 10\n"
            "file:2: [log] b: expected a text\n"
            "file:3: [log] c: expected a list of names and numbers\n"
            "file:4: [log] d: expected \"never\" or \"second\"\n"
            "file:5: [log] e: expected one of the keys a, b, c, d\n");
}

}  // namespace
}  // namespace logd

#include "services/common/section.h"

#include <gtest/gtest.h>

namespace common {
namespace {

class SectionTest : public testing::Test {
 protected:
  Section section(const char* text) {
    table_ = toml::parse(text);
    return Section(table_, "part", "file", list_);
  }
  std::string mistakes() const {
    std::string all;
    for (const Mistake& m : list_) all += m.describe() + ";";
    return all;
  }

  toml::table table_;
  Mistakes list_;
};

TEST_F(SectionTest, MissingKeysReadAsTheirDefaults) {
  Section s = section("");
  EXPECT_EQ(s.text("a", "x"), "x");
  EXPECT_TRUE(s.boolean("b", true));
  EXPECT_EQ(s.number("c", 5, 0, 9), 5);
  EXPECT_TRUE(s.texts("d", "a list").empty());
  EXPECT_TRUE(s.textTable("e").empty());
  EXPECT_EQ(s.find("f"), nullptr);
  EXPECT_TRUE(s.words("g").empty());
  EXPECT_EQ(s.choice("h", {"never", "second"}), 0u);
  EXPECT_TRUE(s.table("i").keys().empty());
  EXPECT_TRUE(s.tables("j", "tables").empty());
  s.refuseOthers();
  EXPECT_EQ(mistakes(), "");
}

TEST_F(SectionTest, ValuesOfTheirKindAreRead) {
  Section s = section(
      "a = \"t\"\nb = false\nc = 4000000000\nd = [\"p\", \"q\"]\ne = { k = \"v\" }\n"
      "g = [\"x\", 7]\nh = \"second\"\n[i]\nk = 1\n[[j]]\nn = 1\n[[j]]\nn = 2\n");
  EXPECT_EQ(s.text("a", "x"), "t");
  EXPECT_FALSE(s.boolean("b", true));
  EXPECT_EQ(s.number("c", 5u, 0, 0xffffffff), 4000000000u);
  EXPECT_EQ(s.texts("d", "a list"), (std::vector<std::string>{"p", "q"}));
  EXPECT_EQ(s.textTable("e").at("k"), "v");
  EXPECT_EQ(s.words("g"), (std::vector<std::string>{"x", "7"}));
  EXPECT_EQ(s.choice("h", {"never", "second"}), 1u);
  EXPECT_EQ(s.table("i").number("k", 0, 0, 9), 1);
  std::vector<Section> tables = s.tables("j", "tables");
  ASSERT_EQ(tables.size(), 2u);
  EXPECT_EQ(tables[1].number("n", 0, 0, 9), 2);
  s.refuseOthers();
  EXPECT_EQ(mistakes(), "");
}

TEST_F(SectionTest, ValuesOfAnotherKindAreMistakesAndReadAsTheDefault) {
  Section s = section("a = 1\nb = \"t\"\nc = 10\nd = [1]\ne = []\nf = 2020-01-01");
  EXPECT_EQ(s.text("a", "x"), "x");
  EXPECT_TRUE(s.boolean("b", true));
  EXPECT_EQ(s.number("c", 5, 0, 9), 5);
  EXPECT_TRUE(s.texts("d", "a list of texts").empty());
  EXPECT_TRUE(s.textTable("e").empty());
  EXPECT_EQ(s.text("f", "x"), "x");
  EXPECT_EQ(mistakes(),
            "file:1: [part] a: expected a text, found 1;"
            "file:2: [part] b: expected true or false, found \"t\";"
            "file:3: [part] c: expected a number from 0 to 9, found 10;"
            "file:4: [part] d: expected a list of texts, found an array;"
            "file:5: [part] e: expected a table, found an array;"
            "file:6: [part] f: expected a text, found a date or a time;");
}

TEST_F(SectionTest, WordsThatDoNotFitAreMistakesWhereTheyStand) {
  Section s = section("a = [true]\nb = \"never mind\"\nc = 5\nd = 1\ne = [1, 2]");
  EXPECT_TRUE(s.words("a").empty());
  EXPECT_EQ(s.choice("b", {"never", "second"}), 0u);
  EXPECT_TRUE(s.words("c").empty());
  EXPECT_TRUE(s.table("d").keys().empty());
  EXPECT_TRUE(s.tables("e", "a table for each").empty());
  EXPECT_EQ(mistakes(),
            "file:1: [part] a: expected a list of names and numbers, found true;"
            "file:2: [part] b: expected \"never\" or \"second\", found \"never mind\";"
            "file:3: [part] c: expected a list of names and numbers, found 5;"
            "file:4: [part] d: expected a table, found 1;"
            "file:5: [part] e: expected a table for each, found an array;");
}

TEST_F(SectionTest, AMistakeOfAMissingKeyStandsWhereItsTableBegins) {
  Section whole = section("\n\n[inner]\nb = 1");
  Section inner = whole.table("inner");
  inner.expected("a", "a path");
  inner.expected("b", "a path");
  inner.mistake("expected more");
  inner.mistake("b", "expected less");
  EXPECT_EQ(mistakes(),
            "file:3: [inner] a: expected a path;"
            "file:4: [inner] b: expected a path, found 1;"
            "file:3: [inner]: expected more;"
            "file:4: [inner] b: expected less;");
}

TEST_F(SectionTest, KeysThatNobodyAskedForAreMistakes) {
  Section s = section("known = 1\n\nunknown = 2");
  (void)s.number("known", 0, 0, 9);
  s.refuseOthers();
  EXPECT_EQ(mistakes(), "file:3: [part] unknown: expected one of the keys known;");
}

TEST_F(SectionTest, AFileAsAWholeHasNoLabel) {
  const toml::table table = toml::parse("a = 1");
  Section whole(table, "", "file", list_);
  (void)whole.text("a", "");
  EXPECT_EQ(mistakes(), "file:1: a: expected a text, found 1;");
}

TEST(ParseToml, WhatIsNoTomlIsAMistakeWithItsLine) {
  Mistakes list;
  EXPECT_TRUE(parseToml("a = 1", "file", list));
  EXPECT_TRUE(list.empty());
  EXPECT_FALSE(parseToml("a = 1\n[b", "file", list));
  ASSERT_EQ(list.size(), 1u);
  EXPECT_TRUE(list[0].describe().starts_with("file:2: expected TOML: ")) << list[0].describe();
}

}  // namespace
}  // namespace common

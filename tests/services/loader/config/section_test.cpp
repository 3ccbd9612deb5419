#include "services/loader/config/section.h"

#include <gtest/gtest.h>

#include "kl/conventions.h"
#include "services/loader/config/configuration.h"

namespace {

using loader::Mistake;
using loader::Section;

class SectionTest : public testing::Test {
 protected:
  Section section(const char* text) {
    table_ = toml::parse(text);
    return Section(table_, "part", {"file", list_});
  }
  std::string mistakes() const {
    std::string all;
    for (const Mistake& m : list_) all += m.describe() + ";";
    return all;
  }

  toml::table table_;
  std::vector<Mistake> list_;
};

TEST_F(SectionTest, MissingKeysReadAsTheirDefaults) {
  Section s = section("");
  EXPECT_EQ(s.text("a", "x"), "x");
  EXPECT_TRUE(s.boolean("b", true));
  EXPECT_EQ(s.number("c", 5, 0, 9), 5);
  EXPECT_TRUE(s.texts("d").empty());
  EXPECT_TRUE(s.textTable("e").empty());
  EXPECT_EQ(s.find("f"), nullptr);
  s.refuseOthers();
  EXPECT_EQ(mistakes(), "");
}

TEST_F(SectionTest, ValuesOfTheirKindAreRead) {
  Section s = section("a = \"t\"\nb = false\nc = 9\nd = [\"p\", \"q\"]\ne = { k = \"v\" }");
  EXPECT_EQ(s.text("a", "x"), "t");
  EXPECT_FALSE(s.boolean("b", true));
  EXPECT_EQ(s.number("c", 5, 0, 9), 9);
  EXPECT_EQ(s.texts("d"), (std::vector<std::string>{"p", "q"}));
  EXPECT_EQ(s.textTable("e").at("k"), "v");
  s.refuseOthers();
  EXPECT_EQ(mistakes(), "");
}

TEST_F(SectionTest, ValuesOfAnotherKindAreMistakesAndReadAsTheDefault) {
  Section s = section("a = 1\nb = \"t\"\nc = 10\nd = [1]\ne = []\nf = 2020-01-01");
  EXPECT_EQ(s.text("a", "x"), "x");
  EXPECT_TRUE(s.boolean("b", true));
  EXPECT_EQ(s.number("c", 5, 0, 9), 5);
  EXPECT_TRUE(s.texts("d").empty());
  EXPECT_TRUE(s.textTable("e").empty());
  EXPECT_EQ(s.text("f", "x"), "x");
  EXPECT_EQ(mistakes(),
            "file:1: [part] a: expected a text, found 1;"
            "file:2: [part] b: expected true or false, found \"t\";"
            "file:3: [part] c: expected a number from 0 to 9, found 10;"
            "file:4: [part] d: expected a list of texts: the program and its arguments, found an array;"
            "file:5: [part] e: expected a table, found an array;"
            "file:6: [part] f: expected a text, found a date or a time;");
}

TEST_F(SectionTest, KeysThatNobodyAskedForAreMistakes) {
  Section s = section("known = 1\n\nunknown = 2");
  (void)s.number("known", 0, 0, 9);
  s.refuseOthers();
  EXPECT_EQ(mistakes(), "file:3: [part] unknown: expected one of the keys known;");
}

TEST(ConfigurableIds, TheLoaderAndThePathValuesAreNotAmongThem) {
  for (const unsigned int id : {0u, 1u, kl::PATH_ALL, kl::PATH_MULTI, kl::PATH_SELF, kl::BADID})
    EXPECT_FALSE(loader::isConfigurable(id)) << id;
  for (const unsigned int id : {2u, 24u, 0x10000u, 0xff0000u, 0xff0004u, 0xfffffffeu})
    EXPECT_TRUE(loader::isConfigurable(id)) << id;
}

}  // namespace

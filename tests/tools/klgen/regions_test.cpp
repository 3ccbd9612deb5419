#include "tools/klgen/regions.h"

#include <gtest/gtest.h>

#include <filesystem>

#include "services/describe/reader.h"
#include "tests/tools/klgen/described.h"

namespace klgen {
namespace {

constexpr char kDescription[] =
    "fields = [{ name = \"a\", field = \"u32:1\", values = { on = 1 } }, { name = \"b\", field = \"u64:2\", "
    "doc = \"x | "
    "y\", unit = \"s\" }]\n"
    "settings = [{ name = \"limit\", field = \"u32:1\", default = 5 }, { name = \"names\", field = "
    "\"string[]:2\" }]\n"
    "topics = [{ name = \"t\", number = 300, doc = \"it\" }]\n"
    "[[objects]]\nname = \"o\"\ncommands = [\"getobj\"]\n";

class PageRegions : public testing::Test {
 protected:
  std::string updated(const std::string& page, const std::string& file) {
    mistakes_.clear();
    return updatedPage(
        page, file,
        [this](const std::string& description) {
          loaded_ = description;
          return description.ends_with("none.toml") ? std::nullopt : std::optional(described(kDescription));
        },
        mistakes_);
  }
  std::string markdown(const std::string& marker) {
    const std::string begin = "text\n<!-- klgen " + marker + " -->\n";
    const std::string end = "<!-- klgen end -->\nmore\n";
    const std::string page = updated(begin + "old\n" + end, "docs/x.md");
    EXPECT_TRUE(page.starts_with(begin + "\n") && page.ends_with("\n" + end)) << page;
    return page.substr(begin.size() + 1, page.size() - begin.size() - end.size() - 2);
  }
  std::string man(const std::string& marker) {
    const std::string begin = ".\\\" klgen " + marker + "\n";
    const std::string end = ".\\\" klgen end\n.SH X\n";
    const std::string page = updated(begin + "old\n" + end, "docs/man/x.8");
    EXPECT_TRUE(page.starts_with(begin) && page.ends_with(end)) << page;
    return page.substr(begin.size(), page.size() - begin.size() - end.size());
  }
  std::string fault() { return mistakes_.size() == 1 ? mistakes_[0].describe() : "none, or several"; }

  common::Mistakes mistakes_;
  std::string loaded_;
};

}  // namespace

TEST_F(PageRegions, FieldsAreShownUnderTheirNamesOrUnderThoseOfThePage) {
  EXPECT_EQ(markdown("fields d.toml b"),
            "| name | field | |\n|---|---|---|\n| `b` | `u64:2` | x \\| y; in s |\n");
  EXPECT_EQ(loaded_, "docs/d.toml");
  EXPECT_EQ(markdown("fields d.toml\nX_B=b\n X_A=a"),
            "| field | name | id | |\n|---|---|---|---|\n| `X_B` | `b` | 0x10000002 | x \\| y; in s |\n"
            "| `X_A` | `a` | 0x08000001 | 1 on |\n");
}

TEST_F(PageRegions, EachListHasItsTable) {
  EXPECT_EQ(markdown("settings d.toml limit"),
            "| name | field | |\n|---|---|---|\n| `limit` | `u32:1` | without it 5 |\n");
  EXPECT_EQ(markdown("values d.toml X_A=a"),
            "| field | value | word |\n|---|---|---|\n| `X_A` | 1 | `on` |\n");
  EXPECT_EQ(markdown("topics d.toml"), "| name | number | |\n|---|---|---|\n| `t` | 300 | it |\n");
  EXPECT_EQ(markdown("commands d.toml o"),
            "| command | right | takes | gives | may answer | |\n|---|---|---|---|---|---|\n"
            "| `getobj` | read |  |  |  |  |\n");
}

TEST_F(PageRegions, ManPagesHaveThemToo) {
  EXPECT_EQ(man("settings ../d.toml"),
            ".TP\n.BR limit \" = number\"\n\\&without it 5\n.TP\n.BR names \" = list of texts\"\n\\&\n");
  EXPECT_EQ(loaded_, "docs/man/../d.toml");
  EXPECT_EQ(man("fields ../d.toml X_A=a"), ".TP\n.BR X_A \" u32:1\"\n\\&1 on\n");
  EXPECT_EQ(man("topics ../d.toml"), ".TP\n.BR t \" 300\"\n\\&it\n");
  EXPECT_EQ(man("commands ../d.toml"), ".TP\n.B getobj\n\\&\n\\&Needs the right: read.\n");
}

TEST_F(PageRegions, WhatCannotBeMadeStaysAndIsAMistake) {
  const auto page = [](const std::string& marker) {
    return "x\n<!-- klgen " + marker + " -->\nold\n<!-- klgen end -->\n";
  };
  for (const auto& [marker, text] : std::vector<std::pair<std::string, std::string>>{
           {"fields d.toml c", "d.toml has no 'c' among its fields"},
           {"fields none.toml", "there is no description none.toml"},
           {"fields", "expected one of commands, fields, settings, topics, values, and a description"},
           {"people d.toml",
            "expected one of commands, fields, settings, topics, values, and a description"}}) {
    EXPECT_EQ(updated(page(marker), "x.md"), page(marker));
    EXPECT_EQ(fault(), "x.md:2: " + text);
  }
  EXPECT_EQ(updated("<!-- klgen fields d.toml -->\nold\n", "x.md"), "<!-- klgen fields d.toml -->\nold\n");
  EXPECT_EQ(fault(), "x.md:1: this region has no end '<!-- klgen end -->'");
}

TEST_F(PageRegions, OtherLinesAreNotTouched) {
  const std::string page = "a\n\n<!-- a comment -->\n .\\\" klgen fields\n";
  EXPECT_EQ(updated(page, "x.md"), page);
  EXPECT_TRUE(mistakes_.empty());
}

// `klgen update docs/*.md docs/man/*` makes them so.
TEST(DocumentedTables, AreThoseOfTheDescriptions) {
  unsigned int regions = 0;
  for (const char* folder : {KL_SOURCE_DIR "/docs", KL_SOURCE_DIR "/docs/man"}) {
    for (const auto& entry : std::filesystem::directory_iterator(folder)) {
      if (!entry.is_regular_file() || entry.path().extension() == ".svg") continue;
      common::Mistakes mistakes;
      const std::string page = common::readFile(entry.path().string(), mistakes).value_or("");
      const auto load = [&](const std::string& file) {
        ++regions;
        return std::optional(describe::readFile(file, describe::OtherKeys::kRefused, mistakes));
      };
      EXPECT_EQ(updatedPage(page, entry.path().string(), load, mistakes), page) << entry.path();
      for (const common::Mistake& m : mistakes) ADD_FAILURE() << m.describe();
    }
  }
  EXPECT_GE(regions, 8u);
}

}  // namespace klgen

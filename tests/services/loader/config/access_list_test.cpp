#include "services/loader/config/access_list.h"

#include <gtest/gtest.h>

namespace {

using loader::AccessList;
using loader::Rights;
using loader::Users;

class AccessListTest : public testing::Test {
 protected:
  // The list that the lines of [rights] give, with its mistakes and warnings one a line.
  AccessList read(const std::string& lines) {
    mistakes_.clear();
    warnings_.clear();
    const auto file = common::parseToml("[rights]\n" + lines, "f", mistakes_);
    if (!file) return {};
    common::Section whole(*file, "", "f", mistakes_);
    common::Section table = whole.table("rights");
    return readAccessList(table, "rights", users_, warnings_);
  }

  // "key line; key line", in the order of asking.
  std::string orderOf(const std::string& lines) {
    std::string text;
    for (const auto& entry : read(lines).entries)
      text += (text.empty() ? "" : "; ") + entry.key + " " + std::to_string(entry.line);
    return text;
  }

  static std::string textOf(const common::Mistakes& mistakes) {
    std::string text;
    for (const auto& mistake : mistakes) text += (text.empty() ? "" : "\n") + mistake.describe();
    return text;
  }

  Users users_{{{"root_", 0, 0}, {"zoe_", 7001, 7001}, {"ann_", 7002, 7002}, {"anna_", 7002, 7002}},
               {{"wheel_", 10, {"zoe_", "ann_"}},
                {"adm_", 11, {"ann_"}},
                {"nobody_", 12, {}},
                {"su_", 13, {"root_"}}}};
  common::Mistakes mistakes_;
  common::Mistakes warnings_;
};

TEST_F(AccessListTest, UsersComeBeforeGroupsInTheOrderOfLinesAndTheDefaultIsLast) {
  EXPECT_EQ(orderOf("default = \"none\"\n\"@wheel_\" = \"all\"\n\"@adm_\" = \"read\"\nzoe_ = \"read\"\n"
                    "ann_ = \"change\"\n"),
            "zoe_ 5; ann_ 6; @wheel_ 3; @adm_ 4; default 2");
  EXPECT_EQ(mistakes_.size(), 0u);
}

TEST_F(AccessListTest, InOneLineTheColumnsCount) {
  const auto file = common::parseToml(
      "access = { \"@wheel_\" = \"read\", \"@adm_\" = \"all\", ann_ = \"none\" }", "f", mistakes_);
  ASSERT_TRUE(file);
  common::Section whole(*file, "", "f", mistakes_);
  common::Section table = whole.table("access");
  const AccessList list = readAccessList(table, "access", users_, warnings_);
  ASSERT_EQ(list.entries.size(), 3u);
  EXPECT_EQ(list.entries[0].key, "ann_");
  EXPECT_EQ(list.entries[1].key, "@wheel_");
  EXPECT_EQ(list.entries[2].key, "@adm_");
}

TEST_F(AccessListTest, AnEntryCoversItsUserTheMembersOfItsGroupOrEverybody) {
  const AccessList list = read("ann_ = \"read\"\n\"@wheel_\" = \"read\"\ndefault = \"read\"\n");
  ASSERT_EQ(list.entries.size(), 3u);
  EXPECT_TRUE(list.entries[0].covers(7002));
  EXPECT_FALSE(list.entries[0].covers(7001));
  EXPECT_TRUE(list.entries[1].covers(7001));
  EXPECT_FALSE(list.entries[1].covers(7003));
  EXPECT_TRUE(list.entries[2].covers(7003));
}

TEST_F(AccessListTest, RightsAreAWordAListOrANumber) {
  const struct {
    const char* written;
    Rights rights;
  } rows[] = {{"\"none\"", Rights::nothing()},
              {"\"all\"", Rights::everything()},
              {"\"read\"", Rights::of(64)},
              {"\"change\"", Rights::of(128)},
              {"\"control\"", Rights::of(512)},
              {"\"contents\"", Rights::of(1024)},
              {"[\"read\", \"contents\"]", Rights::of(64 | 1024)},
              {"[]", Rights::of(0)},
              {"0x40040", Rights::of(0x40040)}};
  for (const auto& row : rows) {
    const AccessList list = read(std::string("ann_ = ") + row.written + "\n");
    ASSERT_EQ(list.entries.size(), 1u) << row.written;
    EXPECT_EQ(list.entries[0].rights, row.rights) << row.written;
    EXPECT_EQ(textOf(mistakes_) + textOf(warnings_), "") << row.written;
  }
}

TEST_F(AccessListTest, OtherRightsAreMistakes) {
  for (const char* written : {"\"some\"", "[\"read\", \"none\"]", "-1", "0x100000000", "true", "{}"}) {
    (void)read(std::string("ann_ = ") + written + "\n");
    EXPECT_TRUE(textOf(mistakes_).starts_with("f:2: [rights] ann_: expected \"none\", \"all\"")) << written;
  }
}

TEST_F(AccessListTest, WhatCanNeverMatchIsAWarning) {
  const struct {
    const char* lines;
    const char* warning;
  } rows[] = {
      {"nobodyknowsme = \"read\"",
       "f:2: [rights] nobodyknowsme: never matches: this system has nobody of that name"},
      {"\"@nosuchgroup\" = \"read\"",
       "f:2: [rights] @nosuchgroup: never matches: this system has nobody of that name"},
      {"7001 = \"read\"", "f:2: [rights] 7001: never matches: this system has nobody of that name"},
      {"\"@10\" = \"read\"", "f:2: [rights] @10: never matches: this system has nobody of that name"},
      {"root_ = \"read\"", "f:2: [rights] root_: never matches: root may do everything anyway"},
      {"ann_ = \"read\"\nanna_ = \"all\"",
       "f:3: [rights] anna_: never matches: an entry before it is for the same user"},
      {"\"@nobody_\" = \"read\"", "f:2: [rights] @nobody_: never matches: the group has no members"},
      {"\"@wheel_\" = \"read\"\n\"@adm_\" = \"read\"",
       "f:3: [rights] @adm_: never matches: for each member there is an entry before it"},
      {"\"@adm_\" = \"all\"\nann_ = \"read\"",
       "f:2: [rights] @adm_: never matches: for each member there is an entry before it"},
      {"\"@su_\" = \"read\"",
       "f:2: [rights] @su_: never matches: for each member there is an entry before it"},
      {"\"@adm_\" = \"read\"\n\"@wheel_\" = \"read\"\ndefault = \"none\"", ""},
  };
  for (const auto& row : rows) {
    (void)read(std::string(row.lines) + "\n");
    EXPECT_EQ(textOf(warnings_), row.warning) << row.lines;
    EXPECT_EQ(textOf(mistakes_), "") << row.lines;
  }
}

}  // namespace

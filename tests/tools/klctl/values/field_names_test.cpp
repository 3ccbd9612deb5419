#include "tools/klctl/values/field_names.h"

#include <gtest/gtest.h>

#include "kl/conventions.h"

namespace klctl {

TEST(FieldNames, StandardFieldsHaveALongAndAShortName) {
  const FieldNames names;
  EXPECT_EQ(names.find("STD_DESCR"), 0x20fe0009u);
  EXPECT_EQ(names.find("descr"), 0x20fe0009u);
  EXPECT_EQ(names.find("id"), 0x08fe0001u);
  EXPECT_EQ(names.find("getallno"), 0x08fe0004u);
  EXPECT_EQ(names.nameOf(kl::STD_DESCR), "descr");
}

TEST(FieldNames, SystemFieldsHaveTheirLongNameOnly) {
  const FieldNames names;
  EXPECT_EQ(names.find("SYS_USER"), 0x20ff000au);
  EXPECT_FALSE(names.find("user").has_value());
  EXPECT_EQ(names.nameOf(kl::SYS_POLICY), "SYS_POLICY");
}

TEST(FieldNames, ADictionarysNamesComeFirst) {
  FieldNames names;
  names.add("descr", 0x20000007);
  EXPECT_EQ(names.find("descr"), 0x20000007u);
  EXPECT_EQ(names.find("STD_DESCR"), 0x20fe0009u);  // still there
  EXPECT_EQ(names.nameOf(0x20000007), "descr");
}

TEST(FieldNames, WithoutANameTheExplicitFormServes) {
  const FieldNames names;
  EXPECT_EQ(names.nameOf(0x08000009), "u32:9");
  EXPECT_EQ(names.find("u32:9"), 0x08000009u);
  EXPECT_FALSE(names.find("nonsense").has_value());
  EXPECT_FALSE(names.find("").has_value());
}

TEST(FieldNames, ANameReadsBackAsItsIdEvenWhereTwoNamesCollide) {
  FieldNames names;
  names.add("descr", 0x20000007);  // takes the short name away from STD_DESCR
  EXPECT_EQ(names.find(names.nameOf(kl::STD_DESCR)), 0x20fe0009u) << names.nameOf(kl::STD_DESCR);
}

TEST(FieldNames, FieldsAreShownDictionaryFirstThenStandardThenByNumber) {
  FieldNames names;
  names.add("second", 0x08000002);
  names.add("first", 0x20000001);
  std::vector<unsigned int> ids = {0x30000004, 0x20fe0009, 0x08000003, 0x20000001, 0x08fe0001, 0x08000002};
  names.sort(ids);
  EXPECT_EQ(ids, (std::vector<unsigned int>{0x08000002, 0x20000001, 0x08fe0001, 0x20fe0009, 0x08000003,
                                            0x30000004}));
}

TEST(FieldNames, NumbersMayHaveWords) {
  FieldNames names;
  names.addValue(0x08000004, "running", 4);
  EXPECT_EQ(names.valueWord(0x08000004, 4), "running");
  EXPECT_EQ(names.findValue(0x08000004, "running"), 4u);
  EXPECT_FALSE(names.valueWord(0x08000004, 5).has_value());
  EXPECT_FALSE(names.valueWord(0x08000005, 4).has_value());
  EXPECT_FALSE(names.findValue(0x08000004, "walking").has_value());
}

TEST(FieldNames, CommandsAreNamedInFullInShortOrByNumber) {
  EXPECT_EQ(parseCommand("CMD_GETCOUNT"), 0xfe0015u);
  EXPECT_EQ(parseCommand("getcount"), 0xfe0015u);
  EXPECT_EQ(parseCommand("noop"), 0xfe0000u);
  EXPECT_EQ(parseCommand("0x60001"), 0x60001u);
  EXPECT_EQ(parseCommand("5"), 5u);
  EXPECT_FALSE(parseCommand("").has_value());
  EXPECT_FALSE(parseCommand("GETCOUNT").has_value());
  EXPECT_FALSE(parseCommand("0x1000000").has_value());
}

TEST(FieldNames, TheWordOfACommandIsReadBack) {
  EXPECT_EQ(commandWord(0xfe0015), "CMD_GETCOUNT");
  EXPECT_EQ(commandWord(0x60001), "0x60001");
  for (const unsigned int command : {0xfe0000u, 0xfe0006u, 0xfe0008u, 0x60001u, 7u})
    EXPECT_EQ(parseCommand(commandWord(command)), command);
}

}  // namespace klctl

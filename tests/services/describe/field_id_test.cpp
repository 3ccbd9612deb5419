#include "services/describe/field_id.h"

#include <gtest/gtest.h>

#include <string>

namespace describe {

TEST(FieldId, AShortFormNamesTypeSpaceAndNumber) {
  EXPECT_EQ(parseFieldId("bool:3"), 0x00000003u);
  EXPECT_EQ(parseFieldId("u32:5"), 0x08000005u);
  EXPECT_EQ(parseFieldId("u64:0x10"), 0x10000010u);
  EXPECT_EQ(parseFieldId("addr6:local.1"), 0x18fd0001u);
  EXPECT_EQ(parseFieldId("string:std.9"), 0x20fe0009u);
  EXPECT_EQ(parseFieldId("message:sys.7"), 0x28ff0007u);
  EXPECT_EQ(parseFieldId("raw:0x12.65535"), 0x3012ffffu);
  EXPECT_EQ(parseFieldId("u32:global.5"), 0x08000005u);
}

TEST(FieldId, BracketsMakeAnArray) {
  EXPECT_EQ(parseFieldId("bool[]:1"), 0x80000001u);
  EXPECT_EQ(parseFieldId("u32[]:1"), 0x88000001u);
  EXPECT_EQ(parseFieldId("u64[]:1"), 0x90000001u);
  EXPECT_EQ(parseFieldId("addr6[]:1"), 0x98000001u);
  EXPECT_EQ(parseFieldId("string[]:1"), 0xa0000001u);
  EXPECT_EQ(parseFieldId("message[]:std.2"), 0xa8fe0002u);
  EXPECT_EQ(parseFieldId("raw[]:1"), 0xb0000001u);
}

TEST(FieldId, AWholeIdStandsForItself) {
  EXPECT_EQ(parseFieldId("0x08fe0001"), 0x08fe0001u);
  EXPECT_EQ(parseFieldId("0x0a000005"), 0x0a000005u);
}

TEST(FieldId, WhatIsNeitherIsNothing) {
  for (const std::string text : {"",
                                 ":",
                                 "u32",
                                 "u32:",
                                 "u32:x",
                                 "u32:-1",
                                 "u32:65536",
                                 "u32: 5",
                                 "u32:5 ",
                                 "u33:5",
                                 "U32:5",
                                 "u32[:5",
                                 "u32[][]:5",
                                 "[]:5",
                                 "u32:std.",
                                 "u32:.5",
                                 "u32:nowhere.5",
                                 "u32:0x100.5",
                                 "u32:std.std.5",
                                 "8",
                                 "0x8",
                                 "0x008fe0001",
                                 "0x09000005" /* the flag bit */,
                                 "0x38000001" /* no such type */,
                                 "0xb8000001"}) {
    EXPECT_FALSE(parseFieldId(text).has_value()) << "'" << text << "'";
  }
}

TEST(FieldId, ItsTextReadsBackAsTheSameId) {
  EXPECT_EQ(fieldIdText(0x08000005), "u32:5");
  EXPECT_EQ(fieldIdText(0xa8fe0002), "message[]:std.2");
  EXPECT_EQ(fieldIdText(0x3012ffff), "raw:0x12.65535");
  EXPECT_EQ(fieldIdText(0x18fd0001), "addr6:local.1");
  EXPECT_EQ(fieldIdText(0x00ff0005), "bool:sys.5");
  EXPECT_EQ(fieldIdText(0x0a000005), "0x0a000005");  // a mark bit has no short form
  for (unsigned int code = 0; code < 7; ++code)
    for (const unsigned int array : {0u, kArrayBit})
      for (const unsigned int space : {0x00u, 0x01u, 0x12u, 0xfcu, 0xfdu, 0xfeu, 0xffu})
        for (const unsigned int mark : {0u, 0x02000000u, 0x04000000u}) {
          const unsigned int id = (code << 27) | array | mark | (space << 16) | 7;
          EXPECT_EQ(parseFieldId(fieldIdText(id)), id) << fieldIdText(id);
        }
}

TEST(FieldId, ATypeThatNoFieldHasHasNoWord) {
  EXPECT_EQ(typeWord(0x30000001), "raw");
  EXPECT_EQ(typeWord(0xb0000001), "raw[]");
  EXPECT_EQ(typeWord(0x38000001), "");
  EXPECT_EQ(typeWord(0xf8000001), "");
}

TEST(FieldId, ANumberIsDecimalOrHexadecimalAndWhole) {
  EXPECT_EQ(parseNumber("0", 10), 0u);
  EXPECT_EQ(parseNumber("010", 10), 10u);
  EXPECT_EQ(parseNumber("0xfF", 255), 255u);
  EXPECT_EQ(parseNumber("18446744073709551615", ~0ull), ~0ull);
  for (const std::string text :
       {"", "-1", "+1", " 1", "1 ", "1.0", "1e3", "0x", "0xg", "x1", "18446744073709551616"})
    EXPECT_FALSE(parseNumber(text, ~0ull).has_value()) << "'" << text << "'";
  EXPECT_FALSE(parseNumber("11", 10).has_value());
}

}  // namespace describe

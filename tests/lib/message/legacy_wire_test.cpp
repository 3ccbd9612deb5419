#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "kl/message.h"
#include "message/rep.h"
#include "tests/support/hex.h"

namespace {

using kl::message;
using kl::RepAccess;
using kl::test::bytes;

using Bytes = std::vector<unsigned char>;
using Flat = message::flat_message;

bool reads(message& m, const char* text) {
  const Bytes from = bytes(text);
  return m.unflatten(from.data(), static_cast<unsigned int>(from.size()), message::normal);
}

bool reads(const char* text) {
  message m;
  return reads(m, text);
}

TEST(LegacyWire, NoRecordsAreAnEmptyMessage) {
  EXPECT_TRUE(reads("00 00"));
  EXPECT_TRUE(reads("00 00 ff ff ff")) << "what follows the records is ignored";
  EXPECT_FALSE(reads("01 00"));
  EXPECT_FALSE(reads("01 00 02 05 00 00 03 01 00 00"));
}

TEST(LegacyWire, TheWorkedExample) {
  message m;
  EXPECT_TRUE(reads(m, "01 00 | 02 05 00 00 03 01 00 00 00 | 2a 00 00 00"));
  EXPECT_EQ(m.get_u32(0x08FF0005, 0), 42u);
  EXPECT_FALSE(RepAccess::read(m).unshareable) << "single values are stored as inserts store them";
}

TEST(LegacyWire, EveryNameSpaceHasItsCode) {
  message m;
  EXPECT_TRUE(
      reads(m,
            "06 00 | 01 0100 00 01 0100 0000 01 | 01 0100 00 02 0100 0000 01 | 01 0100 00 03 0100 0000 01"
            "| 01 0100 00 00 0100 0000 01 | 01 0200 00 04 0100 0000 01 | 01 0300 00 f3 0100 0000 00"));
  for (const unsigned int id : {0xFE0001u, 0xFD0001u, 0xFF0001u, 0x000001u, 0x000002u})
    EXPECT_TRUE(m.get_bool(id, false)) << id;
  EXPECT_FALSE(m.get_bool(0xFF0003, true)) << "the high half of the code is not looked at";
}

TEST(LegacyWire, ASingleStringDropsItsTerminator) {
  message m;
  EXPECT_TRUE(reads(m, "01 00 | 03 0100 00 00 0100 0000 0400 61626300"));
  EXPECT_EQ(m.get_string(0x20000001, ""), "abc");
  EXPECT_TRUE(reads(m, "01 00 | 03 0100 00 00 0100 0000 0000"));
  EXPECT_EQ(m.get_string(0x20000001, "def"), "");
}

TEST(LegacyWire, RawAndMessageKeepTheirBytes) {
  message m;
  EXPECT_TRUE(reads(m, "02 00 | 04 0100 00 00 0100 0000 0200 0102 | 05 0100 00 00 0100 0000 0200 4d32"));
  EXPECT_EQ(m.get_raw(0x30000001, {}), (Bytes{1, 2}));
  EXPECT_EQ(m.get_message(0x28000001, {}), Flat(Bytes{0x4d, 0x32}));
}

TEST(LegacyWire, EveryKindHasItsArray) {
  message m;
  EXPECT_TRUE(reads(m,
                    "05 00 | 01 0100 00 00 0300 0000 010002 | 02 0100 00 00 0200 0000 01000000 04030201"
                    "| 03 0100 00 00 0200 0000 0100 61 0200 6200 | 04 0100 00 00 0200 0000 0000 0100 07"
                    "| 05 0100 00 00 0200 0000 0200 4d32 0000"));
  EXPECT_EQ(m.get_bool_array(0x80000001), (std::vector<bool>{true, false, true}));
  EXPECT_EQ(m.get_u32_array(0x88000001), (std::vector<unsigned int>{1, 0x01020304}));
  EXPECT_EQ(m.get_string_array(0xA0000001), (std::vector<std::string>{"a", std::string("b\0", 2)}));
  EXPECT_EQ(m.get_raw_array(0xB0000001), (std::vector<Bytes>{{}, {7}}));
  EXPECT_EQ(m.get_message_array(0xA8000001), (std::vector<Flat>{Flat(Bytes{0x4d, 0x32}), Flat()}));
  EXPECT_TRUE(RepAccess::read(m).unshareable);
}

TEST(LegacyWire, AnArrayJoinsTheElementsThatAreThere) {
  const char more[] = "01 00 | 02 0100 00 00 0200 0000 08000000 09000000";
  message m;
  m.insert_u32_array(0x88000001, {7});
  EXPECT_TRUE(reads(m, more));
  EXPECT_EQ(m.get_u32_array(0x88000001), (std::vector<unsigned int>{7, 8, 9}));
  std::vector<unsigned int>* numbers = m.get_u32_array_ref(0x88000001);
  EXPECT_TRUE(reads(m, more));
  EXPECT_EQ(*numbers, (std::vector<unsigned int>{7, 8, 9, 8, 9}));
  m.insert_string_array(0xA0000001, {"x"});
  EXPECT_TRUE(reads(m, "01 00 | 03 0100 00 00 0200 0000 0100 61 0200 6263"));
  EXPECT_EQ(m.get_string_array(0xA0000001), (std::vector<std::string>{"x", "a", "bc"}));
}

TEST(LegacyWire, ElementsJoinAnArrayThatIsAnObject) {
  message m;
  m.insert_bool_array(0x80000001, {true});
  const std::vector<bool>* flags = m.get_bool_array_ref(0x80000001);
  EXPECT_TRUE(reads(m, "01 00 | 01 0100 00 00 0200 0000 00 01"));
  EXPECT_EQ(*flags, (std::vector<bool>{true, false, true}));
  const std::string tooLong(70000, 'x');
  m.insert_string_array(0xA0000001, {tooLong});
  EXPECT_TRUE(reads(m, "01 00 | 03 0100 00 00 0200 0000 0100 61 0200 6263"));
  EXPECT_EQ(m.get_string_array(0xA0000001), (std::vector<std::string>{tooLong, "a", "bc"}));
}

TEST(LegacyWire, ACountOfZeroMakesAnEmptyArray) {
  message m;
  EXPECT_TRUE(reads(m, "01 00 | 02 0100 00 00 0000 0000"));
  EXPECT_TRUE(m.has_array(0x88000001));
  m.insert_u32_array(0x88000001, {7});
  EXPECT_TRUE(reads(m, "01 00 | 02 0100 00 00 0000 0000"));
  EXPECT_EQ(m.size_unsigned_array(0x88000001), 1u);
}

TEST(LegacyWire, UnknownKindsAreFaults) {
  EXPECT_FALSE(reads("01 00 | 06 0100 00 00 0100 0000 01"));
  EXPECT_FALSE(reads("01 00 | 00 0100 00 00 0100 0000 01"));
}

TEST(LegacyWire, WhatWasReadBeforeAFaultStays) {
  message m;
  EXPECT_FALSE(reads(m, "02 00 | 01 0100 00 00 0100 0000 01 | 06 0100 00 00 0100 0000 01"));
  EXPECT_TRUE(m.get_bool(1, false));
}

TEST(LegacyWire, OverstatedDataIsAFault) {
  message m;
  EXPECT_FALSE(reads(m, "01 00 | 01 0100 00 00 0100 0000"));
  EXPECT_FALSE(reads(m, "01 00 | 02 0100 00 00 0100 0000 010203"));
  EXPECT_FALSE(reads(m, "01 00 | 03 0100 00 00 0100 0000 01"));
  EXPECT_FALSE(reads(m, "01 00 | 04 0100 00 00 0100 0000 0300 0102"));
  EXPECT_TRUE(m == message());
  EXPECT_FALSE(reads(m, "01 00 | 02 0100 00 00 ffff 0000 01000000 0200"));
  EXPECT_EQ(m.get_u32_array(0x88000001), (std::vector<unsigned int>{1}))
      << "the elements that were there stay";
  EXPECT_FALSE(reads(m, "01 00 | 04 0200 00 00 ffff 0000 0100 07 0500 01"));
  EXPECT_EQ(m.get_raw_array(0xB0000002), (std::vector<Bytes>{{7}}));
}

TEST(LegacyWire, EveryPrefixIsReadWithinItsBounds) {
  const Bytes whole = bytes(
      "07 00 | 01 0100 00 00 0100 0000 01 | 02 0100 00 00 0100 0000 01020304"
      "| 03 0100 00 00 0100 0000 0400 61626300 | 01 0200 00 00 0300 0000 010002"
      "| 02 0200 00 00 0200 0000 01000000 04030201 | 03 0200 00 00 0200 0000 0100 61 0200 6200"
      "| 02 0200 00 00 0200 0000 01000000 04030201");
  for (std::size_t n = 2; n <= whole.size(); ++n) {
    const Bytes prefix(whole.begin(), whole.begin() + static_cast<long>(n));
    message m;
    EXPECT_EQ(m.unflatten(prefix.data(), static_cast<unsigned int>(n), message::normal), n == whole.size());
    RepAccess::read(m).check();
  }
}

TEST(LegacyWire, TheSecondByteChoosesTheFormat) {
  EXPECT_TRUE(reads("00 00"));
  EXPECT_FALSE(reads("00 01"));
  EXPECT_FALSE(reads("4d 33"));
}

}  // namespace

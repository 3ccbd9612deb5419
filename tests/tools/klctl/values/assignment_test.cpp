#include "tools/klctl/values/assignment.h"

#include <gtest/gtest.h>

#include "kl/conventions.h"
#include "tests/tools/klctl/expect_failure.h"

namespace klctl {
namespace {

kl::message assigned(const std::string& word) {
  kl::message m;
  assign(m, word, FieldNames());
  return m;
}

std::string refusal(const std::string& word) {
  const Told told = failureOf([&] { (void)assigned(word); });
  EXPECT_EQ(told.status, 2) << word;
  return told.sentence;
}

}  // namespace

TEST(Assignment, EverythingBehindTheFirstEqualsSignIsTheValue) {
  EXPECT_EQ(assigned("descr=a=b").get(kl::STD_DESCR, "none"), "a=b");
  EXPECT_EQ(assigned("descr=").get(kl::STD_DESCR, "none"), "");
  EXPECT_EQ(assigned("STD_DESCR=[x, \"y\"]").get(kl::STD_DESCR, "none"), "[x, \"y\"]");
}

TEST(Assignment, EveryTypeHasAForm) {
  EXPECT_TRUE(assigned("bool:1=true").get_bool(0x00000001, false));
  EXPECT_FALSE(assigned("bool:1=0").get_bool(0x00000001, true));
  EXPECT_EQ(assigned("u32:1=4294967295").get_u32(0x08000001, 0), 4294967295u);
  EXPECT_EQ(assigned("u32:1=0xff").get_u32(0x08000001, 0), 255u);
  EXPECT_EQ(assigned("u64:1=18446744073709551615").get_u64(0x10000001, 0), ~0ull);
  EXPECT_EQ(assigned("addr6:1=fe80::1").get_addr6(0x18000001).bytes[15], 1);
  EXPECT_EQ(assigned("string:1=ab").get_string(0x20000001, ""), "ab");
  EXPECT_EQ(assigned("raw:1=02:fc:00").get_raw(0x30000001, {}), (std::vector<unsigned char>{2, 0xfc, 0}));
  EXPECT_EQ(assigned("raw:1=02FC00").get_raw(0x30000001, {}), (std::vector<unsigned char>{2, 0xfc, 0}));
  EXPECT_EQ(assigned("raw:1=").size_field(0x30000001), 1u);
  const kl::message nested(assigned("message:1={\"u32:5\": 7}").get_message(0x28000001, {}));
  EXPECT_EQ(nested.get_u32(0x08000005, 0), 7u);
}

TEST(Assignment, EveryArrayTypeHasAForm) {
  EXPECT_EQ(assigned("bool[]:1=true,false,1").get_bool_array(0x80000001),
            (std::vector<bool>{true, false, true}));
  EXPECT_EQ(assigned("u32[]:1=1,0x10,3").get_u32_array(0x88000001), (std::vector<unsigned int>{1, 16, 3}));
  EXPECT_EQ(assigned("u64[]:1=[1, 2]").get_u64_array(0x90000001), (std::vector<unsigned long long>{1, 2}));
  EXPECT_EQ(assigned("addr6[]:1=::1,::2").get_addr6_array(0x98000001).at(1).bytes[15], 2);
  EXPECT_EQ(assigned("string[]:1=a,,b").get_string_array(0xa0000001),
            (std::vector<std::string>{"a", "", "b"}));
  EXPECT_EQ(assigned("string[]:1=[\"a,b\",\"\"]").get_string_array(0xa0000001),
            (std::vector<std::string>{"a,b", ""}));
  EXPECT_EQ(assigned("raw[]:1=00,0102").get_raw_array(0xb0000001).at(1), (std::vector<unsigned char>{1, 2}));
  const auto nested = assigned("message[]:1=[{}, {\"bool:1\": true}]").get_message_array(0xa8000001);
  ASSERT_EQ(nested.size(), 2u);
  EXPECT_TRUE(kl::message(nested[1]).get_bool(0x00000001, false));
}

TEST(Assignment, NothingBehindTheEqualsSignIsAnEmptyArray) {
  const kl::message m = assigned("u32[]:1=");
  EXPECT_TRUE(m.has_array(0x88000001));
  EXPECT_EQ(m.size_unsigned_array(0x88000001), 0u);
}

TEST(Assignment, AWordWithoutEqualsSignIsRefused) {
  EXPECT_EQ(refusal("descr"), "'descr' is not of the form field=value");
}

TEST(Assignment, AnUnknownFieldIsRefusedWithAHint) {
  EXPECT_EQ(refusal("colour=red"),
            "there is no field 'colour' (a form like u32:5 or string:std.9 names any)");
  EXPECT_EQ(refusal("=7"), "there is no field '' (a form like u32:5 or string:std.9 names any)");
}

TEST(Assignment, WhatTheRequestNeedsForItsJourneyIsNotTheUsers) {
  for (const std::string field :
       {"SYS_TO=1", "SYS_FROM=1", "SYS_TYPE=2", "SYS_STATUS=1", "SYS_REPLYEXP=false", "SYS_REQID=1",
        "SYS_CMD=1", "SYS_CTRL=1", "SYS_CTRL_ARG=1"}) {
    EXPECT_EQ(refusal(field), field.substr(0, field.find('=')) + " is set by klctl itself");
  }
  EXPECT_EQ(refusal("u32[]:sys.1=1"), "u32[]:sys.1 is set by klctl itself");
  EXPECT_EQ(refusal("string:sys.1=x"),
            "string:sys.1 is set by klctl itself");  // the same number as another type
  EXPECT_EQ(assigned("SYS_USER=anna").get(kl::SYS_USER, ""), "anna");
}

TEST(Assignment, AValueThatDoesNotFitIsToldWithWhatWould) {
  EXPECT_EQ(refusal("u32:1=4294967296"),
            "u32:1 is of the type u32 and takes a whole number from 0 to 4294967295, not \"4294967296\"");
  EXPECT_EQ(refusal("u64:1=18446744073709551616"),
            "u64:1 is of the type u64 and takes a whole number from 0 to 18446744073709551615, not "
            "\"18446744073709551616\"");
  EXPECT_EQ(refusal("u32[]:1=1,x"),
            "u32[]:1 is of the type u32[] and takes a whole number from 0 to 4294967295, not \"x\"");
  EXPECT_EQ(refusal("bool:1=maybe"), "bool:1 is of the type bool and takes true or false, not \"maybe\"");
  EXPECT_EQ(refusal("addr6:1=10.0.0.256"),
            "addr6:1 is of the type addr6 and takes an IP address, not \"10.0.0.256\"");
  EXPECT_EQ(refusal("raw:1=0"),
            "raw:1 is of the type raw and takes bytes as pairs of hexadecimal digits (02:fc:00), not \"0\"");
}

TEST(Assignment, GarbledBytesAreRefused) {
  for (const std::string text : {"0g", "00:", ":00", "00::00", "0:00", "00 00", "0x00", "+1", "-1"})
    EXPECT_NE(refusal("raw:1=" + text).find("pairs of hexadecimal digits"), std::string::npos) << text;
}

TEST(Assignment, BrokenJsonIsRefused) {
  EXPECT_EQ(refusal("message:1={\"u32:1\": "), "the value of message:1 is not valid JSON: {\"u32:1\": ");
  EXPECT_EQ(refusal("message:1=7"), "a message is written as a JSON object, {\"field\": value, ...}");
  EXPECT_EQ(refusal("message:1="), "the value of message:1 is not valid JSON: ");
  EXPECT_EQ(refusal("string[]:1=[\"a\""), "the value of string[]:1 is not valid JSON: [\"a\"");
  EXPECT_EQ(refusal("string[]:1=[7]"), "string[]:1 is of the type string[] and takes text, not 7");
  EXPECT_EQ(refusal("message:1={\"colour\": 7}"), "there is no field 'colour'");
  EXPECT_EQ(refusal("message[]:1={}"),
            "message[]:1 is of the type message[] and takes a list of values, not {}");
}

TEST(Assignment, ALongValueIsNotRepeatedInFull) {
  const std::string sentence = refusal("u32:1=" + std::string(5000, 'x'));
  EXPECT_LT(sentence.size(), 200u);
  EXPECT_TRUE(sentence.ends_with("..."));
}

TEST(Assignment, BytesThatAreNoTextArePassedOnInAString) {
  EXPECT_EQ(assigned("string:1=\xff\xfe").get_string(0x20000001, ""), "\xff\xfe");
}

TEST(Assignment, ObjectsNestedWithoutEndAreRefused) {
  std::string value = "{}";
  for (int i = 0; i < 100; ++i) value = "{\"message:1\": " + value + "}";
  EXPECT_EQ(refusal("message:1=" + value), "messages are nested too deep");
}

}  // namespace klctl

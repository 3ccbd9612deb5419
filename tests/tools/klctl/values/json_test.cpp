#include "tools/klctl/values/json.h"

#include <gtest/gtest.h>

#include "kl/conventions.h"
#include "tests/support/hex.h"
#include "tests/tools/klctl/expect_failure.h"

namespace klctl {
namespace {

kl::IPAddr6 address(unsigned char last) {
  kl::IPAddr6 a;
  a.bytes[0] = 0xfe;
  a.bytes[1] = 0x80;
  a.bytes[15] = last;
  return a;
}

// One field of each of the fourteen types.
kl::message everything() {
  kl::message inner;
  inner.insert_u32(0x08000001, 7);
  kl::message::flat_message flat;
  inner.flatten(flat);
  kl::message m;
  m.insert_bool(0x00000001, true);
  m.insert_u32(0x08000002, 4294967295u);
  m.insert_u64(0x10000003, ~0ull);
  m.insert_addr6(0x18000004, address(1));
  m.insert_string(0x20000005, "text \"quoted\"\n\xc3\xa9");
  m.insert_message(0x28000006, flat);
  m.insert_raw(0x30000007, {0x02, 0xfc, 0x00});
  m.insert_bool_array(0x80000008, {true, false});
  m.insert_u32_array(0x88000009, {1, 2});
  m.insert_u64_array(0x9000000a, {3, 1ull << 63});
  m.insert_addr6_array(0x9800000b, {address(1), address(2)});
  m.insert_string_array(0xa000000c, {"a,b", ""});
  m.insert_message_array(0xa800000d, {flat, flat});
  m.insert_raw_array(0xb000000e, {{}, {0xff}});
  return m;
}

}  // namespace

TEST(JsonForm, EveryTypeIsWrittenAsJsonHasIt) {
  EXPECT_EQ(
      toJson(everything(), FieldNames()).dump(),
      "{\"bool:1\":true,\"u32:2\":4294967295,\"u64:3\":18446744073709551615,\"addr6:4\":\"fe80::1\","
      "\"string:5\":\"text \\\"quoted\\\"\\n\xc3\xa9\",\"message:6\":{\"u32:1\":7},\"raw:7\":\"02:fc:00\","
      "\"bool[]:8\":[true,false],\"u32[]:9\":[1,2],\"u64[]:10\":[3,9223372036854775808],"
      "\"addr6[]:11\":[\"fe80::1\",\"fe80::2\"],\"string[]:12\":[\"a,b\",\"\"],"
      "\"message[]:13\":[{\"u32:1\":7},{\"u32:1\":7}],\"raw[]:14\":[\"\",\"ff\"]}");
}

TEST(JsonForm, WhatIsWrittenReadsBackAsAnEqualMessage) {
  const FieldNames names;
  const std::string text = toJson(everything(), names).dump();
  EXPECT_TRUE(messageFrom(Json::parse(text), names) == everything());
  EXPECT_TRUE(messageFrom(Json::parse("{}"), names) == kl::message());
}

TEST(JsonForm, EmptyArraysStayEmptyArrays) {
  kl::message m;
  m.insert_u32_array(0x88000001, {});
  const Json json = toJson(m, FieldNames());
  EXPECT_EQ(json.dump(), "{\"u32[]:1\":[]}");
  EXPECT_TRUE(messageFrom(json, FieldNames()).has_array(0x88000001));
}

TEST(JsonForm, MembersAreNamedAndOrderedByTheDictionary) {
  FieldNames names;
  names.add("size", 0x10000002);
  names.add("state", 0x08000001);
  names.addValue(0x08000001, "running", 4);
  kl::message m;
  m.insert_u32(0x08000001, 4);
  m.insert_u64(0x10000002, 9);
  m.insert(kl::STD_ID, 3);
  EXPECT_EQ(toJson(m, names).dump(), "{\"size\":9,\"state\":\"running\",\"id\":3}");
  EXPECT_TRUE(messageFrom(toJson(m, names), names) == m);
  m.insert_u32(0x08000001, 5);
  EXPECT_EQ(toJson(m, names)["state"], 5);  // a number without a word
}

// In a message it is the IPv6 address that stands for it.
TEST(JsonForm, AnIPv4AddressIsWrittenAsPeopleWriteIt) {
  const FieldNames names;
  const kl::message m =
      messageFrom(Json::parse(R"({"addr6:1": "192.0.2.1", "addr6[]:2": ["::ffff:192.0.2.2"]})"), names);
  const kl::IPAddr6 held = m.get_addr6(0x18000001);
  EXPECT_EQ(kl::test::hex({std::begin(held.bytes), std::end(held.bytes)}),
            "0000 0000 0000 0000 0000 ffff c000 0201");
  EXPECT_EQ(toJson(m, names).dump(), R"({"addr6:1":"192.0.2.1","addr6[]:2":["192.0.2.2"]})");
}

TEST(JsonForm, WhatIsNoWholeAddressIsRefused) {
  for (const std::string text : {"192.0.2", "192.0.2.01", "192.0.2.1/24", "fe80::1%eth0", " ::1", ""})
    EXPECT_EQ(failureOf([&] { (void)messageFrom(Json{{"addr6:1", text}}, FieldNames()); }).status, 2) << text;
}

TEST(JsonForm, NumbersMayStandInStrings) {
  const kl::message m =
      messageFrom(Json::parse(R"({"u32:1": "0x10", "u64:2": "7", "bool:3": "true"})"), FieldNames());
  EXPECT_EQ(m.get_u32(0x08000001, 0), 16u);
  EXPECT_EQ(m.get_u64(0x10000002, 0), 7u);
  EXPECT_TRUE(m.get_bool(0x00000003, false));
}

TEST(JsonForm, ValuesOfTheWrongKindAreRefused) {
  for (const std::string text :
       {R"({"u32:1": -1})", R"({"u32:1": 1.5})", R"({"u32:1": 4294967296})", R"({"u32:1": null})",
        R"({"u32:1": [1]})", R"({"bool:1": 1})", R"({"string:1": 1})", R"({"addr6:1": 1})",
        R"({"raw:1": [1]})", R"({"u32[]:1": 1})", R"({"message:1": []})", R"({"unknown": 1})", R"([1])",
        R"(7)"}) {
    const Told told = failureOf([&] { (void)messageFrom(Json::parse(text), FieldNames()); });
    EXPECT_EQ(told.status, 2) << text;
  }
}

TEST(JsonForm, HostileNestingEndsInBytes) {
  kl::message m;
  m.insert_bool(0x00000001, true);
  for (int i = 0; i < 1000; ++i) {
    kl::message outer;
    outer.insert_message(0x28000001, m);
    m = outer;
  }
  const std::string text = toJson(m, FieldNames()).dump();
  EXPECT_NE(text.find("\"message:1\":\"4d:32:"), std::string::npos);
}

TEST(JsonForm, ANestedMessageWithBadBytesShowsWhatWasReadBeforeTheFault) {
  kl::message m;
  m.insert_message(0x28000001, kl::message::flat_message({0x4d, 0x32, 5, 0, 0, 9, 7, 0xff}));
  EXPECT_EQ(toJson(m, FieldNames()).dump(), "{\"message:1\":{\"u32:5\":7}}");
}

TEST(JsonForm, SecretsAreLeftOutOrMarkedOrShown) {
  FieldNames names;
  names.add("pin", 0x20000001);
  names.setSecret(0x20000001);
  kl::message m;
  m.insert_string(0x20000001, "swordfish");
  kl::message outer(m);
  outer.insert_message(0x28000002, m.flattened());
  EXPECT_EQ(toJson(outer, names).dump(), R"({"message:2":{}})");
  names.showSecrets(FieldNames::Secrets::kMarked);
  EXPECT_EQ(toJson(outer, names).dump(), R"x({"pin":"(secret)","message:2":{"pin":"(secret)"}})x");
  names.showSecrets(FieldNames::Secrets::kShown);
  EXPECT_EQ(toJson(m, names).dump(), R"({"pin":"swordfish"})");
}

TEST(JsonForm, NumbersMayHaveUnits) {
  FieldNames names;
  names.add("lease", 0x08000001);
  names.setUnit(0x08000001, "s");
  EXPECT_EQ(messageFrom(Json::parse(R"({"lease": "2h"})"), names).get_u32(0x08000001, 0), 7200u);
  EXPECT_EQ(messageFrom(Json::parse(R"({"lease": "90 s"})"), names).get_u32(0x08000001, 0), 90u);
  EXPECT_EQ(failureOf([&] { (void)messageFrom(Json::parse(R"({"lease": "5ms"})"), names); }).sentence,
            "lease is of the type u32 and takes a whole number from 0 to 4294967295 in s, not \"5ms\"");
}

TEST(JsonForm, ARefusalNamesTheWordsThatThereAreAndNoSecret) {
  FieldNames names;
  names.add("state", 0x08000001);
  names.addValue(0x08000001, "stopped", 1);
  names.addValue(0x08000001, "idle", 2);
  EXPECT_EQ(
      failureOf([&] { (void)messageFrom(Json::parse(R"({"state": "x"})"), names); }).sentence,
      "state is of the type u32 and takes stopped, idle or a whole number from 0 to 4294967295, not \"x\"");
  EXPECT_EQ(failureOf([&] { (void)messageFrom(Json::parse(R"({"stat": 1})"), names); }).sentence,
            "there is no field 'stat'; did you mean 'state'?");
  names.add("pin", 0x30000001);
  names.setSecret(0x30000001);
  EXPECT_EQ(
      failureOf([&] { (void)messageFrom(Json::parse(R"({"pin": "swordfish"})"), names); }).sentence,
      "pin is of the type raw and takes bytes as pairs of hexadecimal digits (02:fc:00), not what was given");
}

}  // namespace klctl

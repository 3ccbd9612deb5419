#include "services/loader/config/settings.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "kl/message.h"
#include "services/loader/config/configuration.h"

namespace {

using common::Mistake;
using common::Section;

std::vector<unsigned char> flatten(const std::string& text, std::vector<Mistake>& mistakes) {
  const toml::table table = toml::parse(text);
  Section section(table, "service", "file", mistakes);
  return loader::readSettings(section, table);
}

kl::message read(const std::string& text) {
  std::vector<Mistake> mistakes;
  const std::vector<unsigned char> flat = flatten(text, mistakes);
  for (const Mistake& m : mistakes) ADD_FAILURE() << m.describe();
  return kl::message(flat);
}

std::string mistakesIn(const std::string& text) {
  std::vector<Mistake> mistakes;
  (void)flatten(text, mistakes);
  std::string all;
  for (const Mistake& m : mistakes) all += m.describe();
  return all;
}

TEST(Settings, TheyHoldEveryTypeOfField) {
  const kl::message m = read(R"(
0x00000001 = true
0x08000002 = 4294967295
0x10000003 = 9223372036854775807
0x18000004 = "2001:db8::1"
0x20000005 = "text"
0x28000006 = { 0x08000001 = 5 }
0x30000007 = "00ff"
0x80000001 = [true, false]
0x88000002 = [1, 2]
0x90000003 = [3]
0x98000004 = ["::1"]
0xa0000005 = ["a", ""]
0xa8000006 = [{ 0x08000001 = 6 }]
0xb0000007 = ["", "2a"]
)");
  EXPECT_TRUE(m.get_bool(0x00000001, false));
  EXPECT_EQ(m.get_u32(0x08000002, 0), 4294967295u);
  EXPECT_EQ(m.get_u64(0x10000003, 0), 9223372036854775807ull);
  EXPECT_EQ(m.get_addr6(0x18000004, kl::IPAddr6::zero).bytes[15], 1);
  EXPECT_EQ(m.get_string(0x20000005, ""), "text");
  EXPECT_EQ(kl::message(m.get_message(0x28000006, {})).get_u32(0x08000001, 0), 5u);
  EXPECT_EQ(m.get_raw(0x30000007, {}), (std::vector<unsigned char>{0, 0xff}));
  EXPECT_EQ(m.get_bool_array(0x80000001), (std::vector<bool>{true, false}));
  EXPECT_EQ(m.get_u32_array(0x88000002), (std::vector<unsigned int>{1, 2}));
  EXPECT_EQ(m.get_u64_array(0x90000003), (std::vector<unsigned long long>{3}));
  EXPECT_EQ(m.size_addr6_array(0x98000004), 1u);
  EXPECT_EQ(m.get_string_array(0xa0000005), (std::vector<std::string>{"a", ""}));
  EXPECT_EQ(kl::message(m.get_message_array(0xa8000006).at(0)).get_u32(0x08000001, 0), 6u);
  EXPECT_EQ(m.get_raw_array(0xb0000007), (std::vector<std::vector<unsigned char>>{{}, {0x2a}}));
}

TEST(Settings, TheyMustFitTheirFieldIds) {
  EXPECT_EQ(mistakesIn("0x08000007 = -1"),
            "file:1: [service] 0x08000007: expected a number from 0 to 4294967295, found -1");
  EXPECT_EQ(mistakesIn("0x08000007 = \"1\""),
            "file:1: [service] 0x08000007: expected a number from 0 to 4294967295, found \"1\"");
  EXPECT_EQ(mistakesIn("speed = 1"),
            "file:1: [service] speed: expected a key that is a field id, like 0x08000007, found 1");
  for (const char* key : {"0x09000007", "0x38000001", "0x", "0x1g", "08000007", "0x108000007", "0xffffffff"})
    EXPECT_NE(mistakesIn(std::string(key) + " = 1").find("a key that is a field id"), std::string::npos)
        << key;
  EXPECT_NE(mistakesIn("0x88000007 = [1, \"2\"]").find("a list, each of its elements a number"),
            std::string::npos);
  EXPECT_NE(mistakesIn("0x18000007 = \"10.0.0.1\"").find("an IPv6 address as text"), std::string::npos);
  EXPECT_NE(mistakesIn("0x30000007 = \"0\"").find("hexadecimal digits"), std::string::npos);
  EXPECT_NE(mistakesIn("0x30000007 = \"0g\"").find("hexadecimal digits"), std::string::npos);
  EXPECT_NE(mistakesIn("0x28000007 = 1").find("a table of field ids"), std::string::npos);
}

TEST(Settings, TogetherTheyMustFitAFieldOfTheConfirmation) {
  const std::string text(65000, 'x');
  EXPECT_EQ(mistakesIn("0x20000001 = \"" + text + "\""), "");
  EXPECT_EQ(mistakesIn("0x20000001 = \"" + text + "\"\n0x20000002 = \"" + text + "\""),
            "file:1: [service]: expected settings of at most 65535 bytes together");
  EXPECT_NE(mistakesIn("0x20000001 = \"" + text + text + "\"").find("a text of at most 65535 bytes"),
            std::string::npos);
  EXPECT_NE(mistakesIn("0x28000001 = { 0x20000001 = \"" + text + "\", 0x20000002 = \"" + text + "\" }")
                .find("a table of field ids and values, at most 65535 bytes together"),
            std::string::npos);
}

}  // namespace

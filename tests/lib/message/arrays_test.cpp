#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "kl/message.h"
#include "message/rep.h"
#include "tests/support/hex.h"

namespace {

using kl::IPAddr6;
using kl::message;
using kl::RepAccess;
using kl::test::hex;

using Bytes = std::vector<unsigned char>;
using Flat = message::flat_message;

message withEveryArray() {
  message m;
  m.insert_bool_array(0x80000001, {true, false, true});
  m.insert_u32_array(0x88000001, {1, 0x01020304});
  m.insert_u64_array(0x90000001, {0x0102030405060708});
  m.insert_addr6_array(0x98000001, {IPAddr6::zero, {{0xfe, 0x80}}});
  m.insert_string_array(0xA0000001, {"a", "", "bc"});
  m.insert_message_array(0xA8000001, {Flat(Bytes{0x4d, 0x32})});
  m.insert_raw_array(0xB0000001, {{1}, {}, {2, 3}});
  return m;
}

TEST(Arrays, EveryTypeReadsBack) {
  const message m = withEveryArray();
  EXPECT_EQ(m.get_bool_array(0x80000001), (std::vector<bool>{true, false, true}));
  EXPECT_EQ(m.get_u32_array(0x88000001), (std::vector<unsigned int>{1, 0x01020304}));
  EXPECT_EQ(m.get_u64_array(0x90000001), (std::vector<unsigned long long>{0x0102030405060708}));
  EXPECT_EQ(m.get_addr6_array(0x98000001), (std::vector<IPAddr6>{IPAddr6::zero, {{0xfe, 0x80}}}));
  EXPECT_EQ(m.get_string_array(0xA0000001), (std::vector<std::string>{"a", "", "bc"}));
  EXPECT_EQ(m.get_message_array(0xA8000001), (std::vector<Flat>{Flat(Bytes{0x4d, 0x32})}));
  EXPECT_EQ(m.get_raw_array(0xB0000001), (std::vector<Bytes>{{1}, {}, {2, 3}}));
}

TEST(Arrays, SizesCountElementsOfTheirOwnTypeOnly) {
  const message m = withEveryArray();
  EXPECT_EQ(m.size_bool_array(0x80000001), 3u);
  EXPECT_EQ(m.size_unsigned_array(0x88000001), 2u);
  EXPECT_EQ(m.size_u64_array(0x90000001), 1u);
  EXPECT_EQ(m.size_addr6_array(0x98000001), 2u);
  EXPECT_EQ(m.size_string_array(0xA0000001), 3u);
  EXPECT_EQ(m.size_message_array(0xA8000001), 1u);
  EXPECT_EQ(m.size_raw_array(0xB0000001), 3u);
  EXPECT_EQ(m.size_unsigned_array(0x88000002), 0u);
  EXPECT_EQ(m.size_u64_array(0x88000001), 0u);
  EXPECT_TRUE(m.has_array(0x88000001));
  EXPECT_FALSE(m.has_array(0x88000002));
}

TEST(Arrays, AMissingOneReadsAsEmpty) {
  const message m;
  EXPECT_TRUE(m.get_bool_array(0x80000001).empty());
  EXPECT_TRUE(m.get_u32_array(0x88000001).empty());
  EXPECT_TRUE(m.get_be32_array(0x88000001).empty());
  EXPECT_TRUE(m.get_string_array(0xA0000001).empty());
  EXPECT_EQ(RepAccess::of(m), nullptr);
}

TEST(Arrays, AnEmptyOneIsThere) {
  message m;
  m.insert_u32_array(0x88000001, {});
  EXPECT_TRUE(m.has_array(0x88000001));
  EXPECT_EQ(m.size_unsigned_array(0x88000001), 0u);
}

TEST(Arrays, ReplacingGrowsAndShrinks) {
  message m;
  for (const std::size_t n : {2, 1000, 0, 3, 20000}) {
    m.insert_u32_array(0x88000001, std::vector<unsigned int>(n, 5));
    m.insert_string_array(0xA0000001, std::vector<std::string>(n, "abc"));
    EXPECT_EQ(m.get_u32_array(0x88000001), std::vector<unsigned int>(n, 5));
    EXPECT_EQ(m.get_string_array(0xA0000001), std::vector<std::string>(n, "abc"));
    EXPECT_EQ(m.max_length(), 2 + 6 + 4 * n + 6 + 5 * n);
    RepAccess::read(m).check();
  }
}

TEST(Arrays, TheReversedPairReversesEveryElement) {
  message m;
  m.insert_be32_array(0x88000001, {0x01020304, 5});
  EXPECT_EQ(m.get_u32_array(0x88000001), (std::vector<unsigned int>{0x04030201, 0x05000000}));
  EXPECT_EQ(m.get_be32_array(0x88000001), (std::vector<unsigned int>{0x01020304, 5}));
  EXPECT_TRUE(RepAccess::read(m).unshareable);
}

TEST(Arrays, AReferenceCreatesAnEmptyOneAndChangesItLater) {
  message m;
  std::vector<std::string>* names = m.get_string_array_ref(0xA0000001);
  EXPECT_TRUE(names->empty());
  EXPECT_TRUE(m.has_array(0xA0000001));
  names->push_back("later");
  EXPECT_EQ(m.size_string_array(0xA0000001), 1u);
  EXPECT_EQ(m.max_length(), 2 + 6 + 2 + 5u);
  m.insert_string_array(0xA0000001, {"x", "y"});
  EXPECT_EQ(names->size(), 2u);
  m.insert_string_array(0xA0000001, *names);
  EXPECT_EQ(m.get_string_array(0xA0000001), (std::vector<std::string>{"x", "y"}));
}

TEST(Arrays, EveryTypeIsSeenThroughItsReferences) {
  message m = withEveryArray();
  const message& c = m;
  EXPECT_EQ(*c.get_bool_array_ref(0x80000001), m.get_bool_array(0x80000001));
  EXPECT_EQ(*c.get_u32_array_ref(0x88000001), m.get_u32_array(0x88000001));
  EXPECT_EQ(*c.get_u64_array_ref(0x90000001), m.get_u64_array(0x90000001));
  EXPECT_EQ(*c.get_addr6_array_ref(0x98000001), m.get_addr6_array(0x98000001));
  EXPECT_EQ(*c.get_string_array_ref(0xA0000001), m.get_string_array(0xA0000001));
  EXPECT_EQ(*c.get_message_array_ref(0xA8000001), m.get_message_array(0xA8000001));
  EXPECT_EQ(*c.get_raw_array_ref(0xB0000001), m.get_raw_array(0xB0000001));
  const message plain = withEveryArray();
  EXPECT_TRUE(plain == m) << "an object equals the bytes that it was made from";
  EXPECT_TRUE(m == plain);
  m.get_u64_array_ref(0x90000001)->push_back(1);
  EXPECT_FALSE(plain == m);
}

TEST(Arrays, RemovingFreesTheFirstOfThatId) {
  message m = withEveryArray();
  m.remove_array(0xA0000001);
  EXPECT_FALSE(m.has_array(0xA0000001));
  EXPECT_TRUE(m.has_array(0xB0000001));
  m.remove_array(0xA0000001);
  EXPECT_EQ(RepAccess::read(m).arrays.count(), 6u);
}

TEST(Arrays, AnElementAbove65535BytesIsKeptWhole) {
  message m;
  const std::vector<std::string> long_ = {std::string(70000, 'x'), "b"};
  m.insert_string_array(0xA0000001, long_);
  EXPECT_EQ(m.get_string_array(0xA0000001), long_);
  EXPECT_EQ(m.max_length(), 2 + 6 + 70002 + 3u);
  message copy(m);
  EXPECT_TRUE(copy == m);
  EXPECT_EQ(copy.get_string_array(0xA0000001), long_);
  Bytes out;
  m.flatten(out);
  EXPECT_EQ(out.size(), 2 + 6 + 70002 + 3u);
  EXPECT_EQ(hex(Bytes(out.begin(), out.begin() + 12)), "4d32 0100 00a0 0200 7011 7878");
}

}  // namespace

// Golden messages: every type of field in every form, and the older format.

#include <gtest/gtest.h>

#include <string>

#include "kl/message.h"
#include "tests/golden/golden.h"
#include "tests/support/hex.h"

namespace golden {
namespace {

using kl::IPAddr6;
using kl::message;
using kl::test::hex;

constexpr IPAddr6 kAddress{{0xfe, 0x80, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1, 2}};
const Flat kEmpty(Bytes{0x4d, 0x32});

message read(const std::string& name, message::flatten_type type = message::normal) {
  const Bytes bytes = file(name);
  message m;
  EXPECT_TRUE(m.unflatten(bytes.data(), static_cast<unsigned int>(bytes.size()), type)) << name;
  return m;
}

// Field by field, whatever the lists' order, and in their order.
void expectWritten(const message& m, const std::string& name) {
  EXPECT_EQ(hex(flat(m)), hex(file(name)));
  EXPECT_TRUE(m == read(name)) << name;
}

// A message that was read has its lists turned round, so it takes two turns to come out as it went in.
void expectTwoTurns(const std::string& name) {
  const Bytes once = flat(read(name));
  EXPECT_EQ(once.size(), file(name).size());
  EXPECT_EQ(hex(flat(message(once))), hex(file(name)));
}

Flat numbered(unsigned int number) {
  message m;
  m.insert_u32(0x08000005, number);
  return Flat(flat(m));
}

TEST(GoldenMessages, ScalarsAreRead) {
  const message m = read("scalars.msg");
  EXPECT_TRUE(m.get_bool(3, false));
  EXPECT_FALSE(m.get_bool(4, true));
  EXPECT_EQ(m.get_u32(0x08000005, 0), 255u);
  EXPECT_EQ(m.get_u32(0x08000006, 0), 256u);
  EXPECT_EQ(m.get_u32(0x08000007, 0), 0xdeadbeefu);
  EXPECT_EQ(m.get_be32(0x08000007, 0), 0xefbeaddeu);
  EXPECT_EQ(m.get_u64(0x10000001, 0), 0x0102030405060708u);
  EXPECT_EQ(m.get_addr6(0x18000001), kAddress);
  EXPECT_EQ(m.get_string(0x20000001, ""), "ab");
  EXPECT_EQ(m.get_message(0x28000001, {}), kEmpty);
  EXPECT_EQ(m.get_raw(0x30000001, {}), (Bytes{0, 1, 0x80}));
}

TEST(GoldenMessages, ScalarsAreWritten) {
  message m;
  m.insert_raw(0x30000001, {0, 1, 0x80});
  m.insert_message(0x28000001, kEmpty);
  m.insert_string(0x20000001, "ab");
  m.insert_addr6(0x18000001, kAddress);
  m.insert_u64(0x10000001, 0x0102030405060708);
  m.insert_u32(0x08000007, 0xdeadbeef);
  m.insert_u32(0x08000006, 256);
  m.insert_u32(0x08000005, 255);
  m.insert_bool(3, true);
  m.insert_bool(4, false);
  expectWritten(m, "scalars.msg");
  expectTwoTurns("scalars.msg");
}

TEST(GoldenMessages, LongFormsAreRead) {
  const message m = read("long.msg");
  EXPECT_EQ(m.get_string(0x20000001, ""), std::string(256, 'x'));
  EXPECT_EQ(m.get_raw(0x30000001, {}), Bytes(300));
  const message nested(m.get_message(0x28000001, {}));
  EXPECT_EQ(nested.get_string(0x20000002, ""), std::string(255, 'y'));
}

TEST(GoldenMessages, LongFormsAreWritten) {
  Bytes nested = kl::test::bytes("4d32 02000020 ff00");
  nested.resize(nested.size() + 255, 'y');
  message m;
  m.insert_raw(0x30000001, Bytes(300));
  m.insert_message(0x28000001, Flat(nested));
  m.insert_string(0x20000001, std::string(256, 'x'));
  expectWritten(m, "long.msg");
  expectTwoTurns("long.msg");
}

TEST(GoldenMessages, ArraysAreRead) {
  const message m = read("arrays.msg");
  EXPECT_EQ(m.get_bool_array(0x80000001), (std::vector<bool>{true, false, true}));
  EXPECT_EQ(m.get_u32_array(0x88000001), (std::vector<unsigned int>{1, 0xdeadbeef}));
  EXPECT_EQ(m.get_be32_array(0x88000001), (std::vector<unsigned int>{0x01000000, 0xefbeadde}));
  EXPECT_TRUE(m.has_array(0x88000002));
  EXPECT_EQ(m.size_unsigned_array(0x88000002), 0u);
  EXPECT_EQ(m.get_u64_array(0x90000001), (std::vector<unsigned long long>{0x0102030405060708, 1ULL << 63}));
  EXPECT_EQ(m.get_addr6_array(0x98000001), (std::vector<IPAddr6>{IPAddr6::zero, kAddress}));
  EXPECT_EQ(m.get_string_array(0xA0000001), (std::vector<std::string>{"a", "", "bc"}));
  EXPECT_EQ(m.get_message_array(0xA8000001), (std::vector<Flat>{numbered(7), kEmpty}));
  EXPECT_EQ(m.get_raw_array(0xB0000001), (std::vector<Bytes>{{9}, {}, {8, 7}}));
  EXPECT_TRUE(m.has_array(0xB0000002));
  EXPECT_EQ(m.size_raw_array(0xB0000002), 0u);
}

TEST(GoldenMessages, ArraysAreWritten) {
  message m;
  m.insert_raw_array(0xB0000002, {});
  m.insert_raw_array(0xB0000001, {{9}, {}, {8, 7}});
  m.insert_message_array(0xA8000001, {numbered(7), kEmpty});
  m.insert_string_array(0xA0000001, {"a", "", "bc"});
  m.insert_addr6_array(0x98000001, {IPAddr6::zero, kAddress});
  m.insert_u64_array(0x90000001, {0x0102030405060708, 1ULL << 63});
  m.insert_u32_array(0x88000002, {});
  m.insert_be32_array(0x88000001, {0x01000000, 0xefbeadde});
  m.insert_bool_array(0x80000001, {true, false, true});
  expectWritten(m, "arrays.msg");
  expectTwoTurns("arrays.msg");
}

TEST(GoldenMessages, NestedMessagesAreRead) {
  const message outer = read("nested.msg");
  const message middle(outer.get_message(0x28000001, {}));
  const message inner(middle.get_message(0x28000001, {}));
  EXPECT_EQ(outer.get_u32(0x08000005, 0), 65536u);
  EXPECT_EQ(middle.get_u32(0x08000005, 0), 1u);
  EXPECT_EQ(inner.get_u32(0x08000005, 0), 2u);
  EXPECT_TRUE(inner.get_bool(3, false));
}

TEST(GoldenMessages, NestedMessagesAreWritten) {
  message outer, middle, inner;
  inner.insert_u32(0x08000005, 2);
  inner.insert_bool(3, true);
  middle.insert_u32(0x08000005, 1);
  middle.insert_message(0x28000001, inner);
  outer.insert_u32(0x08000005, 65536);
  outer.insert_message(0x28000001, middle);
  expectWritten(outer, "nested.msg");
  expectTwoTurns("nested.msg");
}

TEST(GoldenMessages, MarkedRecordsAreKeptOrRead) {
  const message kept = read("marked.msg", message::keep_marked);
  EXPECT_EQ(hex(flat(kept)), hex(kl::test::bytes("4d32 03000001 05000009 07")));
  const Bytes whole = file("marked.msg");
  ASSERT_NE(kept.kept(), nullptr);
  EXPECT_EQ(hex(*kept.kept()), hex({whole.begin() + 11, whole.end()}));

  const message m = read("marked.msg");
  EXPECT_EQ(m.kept(), nullptr);
  EXPECT_EQ(m.get_u32(0x0A000007, 0), 42u);
  EXPECT_EQ(m.get_string(0x22000001, ""), "ab");
  EXPECT_EQ(m.get_u32_array(0x8A000001), std::vector<unsigned int>{0x01020304});
}

TEST(GoldenMessages, MarkedRecordsAreWritten) {
  message m;
  m.insert_bool(3, true);
  m.insert_u32(0x08000005, 7);
  m.insert_u32(0x0A000007, 42);
  m.insert_string(0x22000001, "ab");
  m.insert_u32_array(0x8A000001, {0x01020304});
  expectWritten(m, "marked.msg");
}

TEST(GoldenMessages, BareRecordsAreReadAndWritten) {
  message m;
  m.insert_bool(3, true);
  m.insert_u32(0x08000005, 0x1234);
  m.insert_string(0x20000001, "ab");
  EXPECT_TRUE(m == read("bare.msg", message::bare));
  const Bytes whole = flat(m);
  EXPECT_EQ(hex({whole.begin() + 2, whole.end()}), hex(file("bare.msg")));
}

TEST(GoldenMessages, TheOlderFormatIsRead) {
  const message m = read("legacy.msg");
  EXPECT_TRUE(m.get_bool(3, false));
  EXPECT_EQ(m.get_u32(0x08FF0005, 0), 42u);
  EXPECT_EQ(m.get_string(0x20FE0001, ""), "abc");
  EXPECT_EQ(m.get_raw(0x30FD0002, {}), (Bytes{0, 1, 0x80}));
  EXPECT_EQ(m.get_message(0x28000001, {}), numbered(7));
  EXPECT_EQ(m.get_bool_array(0x80000001), (std::vector<bool>{true, false, true}));
  EXPECT_EQ(m.get_u32_array(0x88FF0001), (std::vector<unsigned int>{1, 0xdeadbeef}));
  EXPECT_EQ(m.get_string_array(0xA0000001), (std::vector<std::string>{"a", std::string("b\0", 2)}));
  EXPECT_EQ(m.get_raw_array(0xB0000001), (std::vector<Bytes>{{}, {7}}));
  EXPECT_EQ(m.get_message_array(0xA8000001), (std::vector<Flat>{kEmpty, Flat()}));
}

TEST(GoldenMessages, TheOlderFormatIsWrittenInTheNewOne) {
  expectWritten(read("legacy.msg"), "legacy-rewritten.msg");
}

}  // namespace
}  // namespace golden

#include <gtest/gtest.h>

#include <array>
#include <cstdlib>
#include <fstream>
#include <new>
#include <sstream>
#include <string>
#include <vector>

#include "kl/conventions.h"
#include "kl/message.h"
#include "tests/lib/message/allocation_count.h"
#include "tests/support/hex.h"

namespace {

using kl::Dumper;
using kl::message;
using kl::test::bytes;

using Flat = message::flat_message;

constexpr char kBanner[] = "--- kl::message --------\n";
constexpr char kRule[] = "------------------------\n";

std::string onStream(const message& m, const char* prefix = "", unsigned int indent = 0) {
  std::ostringstream out;
  m.dump2(out, prefix, indent);
  return out.str();
}

std::string onDumper(const message& m, unsigned int capacity = 100000) {
  std::vector<char> room(capacity);
  Dumper out(room.data(), capacity);
  m.dump2(out, "", 0);
  return std::string(out.data(), out.used());
}

std::string framed(const std::string& lines) { return kBanner + lines + kRule; }

// A message with one message field in it, and so on, `depth` times.
message nestedTo(unsigned int depth) {
  message m;
  for (unsigned int i = 0; i < depth; ++i) {
    message outer;
    outer.insert_message(0x28000001, m);
    m.swap(outer);
  }
  return m;
}

unsigned int occurrences(const std::string& text, const std::string& part) {
  unsigned int n = 0;
  for (std::size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + part.size())) ++n;
  return n;
}

TEST(Dump, EmptyMessageIsABannerAndARule) {
  EXPECT_EQ(onStream(message(), "> ", 1), ">     --- kl::message --------\n>     ------------------------\n");
}

TEST(Dump, EachScalarIsOneLine) {
  message m;
  m.insert_bool(3, true);
  EXPECT_EQ(onStream(m), framed(" bool [global(3)]=true\n"));
  m.insert_u64(0x10000002, 0x1234567890);
  m.insert_string(0x20FD0001, "ab");
  m.insert_raw(0x30420007, std::vector<unsigned char>(300));
  m.insert_addr6(0x18000004,
                 {{0xfe, 0x80, 0, 0, 0, 0, 0, 0, 0x02, 0x11, 0x22, 0xff, 0xfe, 0x33, 0x44, 0x55}});
  EXPECT_EQ(onStream(m), framed(" bool [global(3)]=true\n"
                                " addr6 [global(4)]=fe:80:00:00:00:00:00:00:02:11:22:ff:fe:33:44:55\n"
                                " raw [ns(7)]=#300\n"
                                " string [local(1)]=ab\n"
                                " u64 [global(2)]=78187493520\n"));
}

TEST(Dump, DumperWritesNumbersInHexadecimal) {
  message m;
  m.insert_u64(0x10000002, 0x1234567890);
  m.insert_raw(0x30420007, std::vector<unsigned char>(300));
  m.insert_u32_array(0x88000001, {7, 255});
  m.insert_u64_array(0x90000001, {7});
  m.insert_raw_array(0xB0000001, {{1, 2}});
  EXPECT_EQ(onDumper(m), framed(" raw [ns(7)]=#0x0000012c\n"
                                " u64 [global(2)]=0x0000001234567890\n"
                                " raw[] [global(1)]=#0x00000002, \n"
                                " u64[] [global(1)]=0x0000000000000007, \n"
                                " u32[] [global(1)]=0x00000007, 0x000000ff, \n"));
}

TEST(Dump, ArraysEndEachElementWithAComma) {
  message m;
  m.insert_bool_array(0x80000001, {true, false});
  m.insert_u32_array(0x88000001, {1, 4000000000});
  m.insert_u64_array(0x90000001, {5000000000});
  m.insert_addr6_array(0x98000001, {kl::IPAddr6::zero});
  m.insert_string_array(0xA0000001, {"a", "", "b"});
  m.insert_raw_array(0xB0000001, {{1, 2, 3}, {}});
  EXPECT_EQ(onStream(m), framed(" raw[] [global(1)]=#3, #0, \n"
                                " string[] [global(1)]=a, , b, \n"
                                " addr6[] [global(1)]=00:00:00:00:00:00:00:00:00:00:00:00:00:00:00:00, \n"
                                " u64[] [global(1)]=5000000000, \n"
                                " u32[] [global(1)]=1, 4000000000, \n"
                                " bool[] [global(1)]=true, false, \n"));
}

TEST(Dump, TableBoolsComeInSlotOrder) {
  message m;
  m.insert_bool(12, true);  // home slot 1
  m.insert_bool(11, false);
  EXPECT_EQ(onStream(m), framed(" bool [global(11)]=false\n bool [global(12)]=true\n"));
}

TEST(Dump, KnownFieldsAreNamedWhateverTheirType) {
  message m;
  m.insert_u32(0x08FF0006, 1);
  m.insert_string(0x20FF0006, "x");
  m.insert_u32(0x08FF000C, 1);
  m.insert_u32(0x08FE0013, 1);
  EXPECT_NE(onStream(m).find(" u32 [SYS_REQID]=1 0x1 0.0.0.1\n"), std::string::npos);
  EXPECT_NE(onStream(m).find(" string [SYS_REQID]=x\n"), std::string::npos);
  EXPECT_NE(onStream(m).find(" u32 [sys(12)]=1 0x1 0.0.0.1\n"), std::string::npos);
  EXPECT_NE(onStream(m).find(" u32 [STD_DEAD]="), std::string::npos);
}

TEST(Dump, OnlyTheFirstPathElementIsFollowedByItsService) {
  message m;
  m.insert_u32_array(kl::SYS_FROM, {3, 200});
  const std::string name = kl::findServiceName(3);
  EXPECT_EQ(onStream(m), framed(" u32[] [SYS_FROM]=3(" + name + "), 200, \n"));
  m.insert_u32_array(kl::SYS_FROM, {200, 3});
  EXPECT_EQ(onStream(m), framed(" u32[] [SYS_FROM]=200, 3, \n"));
  m.insert_u32_array(kl::SYS_FROM, {107});
  EXPECT_EQ(onStream(m), framed(" u32[] [SYS_FROM]=107, \n"));
  m.insert_u32_array(kl::SYS_FROM, {106});
  EXPECT_EQ(onStream(m), framed(" u32[] [SYS_FROM]=106(" + std::string(kl::findServiceName(106)) + "), \n"));
}

TEST(Dump, ServiceNamesFollowTheList) {
  std::ifstream list(std::string(KL_SOURCE_DIR) + "/lib/protocol/services.list");
  std::string name;
  for (unsigned int number = 0; std::getline(list, name); ++number) {
    message m;
    m.insert_u32_array(kl::SYS_TO, {number});
    EXPECT_EQ(onStream(m), framed(" u32[] [SYS_TO]=" + std::to_string(number) + "(" + name + "), \n"));
  }
}

TEST(Dump, NestedMessagesAreIndentedByOne) {
  message inner;
  inner.insert_u32(0x08000005, 7);
  message m;
  m.insert_message(0x28000001, inner);
  m.insert_message_array(0xA8000002, {inner.flattened(), message().flattened()});
  EXPECT_EQ(onStream(m, "| "),
            "| --- kl::message --------\n"
            "|  message [global(1)]...\n"
            "|     --- kl::message --------\n"
            "|      u32 [global(5)]=7 0x7 0.0.0.7\n"
            "|     ------------------------\n"
            "|  message[] [global(2)]..\n"
            "|     --- kl::message --------\n"
            "|      u32 [global(5)]=7 0x7 0.0.0.7\n"
            "|     ------------------------\n"
            "|     --- kl::message --------\n"
            "|     ------------------------\n"
            "\n"
            "| ------------------------\n");
}

TEST(Dump, BadNestedBytesShowWhatWasReadBeforeTheFault) {
  message m;
  m.insert_message(0x28000001, Flat(bytes("4d32 0300 0001 0500 0009")));
  EXPECT_EQ(onStream(m), framed(" message [global(1)]...\n"
                                "    --- kl::message --------\n"
                                "     bool [global(3)]=true\n"
                                "    ------------------------\n"));
  m.insert_message(0x28000001, Flat(bytes("ff")));
  EXPECT_EQ(onStream(m),
            framed(" message [global(1)]...\n    --- kl::message --------\n    ------------------------\n"));
}

TEST(Dump, NestedLegacyMessagesAreShown) {
  message m;
  m.insert_message(0x28000001, Flat(bytes("0300 02 0500 00 03 0100 0000 2a000000"
                                          "02 0700 00 00 0200 0000 01000000 02000000"
                                          "02 0700 00 00 0200 0000 03000000 04000000")));
  for (const std::string& text : {onStream(m), onDumper(m)}) {
    EXPECT_NE(text.find("     u32 [SYS_REPLYEXP]=42 0x2a 0.0.0.42\n"), std::string::npos) << text;
    EXPECT_EQ(occurrences(text, "u32[] [global(7)]="), 1u);
  }
  EXPECT_NE(onStream(m).find("]=1, 2, 3, 4, \n"), std::string::npos);
}

TEST(Dump, RepeatedFieldsOfANestedMessageShowTheLast) {
  message m;
  m.insert_message(0x28000001,
                   Flat(bytes("4d32 01000021 01 61 01000021 02 6263 01000088 0100 07000000 01000088 0000"
                              "01000080 0200 0200")));
  EXPECT_EQ(onStream(m), framed(" message [global(1)]...\n"
                                "    --- kl::message --------\n"
                                "     string [global(1)]=bc\n"
                                "     bool[] [global(1)]=true, false, \n"
                                "     u32[] [global(1)]=\n"
                                "    ------------------------\n"));
}

TEST(Dump, AFieldThatDisagreesWithItsIdIsPassedOver) {
  message m;
  m.insert_string(0x08000001, "no u32");
  m.insert_u32_array(0x38000001, {1});
  EXPECT_EQ(onStream(m), framed(""));
}

TEST(Dump, ValuesHandedOutByReferenceAreShownAsTheyStand) {
  message m;
  *m.get_string_ref(0x20000001) = "later";
  *m.get_u32_array_ref(0x88000001) = {1, 2};
  m.get_string_array_ref(0xA0000001)->push_back("x");
  m.get_message_ref(0x28000001)->assign({0x4d, 0x32});
  EXPECT_EQ(onStream(m),
            framed(" message [global(1)]...\n    --- kl::message --------\n    ------------------------\n"
                   " string [global(1)]=later\n string[] [global(1)]=x, \n u32[] [global(1)]=1, 2, \n"));
}

TEST(Dump, StreamIsLeftInDecimal) {
  message m;
  m.insert_u32(0x08000001, 16);
  m.insert_raw(0x30000001, std::vector<unsigned char>(16));
  std::ostringstream out;
  out << std::hex;
  m.dump2(out, "", 0);
  EXPECT_NE(out.str().find("#16\n"), std::string::npos);
}

TEST(Dump, InsertionIntoAStreamIsTheDump) {
  message m;
  m.insert_bool(3, false);
  std::ostringstream out;
  out << m;
  EXPECT_EQ(out.str(), onStream(m));
}

// Counts characters and keeps none.
class CountingBuffer : public std::streambuf {
 public:
  unsigned long long count = 0;
  unsigned int lines = 0;

 protected:
  int_type overflow(int_type c) override {
    lines += c == '\n' ? 1 : 0;
    ++count;
    return c;
  }
  std::streamsize xsputn(const char*, std::streamsize n) override {
    count += static_cast<unsigned long long>(n);
    return n;
  }
};

TEST(Dump, NestingAsDeepAsTheFormatAllowsEndsWhole) {
  constexpr unsigned int kDepth = 8000;
  const message m = nestedTo(kDepth);
  CountingBuffer counting;
  std::ostream out(&counting);
  m.dump2(out, "", 0);
  EXPECT_EQ(counting.lines, 3 * kDepth + 2);
}

TEST(Dump, DumperNamesTheMessageThatHasNoRoom) {
  const std::string text = onDumper(nestedTo(8000), 4000000);
  EXPECT_EQ(occurrences(text, "--- no room for a message of #0x"), 1u);
  const unsigned int shown = occurrences(text, "--- kl::message --------");
  EXPECT_GT(shown, 50u);
  EXPECT_EQ(occurrences(text, kRule), shown);
}

TEST(Dump, DumperNamesTheFieldsThatHaveNoRoom) {
  message inner;
  for (unsigned int i = 0; i < 3000; ++i) inner.insert_string(0x20000000 + i, "x");
  message m;
  m.insert_string(0x20000001, "before");
  m.insert_message(0x28000001, inner);
  m.insert_message(0x28000002, message());
  const std::string text = onDumper(m, 4000000);
  EXPECT_EQ(occurrences(text, "    --- no room for more fields\n    ----"), 1u);
  EXPECT_GT(occurrences(text, "string ["), 100u);
  EXPECT_EQ(occurrences(text, "--- kl::message --------"), 3u);
}

TEST(Dump, DumperTakesNothingFromTheHeap) {
  message inner;
  inner.insert_u32_array(kl::SYS_TO, {1, 2});
  inner.insert_string(0x20000001, std::string(500, 'x'));
  for (unsigned int i = 0; i < 30; ++i) inner.insert_u32(0x08000000 + i, i), inner.insert_bool(i, true);
  message m;
  m.insert_message(0x28000001, inner);
  m.insert_message_array(0xA8000001, {inner.flattened(), nestedTo(300).flattened()});
  m.insert_message(0x28000002, Flat(bytes("0200 02 0700 00 00 0200 0000 01000000 02000000"
                                          "02 0700 00 00 0200 0000 03000000 04000000")));
  static char room[400000];
  Dumper out(room, sizeof room);
  const kl::test::AllocationCount before;
  m.dump2(out, "", 0);
  EXPECT_EQ(before.since(), 0u);
  EXPECT_GT(out.used(), 3000u);
}

TEST(Dump, DumperShowsWhatAStreamShows) {
  message inner;
  inner.insert_string(0x20000001, "text");
  inner.insert_bool(1, true);
  message m;
  m.insert_message_array(0xA8000001, {inner.flattened(), inner.flattened()});
  m.insert_message(0x28000001, inner);
  m.insert_u32(kl::SYS_CMD, kl::CMD_GETALL);
  EXPECT_EQ(onDumper(m), onStream(m));
}

TEST(Dump, AFullDumperKeepsItsFirstCharacters) { EXPECT_EQ(onDumper(message(), 10), "--- kl::me"); }

TEST(Dump, EveryPrefixOfNestedBytesIsShownOnBothOutputs) {
  message inner;
  inner.insert_u32(0x08000001, 70000);
  inner.insert_string_array(0xA0000001, {"a", "bc"});
  inner.insert_raw(0x30000001, std::vector<unsigned char>(300));
  inner.insert_addr6_array(0x98000001, {kl::IPAddr6::zero, kl::IPAddr6::zero});
  const Flat whole = inner.flattened();
  for (std::size_t n = 0; n <= whole.size(); ++n) {
    message m;
    m.insert_message(0x28000001,
                     Flat(std::vector<unsigned char>(whole.begin(), whole.begin() + static_cast<long>(n))));
    EXPECT_EQ(occurrences(onStream(m), kRule), 2u);
    EXPECT_EQ(occurrences(onDumper(m), kRule), 2u);
  }
}

}  // namespace

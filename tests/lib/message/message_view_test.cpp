#include "kl/message_view.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <ranges>
#include <string>
#include <vector>

#include "tests/lib/message/allocation_count.h"
#include "tests/lib/message/view_differences.h"
#include "tests/support/build/effort.h"
#include "tests/support/hex.h"

namespace {

using kl::field;
using kl::IPAddr6;
using kl::message;
using kl::message_view;
using kl::test::bytes;
using kl::test::hex;
using kl::test::viewDifferences;

using Bytes = std::vector<unsigned char>;
using Numbers = std::vector<unsigned int>;

// One record of every kind and both forms, behind the magic.
constexpr char kOneOfEach[] =
    "4d32"
    "03000001"                                   // bool 3, true
    "04000000"                                   // bool 4, false
    "05000009 07"                                // u32 5, short form
    "06000008 34120000"                          // u32 6, long form
    "07000010 0807060504030201"                  // u64 7
    "08000018 000102030405060708090a0b0c0d0e0f"  // address 8
    "01000021 02 6162"                           // string 1, short form
    "02000020 0300 616263"                       // string 2, long form
    "09000029 07 4d32 05000009 2a"               // message 9: u32 5 is 42
    "0a000031 01 ff"                             // raw 10
    "0b000080 0200 0002"                         // bool array 11
    "0c000088 0200 01000000 ffffffff"            // u32 array 12
    "0d000090 0100 0100000000000080"             // u64 array 13
    "0e000098 0100 0f0e0d0c0b0a09080706050403020100"
    "0f0000a0 0300 0100 61 0000 0200 6263"           // string array 15: "a", "", "bc"
    "100000a8 0200 0200 4d32 0700 4d32 05000009 2b"  // message array 16: none, u32 5 is 43
    "110000b0 0200 0000 0100 2a";                    // raw array 17

std::string hexOf(std::span<const unsigned char> span) { return hex(Bytes(span.begin(), span.end())); }

std::string sameAsMessage(const char* text) { return viewDifferences(bytes(text)); }

void append(Bytes& to, const char* text) {
  const Bytes more = bytes(text);
  to.insert(to.end(), more.begin(), more.end());
}

// Short u32 records with these ids, each with the low byte of its place as the value.
Bytes numbersUnder(const Numbers& ids) {
  Bytes flat{0x4d, 0x32};
  for (std::size_t i = 0; i < ids.size(); ++i) {
    for (const unsigned int shift : {0U, 8U, 16U, 24U})
      flat.push_back(static_cast<unsigned char>((ids[i] | 0x01000000) >> shift));
    flat.push_back(static_cast<unsigned char>(i));
  }
  return flat;
}

Numbers consecutive(unsigned int count) {
  Numbers ids;
  for (unsigned int i = 0; i < count; ++i) ids.push_back(0x08000000 + i);
  return ids;
}

// --- Values ----------------------------------------------------------------------------------------------------

TEST(MessageView, SingleValuesAreReadInBothForms) {
  const Bytes flat = bytes(kOneOfEach);
  const message_view view(flat);
  EXPECT_TRUE(view.ok());
  EXPECT_TRUE(view.get_bool(3, false));
  EXPECT_FALSE(view.get_bool(4, true));
  EXPECT_EQ(view.get_u32(0x08000005, 0), 7u);
  EXPECT_EQ(view.get_u32(0x08000006, 0), 0x1234u);
  EXPECT_EQ(view.get_be32(0x08000006, 0), 0x34120000u);
  EXPECT_EQ(view.get_u64(0x10000007, 0), 0x0102030405060708u);
  EXPECT_EQ(view.get_addr6(0x18000008), (IPAddr6{{0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15}}));
  EXPECT_EQ(view.get_string(0x20000001, "?"), "ab");
  EXPECT_EQ(view.get_string(0x20000002, "?"), "abc");
  EXPECT_EQ(hexOf(view.get_raw(0x3000000a, {})), "ff");
}

TEST(MessageView, TextsAndBytesLieInTheBytesGiven) {
  const Bytes flat = bytes("4d32 01000021 02 6162 0a000031 01 ff");
  const message_view view(flat);
  EXPECT_EQ(reinterpret_cast<const unsigned char*>(view.get_string(0x20000001, "").data()), flat.data() + 7);
  EXPECT_EQ(view.get_raw(0x3000000a, {}).data(), flat.data() + 14);
}

TEST(MessageView, ArraysAreRangesOfTheirValues) {
  const Bytes flat = bytes(kOneOfEach);
  const message_view view(flat);
  EXPECT_EQ(view.get_bool_array(0x8000000b).values(), (std::vector<bool>{false, true}));
  EXPECT_EQ(view.get_u32_array(0x8800000c).values(), (Numbers{1, 0xffffffff}));
  EXPECT_EQ(view.get_u32_array(0x8800000c)[1], 0xffffffffu);
  EXPECT_EQ(view.get_u64_array(0x9000000d).front(), 0x8000000000000001u);
  EXPECT_EQ(view.get_addr6_array(0x9800000e)[0].bytes[0], 15);
  const auto texts = view.get_string_array(0xa000000f);
  EXPECT_EQ(texts.size(), 3u);
  EXPECT_TRUE(std::ranges::equal(texts, std::vector<std::string_view>{"a", "", "bc"}));
  std::vector<std::string> elements;
  for (const std::span<const unsigned char> element : view.get_raw_array(0xb0000011))
    elements.push_back(hexOf(element));
  EXPECT_EQ(elements, (std::vector<std::string>{"", "2a"}));
}

TEST(MessageView, NestedMessagesAreViews) {
  const Bytes flat = bytes(kOneOfEach);
  const message_view view(flat);
  EXPECT_EQ(view.get_message(0x28000009).get_u32(0x08000005, 0), 42u);
  EXPECT_EQ(hexOf(view.get_message_bytes(0x28000009)), "4d32 0500 0009 2a");
  Numbers values;
  for (const message_view object : view.get_message_array(0xa8000010))
    values.push_back(object.get_u32(0x08000005, 0));
  EXPECT_EQ(values, (Numbers{0, 43}));
}

TEST(MessageView, AFieldKnowsTheTypeOfItsValue) {
  constexpr field<unsigned int> kNumber{0x08000005};
  constexpr field<std::string> kText{0x20000001};
  constexpr field<std::string> kAbsent{0x20000003};
  constexpr field<message::flat_message> kNested{0x28000009};
  constexpr field<Numbers> kList{0x8800000c};
  const Bytes flat = bytes(kOneOfEach);
  const message_view view(flat);
  EXPECT_EQ(view.get(kNumber, 0), 7u);
  EXPECT_EQ(view.get(kText, ""), "ab");
  EXPECT_EQ(view.get(kNested, {}).get(kNumber, 0), 42u);
  EXPECT_EQ(view.get(kList, {}).size(), 2u);
  EXPECT_TRUE(view.has(kText));
  EXPECT_FALSE(view.has(kAbsent));
}

TEST(MessageView, WhatIsAbsentOrOfAnotherTypeGivesTheDefault) {
  const Bytes flat = bytes(kOneOfEach);
  const message_view view(flat);
  EXPECT_EQ(view.get_u32(0x08000099, 9), 9u);
  EXPECT_EQ(view.get_u32(0x20000001, 9), 9u);  // a string's id
  EXPECT_EQ(view.get_be32(0x08000099, 9), 9u);
  EXPECT_EQ(view.get_string(0x3000000a, "none"), "none");  // raw bytes
  EXPECT_EQ(view.get_string(0x20000099, "none"), "none");
  EXPECT_EQ(view.get_addr6(0x18000099), IPAddr6::zero);
  EXPECT_TRUE(view.get_u32_array(0x88000099).empty());
  EXPECT_TRUE(view.get_message(0x28000099).empty());
  EXPECT_TRUE(view.get_message(0x28000099).ok());
}

TEST(MessageView, NothingIsAllocated) {
  const Bytes flat = bytes(kOneOfEach);
  const kl::test::AllocationCount count;
  const message_view view(flat);
  unsigned int sum = view.get_u32(0x08000005, 0) + view.get_message(0x28000009).get_u32(0x08000005, 0);
  for (const message_view object : view.get_message_array(0xa8000010)) sum += object.size();
  for (const kl::Record& record : view) sum += record.count();
  sum += static_cast<unsigned int>(view.get_string(0x20000001, "").size());
  EXPECT_EQ(count.since(), 0u);
  EXPECT_EQ(sum, 7u + 42 + 1 + 23 + 2);
}

TEST(MessageView, BytesThatWouldBeGoneAreNotViewed) {
  EXPECT_FALSE((std::is_constructible_v<message_view, Bytes>));
  EXPECT_FALSE((std::is_constructible_v<message_view, message::flat_message>));
  EXPECT_TRUE((std::is_constructible_v<message_view, const Bytes&>));
}

TEST(MessageView, ACopyIsAViewOfTheSameBytes) {
  const Bytes flat = numbersUnder(consecutive(500));
  const message_view view(flat);
  EXPECT_EQ(view.get_u32(0x08000000 + 300, 0), 300u % 256);
  const message_view copy = view;
  for (const unsigned int i : {499U, 0U, 301U}) {
    EXPECT_EQ(copy.get_u32(0x08000000 + i, 0), i % 256);
    EXPECT_EQ(view.get_u32(0x08000000 + i, 0), i % 256);
  }
}

// --- What is read ------------------------------------------------------------------------------------------------

TEST(MessageView, OfAFieldThatStandsTwiceTheLastValueHolds) {
  const Bytes flat = bytes("4d32 05000009 07 03000001 05000008 09000000 03000000");
  const message_view view(flat);
  EXPECT_EQ(view.get_u32(0x08000005, 0), 9u);
  EXPECT_FALSE(view.get_bool(3, true));
  EXPECT_EQ(view.size(), 4u);
  EXPECT_EQ(viewDifferences(flat), "");
}

TEST(MessageView, AnArrayThatStandsTwiceIsTheLastOne) {
  const Bytes flat = bytes("4d32 0c000088 0200 01000000 02000000 0c000088 0000");
  EXPECT_TRUE(message_view(flat).has(0x8800000c));
  EXPECT_TRUE(message_view(flat).get_u32_array(0x8800000c).empty());
}

TEST(MessageView, RecordsAreMetInTheOrderOfTheBytes) {
  const Bytes flat = bytes("4d32 05000009 07 03000001 05000009 08");
  const message_view view(flat);
  Numbers ids;
  Numbers values;
  for (const kl::Record& record : view) {
    ids.push_back(record.id());
    values.push_back(record.u32());
  }
  EXPECT_EQ(ids, (Numbers{0x08000005, 3, 0x08000005}));
  EXPECT_EQ(values, (Numbers{7, 0, 8}));
  EXPECT_EQ(std::ranges::distance(view), 3);
}

TEST(MessageView, RecordsAndElementsAreForwardRanges) {
  EXPECT_TRUE(std::ranges::forward_range<message_view>);
  EXPECT_TRUE(std::ranges::forward_range<kl::array_view<unsigned int>>);
  EXPECT_TRUE(std::ranges::forward_range<kl::array_view<message::flat_message>>);
}

TEST(MessageView, AMarkedRecordIsAField) {
  const Bytes flat = bytes("4d32 0700000b 09");
  EXPECT_EQ(message_view(flat).get_u32(0x0a000007, 0), 9u);
  EXPECT_EQ(message_view(flat).get_u32(0x0b000007, 5), 5u);  // bit 24 is no part of an id
}

TEST(MessageView, TheFieldsBeforeAFaultAreThere) {
  for (const char* fault :
       {"050000", "05000009", "05000008 070000", "07000010 01", "08000018 00", "01000021", "01000021 02 61",
        "01000020 02", "01000020 0200 61", "0b000080 02", "01000038", "010000b8 0000"}) {
    Bytes flat = bytes("4d32 05000009 07");
    append(flat, fault);
    const message_view view(flat);
    EXPECT_FALSE(view.ok()) << fault;
    EXPECT_EQ(view.size(), 1u) << fault;
    EXPECT_EQ(view.get_u32(0x08000005, 0), 7u) << fault;
    EXPECT_EQ(viewDifferences(flat), "") << fault;
  }
}

TEST(MessageView, AnArrayOfOneSizeThatIsCutOffIsEmpty) {
  const Bytes flat = bytes("4d32 0c000088 0100 01000000 0c000088 0200 01000000 0200");
  const message_view view(flat);
  EXPECT_FALSE(view.ok());
  EXPECT_TRUE(view.has(0x8800000c));
  EXPECT_TRUE(view.get_u32_array(0x8800000c).empty());
  EXPECT_EQ(view.size(), 2u);
  EXPECT_EQ(viewDifferences(flat), "");
}

TEST(MessageView, AnArrayOfLongElementsThatIsCutOffHasTheWholeOnes) {
  const Bytes flat = bytes("4d32 0f0000a0 0300 0100 61 0000 0200 62");
  const message_view view(flat);
  EXPECT_FALSE(view.ok());
  EXPECT_EQ(view.get_string_array(0xa000000f).values(), (std::vector<std::string>{"a", ""}));
  ASSERT_EQ(view.size(), 1u);
  EXPECT_EQ(view.begin()->count(), 2u);
  EXPECT_EQ(hexOf(view.begin()->payload()), "0100 6100 00");
  EXPECT_EQ(viewDifferences(flat), "");
}

TEST(MessageView, BytesWithoutTheMagicAreNotRead) {
  for (const char* text : {"4d", "4d33", "4d33 05000009 07", "0032", "ff32 05000009 07"}) {
    const Bytes flat = bytes(text);
    EXPECT_FALSE(message_view(flat).ok()) << text;
    EXPECT_TRUE(message_view(flat).empty()) << text;
    EXPECT_EQ(viewDifferences(flat), "") << text;
  }
}

TEST(MessageView, NoBytesAreNothingAndFine) {
  EXPECT_TRUE(message_view().ok());
  EXPECT_TRUE(message_view(nullptr, 5).ok());
  EXPECT_TRUE(message_view(nullptr, 5).bytes().empty());
  EXPECT_FALSE(message_view().has(3));
  EXPECT_EQ(message_view().begin(), message_view().end());
  EXPECT_EQ(message_view().to_message().max_length(), 2u);
}

TEST(MessageView, TheOlderFormatIsLeftToMessages) {
  const Bytes flat = bytes("0100 0205000003010000002a000000");
  EXPECT_FALSE(message_view(flat).ok());
  EXPECT_TRUE(message_view(flat).empty());
  EXPECT_EQ(message_view(flat).to_message().get_u32(0x08ff0005, 0), 42u);
}

TEST(MessageView, OneOfEachReadsAsAMessageDoes) { EXPECT_EQ(sameAsMessage(kOneOfEach), ""); }

TEST(MessageView, EveryPrefixReadsAsAMessageDoes) {
  const Bytes whole = bytes(kOneOfEach);
  for (std::size_t n = 0; n <= whole.size(); ++n)
    EXPECT_EQ(viewDifferences(Bytes(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(n))), "") << n;
}

TEST(MessageView, NestingIsLookedIntoNoFurtherThanAsked) {
  Bytes flat{0x4d, 0x32};
  for (int depth = 0; depth < 5000; ++depth) {
    Bytes outer = bytes("4d32 01000028");
    outer.push_back(static_cast<unsigned char>(flat.size()));
    outer.push_back(static_cast<unsigned char>(flat.size() >> 8));
    outer.insert(outer.end(), flat.begin(), flat.end());
    flat = outer;
  }
  std::span<const unsigned char> inner = flat;
  unsigned int depth = 0;
  for (; message_view(inner).has(0x28000001); ++depth)
    inner = message_view(inner).get_message_bytes(0x28000001);
  EXPECT_EQ(depth, 5000u);
  EXPECT_TRUE(message_view(inner).ok());
}

// --- Long messages -----------------------------------------------------------------------------------------------

// Around the numbers of records at which the way of finding them changes.
TEST(MessageView, LongMessagesReadAsMessagesDo) {
  for (const unsigned int count : {31, 32, 33, 127, 128, 129, 130, 255, 256, 257, 1000, 8192, 8193, 20000})
    EXPECT_EQ(viewDifferences(numbersUnder(consecutive(count))), "") << count;
}

TEST(MessageView, LongMessagesThatEndInAFaultReadAsMessagesDo) {
  for (const unsigned int count : {31, 32, 33, 127, 128, 129, 300}) {
    for (const char* fault :
         {"0000", "0c000088 0200 01000000", "0f0000a0 0300 0100 61 0000 0200 62", "01000038"}) {
      Bytes flat = numbersUnder(consecutive(count));
      append(flat, fault);
      EXPECT_FALSE(message_view(flat).ok());
      EXPECT_EQ(viewDifferences(flat), "") << count << " " << fault;
    }
  }
}

TEST(MessageView, AFieldThatStandsTwiceIsSeenWhereverItStands) {
  for (const unsigned int count : {2U, 32U, 33U, 128U, 129U, 1000U}) {
    for (const unsigned int first : {0U, 1U, count / 2}) {
      Numbers ids = consecutive(count);
      ids.back() = ids[first];
      const Bytes flat = numbersUnder(ids);
      EXPECT_EQ(message_view(flat).get_u32(ids.back(), 0), (count - 1) % 256) << count << " " << first;
      EXPECT_EQ(viewDifferences(flat), "") << count << " " << first;
    }
  }
}

// Ids that all share one bit of the table by which doubles are noticed, as a peer may choose them: few enough to be
// looked for, and too many.
TEST(MessageView, IdsThatCollideAreToldApart) {
  constexpr unsigned int kMask = 0x1FFF;
  for (const unsigned int colliding : {10U, 128U}) {
    Numbers ids = consecutive(128 - colliding);
    for (unsigned int i = 0; i < colliding; ++i) {
      const unsigned int upper = 0x0801 + i / 8;
      ids.push_back(upper << 16 | (i % 8) << 13 | ((0x1234 - upper * 0x9E35) & kMask));
    }
    EXPECT_EQ(viewDifferences(numbersUnder(ids)), "") << colliding;
    ids.back() = ids[ids.size() - 2];
    EXPECT_EQ(viewDifferences(numbersUnder(ids)), "") << colliding;
  }
}

TEST(MessageView, RandomMessagesReadAsMessagesDo) {
  const unsigned int seed = std::random_device{}();
  SCOPED_TRACE("seed " + std::to_string(seed));
  std::mt19937 random(seed);
  for (unsigned int i = 0; i < kl::test::inOneThread(60); ++i) {
    Numbers ids;
    const unsigned int range = 1U << random() % 12;
    for (auto n = random() % 400; n > 0; --n)
      ids.push_back(0x08000000 + (static_cast<unsigned int>(random() % range) << random() % 8));
    EXPECT_EQ(viewDifferences(numbersUnder(ids)), "");
  }
}

TEST(MessageView, DamagedMessagesReadAsMessagesDo) {
  const Bytes whole = bytes(kOneOfEach);
  const unsigned int seed = std::random_device{}();
  SCOPED_TRACE("seed " + std::to_string(seed));
  std::mt19937 random(seed);
  for (unsigned int i = 0; i < kl::test::inOneThread(1500); ++i) {
    Bytes damaged = whole;
    for (unsigned int n = random() % 4 + 1; n > 0; --n)
      damaged[random() % damaged.size()] = static_cast<unsigned char>(random());
    ASSERT_EQ(viewDifferences(damaged), "") << hex(damaged);
  }
}

TEST(MessageView, TheKeptFilesReadAsMessagesDo) {
  unsigned int files = 0;
  for (const auto& entry : std::filesystem::directory_iterator(KL_SOURCE_DIR "/tests/golden")) {
    if (entry.path().extension() != ".msg") continue;
    std::ifstream file(entry.path(), std::ios::binary);
    const Bytes flat{std::istreambuf_iterator<char>(file), {}};
    EXPECT_EQ(viewDifferences(flat), "") << entry.path();
    ++files;
  }
  EXPECT_GE(files, 7u);
}

}  // namespace

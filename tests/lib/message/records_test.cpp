#include "kl/records.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/support/build/effort.h"
#include "tests/support/hex.h"

namespace {

using kl::Record;
using kl::RecordWalk;
using kl::test::bytes;
using kl::test::hex;

using Bytes = std::vector<unsigned char>;

// One record of every kind and both forms, behind the magic.
constexpr char kEveryKind[] =
    "4d32"
    "03000001"                                   // bool 3, true
    "04000000"                                   // bool 4, false
    "05000009 07"                                // u32 5, short form
    "06000008 34120000"                          // u32 6, long form
    "07000010 0807060504030201"                  // u64 7
    "08000018 000102030405060708090a0b0c0d0e0f"  // address 8
    "01000021 02 6162"                           // string 1, short form
    "02000020 0300 616263"                       // string 2, long form
    "09000029 02 4d32"                           // message 9
    "0a000031 01 ff"                             // raw 10
    "0b000080 0200 0002"                         // bool array 11
    "0c000088 0200 01000000 ffffffff"            // u32 array 12
    "0d000090 0100 0100000000000080"             // u64 array 13
    "0e000098 0100 0f0e0d0c0b0a09080706050403020100"
    "0f0000a0 0300 0100 61 0000 0200 6263"  // string array 15: "a", "", "bc"
    "100000a8 0100 0200 4d32"               // message array 16
    "110000b0 0200 0000 0100 2a";           // raw array 17

constexpr char kStringsOnly[] = "4d32 0f0000a0 0300 0100 61 0000 0200 6263";

std::vector<Record> recordsOf(const Bytes& flat) {
  std::vector<Record> found;
  RecordWalk walk(flat);
  for (Record record; walk.next(record);) found.push_back(record);
  EXPECT_TRUE(walk.ok());
  return found;
}

bool isWellFormed(std::span<const unsigned char> flat) {
  RecordWalk walk(flat);
  for (Record record; walk.next(record);) {
  }
  return walk.ok();
}

std::string hexOf(std::span<const unsigned char> span) { return hex(Bytes(span.begin(), span.end())); }

std::vector<std::string> elementsOf(const Record& record) {
  std::vector<std::string> result;
  kl::ElementWalk walk(record);
  for (std::span<const unsigned char> element; walk.next(element);) result.push_back(hexOf(element));
  return result;
}

TEST(Records, EveryKindIsMetInOrderWithItsIdAndWithoutBit24) {
  const Bytes flat = bytes(kEveryKind);
  std::vector<unsigned int> ids;
  for (const Record& record : recordsOf(flat)) ids.push_back(record.id());
  EXPECT_EQ(ids,
            (std::vector<unsigned int>{0x00000003, 0x00000004, 0x08000005, 0x08000006, 0x10000007, 0x18000008,
                                       0x20000001, 0x20000002, 0x28000009, 0x3000000a, 0x8000000b, 0x8800000c,
                                       0x9000000d, 0x9800000e, 0xa000000f, 0xa8000010, 0xb0000011}));
}

TEST(Records, SingleValuesAreReadInBothForms) {
  const Bytes flat = bytes(kEveryKind);
  const std::vector<Record> r = recordsOf(flat);
  EXPECT_TRUE(r[0].boolean());
  EXPECT_FALSE(r[1].boolean());
  EXPECT_EQ(r[2].u32(), 7u);
  EXPECT_EQ(r[3].u32(), 0x1234u);
  EXPECT_EQ(r[4].u64(), 0x0102030405060708ull);
  EXPECT_EQ(hexOf(r[5].payload()), "0001 0203 0405 0607 0809 0a0b 0c0d 0e0f");
  EXPECT_EQ(r[6].text(), "ab");
  EXPECT_EQ(r[7].text(), "abc");
  EXPECT_EQ(hexOf(r[8].payload()), "4d32");
  EXPECT_EQ(hexOf(r[9].payload()), "ff");
}

TEST(Records, ArraysAreWalkedElementByElement) {
  const Bytes flat = bytes(kEveryKind);
  const std::vector<Record> r = recordsOf(flat);
  using Texts = std::vector<std::string>;
  EXPECT_EQ(elementsOf(r[10]), (Texts{"00", "02"}));
  EXPECT_EQ(elementsOf(r[11]), (Texts{"0100 0000", "ffff ffff"}));
  EXPECT_EQ(elementsOf(r[12]), (Texts{"0100 0000 0000 0080"}));
  EXPECT_EQ(elementsOf(r[13]), (Texts{"0f0e 0d0c 0b0a 0908 0706 0504 0302 0100"}));
  EXPECT_EQ(elementsOf(r[14]), (Texts{"61", "", "6263"}));
  EXPECT_EQ(elementsOf(r[15]), (Texts{"4d32"}));
  EXPECT_EQ(elementsOf(r[16]), (Texts{"", "2a"}));
  EXPECT_EQ(r[14].count(), 3u);
}

TEST(Records, ASingleValueIsWalkedAsAnArrayOfOne) {
  const Bytes flat = bytes("4d32 01000021 02 6162");
  EXPECT_EQ(elementsOf(recordsOf(flat)[0]), (std::vector<std::string>{"6162"}));
}

TEST(Records, U32ElementsAreReadByIndexAndNothingBeyondTheEnd) {
  const Bytes flat = bytes("4d32 0c000088 0200 01000000 feffffff");
  const Record record = recordsOf(flat)[0];
  EXPECT_EQ(record.u32At(0), 1u);
  EXPECT_EQ(record.u32At(1), 0xfffffffeu);
  EXPECT_EQ(record.u32At(2), 0u);
  EXPECT_EQ(record.u32At(0xffffffff), 0u);
}

TEST(Records, AValueOfAnotherKindIsNeutral) {
  const Bytes flat = bytes("4d32 01000021 02 6162 0c000088 0100 07000000");
  const std::vector<Record> r = recordsOf(flat);
  EXPECT_EQ(r[0].u32(), 0u);
  EXPECT_EQ(r[0].u64(), 0u);
  EXPECT_FALSE(r[0].boolean());
  EXPECT_EQ(r[0].u32At(0), 0u);
  EXPECT_EQ(recordsOf(bytes("4d32 05000009 07"))[0].u32At(0), 0u);
  EXPECT_EQ(r[1].u32(), 0u);
  EXPECT_EQ(r[1].text(), "");
  EXPECT_EQ(Record().u32(), 0u);
  EXPECT_FALSE(Record().boolean());
}

TEST(Records, TheRecordsTogetherAreTheMessage) {
  const Bytes flat = bytes(kEveryKind);
  Bytes joined = {0x4d, 0x32};
  for (const Record& record : recordsOf(flat))
    joined.insert(joined.end(), record.bytes().begin(), record.bytes().end());
  EXPECT_EQ(hex(joined), hex(flat));
}

TEST(Records, AFieldThatStandsTwiceIsMetTwice) {
  EXPECT_EQ(recordsOf(bytes("4d32 05000009 07 05000009 08")).size(), 2u);
}

TEST(Records, TheEmptyMessageHasNoRecordsAndIsWellFormed) {
  EXPECT_TRUE(isWellFormed(bytes("4d32")));
  EXPECT_TRUE(recordsOf(bytes("4d32")).empty());
}

TEST(Records, WithoutTheMagicNothingIsWalked) {
  EXPECT_FALSE(isWellFormed({}));
  EXPECT_FALSE(isWellFormed(bytes("4d")));
  EXPECT_FALSE(isWellFormed(bytes("324d")));
  EXPECT_FALSE(isWellFormed(bytes("4d33 03000001")));
  EXPECT_FALSE(isWellFormed(bytes("0000")));  // the older format's empty message
}

TEST(Records, AnUnknownTypeEndsTheWalk) {
  EXPECT_FALSE(isWellFormed(bytes("4d32 01000038 00000000")));
  EXPECT_FALSE(isWellFormed(bytes("4d32 01000078 00000000")));
  EXPECT_FALSE(isWellFormed(bytes("4d32 010000b8 0000")));
  EXPECT_FALSE(isWellFormed(bytes("4d32 010000f8 0000")));
}

TEST(Records, EveryPrefixIsWellFormedExactlyWhereARecordEnds) {
  const Bytes flat = bytes(kEveryKind);
  std::vector<bool> isEnd(flat.size() + 1, false);
  std::size_t end = 2;
  isEnd[end] = true;
  for (const Record& record : recordsOf(flat)) isEnd[end += record.bytes().size()] = true;

  for (std::size_t length = 0; length <= flat.size(); ++length) {
    const Bytes prefix(flat.begin(),
                       flat.begin() + static_cast<std::ptrdiff_t>(length));  // guarded by its heap block
    EXPECT_EQ(isWellFormed(prefix), isEnd[length]) << "prefix of " << length << " bytes";
  }
}

TEST(Records, AnElementLongerThanItsArrayEndsTheWalk) {
  Bytes flat = bytes(kStringsOnly);
  EXPECT_TRUE(isWellFormed(flat));
  flat[8] = 0xff;  // the first element's length
  EXPECT_FALSE(isWellFormed(flat));
}

TEST(Records, AnAnnouncedCountThatTheBytesCannotHoldEndsTheWalk) {
  EXPECT_FALSE(isWellFormed(bytes("4d32 0c000088 ffff 01000000")));
  EXPECT_FALSE(isWellFormed(bytes("4d32 0b000080 0100")));
  EXPECT_FALSE(isWellFormed(bytes("4d32 0f0000a0 ffff 0000")));
}

TEST(Records, BytesChangedAtRandomAreNeverReadPastTheirEnd) {
  const Bytes flat = bytes(kEveryKind);
  unsigned int seed = 4711;
  for (unsigned int round = 0; round < kl::test::inOneThread(20000); ++round) {
    Bytes mutant = flat;
    for (int change = 0; change < 3; ++change) {
      seed = seed * 1664525 + 1013904223;
      mutant[(seed >> 16) % mutant.size()] = static_cast<unsigned char>(seed >> 8);
    }
    RecordWalk walk(mutant);
    std::size_t sum = 2;
    for (Record record; walk.next(record);) {
      sum += record.bytes().size();
      (void)elementsOf(record);
    }
    EXPECT_EQ(walk.ok(), sum == mutant.size()) << "round " << round;
  }
}

}  // namespace

#include "message/wire.h"

#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

#include "kl/message.h"
#include "tests/support/hex.h"

namespace {

using kl::IPAddr6;
using kl::message;
using kl::RepAccess;
using kl::test::bytes;
using kl::test::hex;

using Bytes = std::vector<unsigned char>;
using Flat = message::flat_message;

// In the grouping of the expectations below.
std::string flatHex(const message& m) { return hex(m.flattened()); }

std::string grouped(const char* text) { return hex(bytes(text)); }

bool reads(message& m, const Bytes& from, message::flatten_type type = message::normal) {
  return m.unflatten(from.data(), static_cast<unsigned int>(from.size()), type);
}

bool reads(const char* text) {
  message m;
  return reads(m, bytes(text));
}

message withEverything() {
  message m;
  m.insert_bool(3, true);
  m.insert_bool(4, false);
  m.insert_u32(0x08000005, 7);
  m.insert_u32(0x08000006, 0x12345678);
  m.insert_u64(0x10000001, 0x0102030405060708);
  m.insert_addr6(0x18000001, {{0xfe, 0x80, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1}});
  m.insert_string(0x20000001, "ab");
  m.insert_string(0x20000002, std::string(256, 'x'));
  m.insert_message(0x28000001, message());
  m.insert_raw(0x30000001, {1, 2, 3});
  m.insert_bool_array(0x80000001, {true, false});
  m.insert_u32_array(0x88000001, {1, 0x01020304});
  m.insert_u64_array(0x90000001, {5});
  m.insert_addr6_array(0x98000001, {IPAddr6::zero});
  m.insert_string_array(0xA0000001, {"a", ""});
  m.insert_message_array(0xA8000001, {Flat(Bytes{0x4d, 0x32})});
  m.insert_raw_array(0xB0000001, {{9}, {8, 7}});
  return m;
}

// --- Writing ---------------------------------------------------------------------------------------------------

TEST(Wire, FlattenedIsWhatFlattenWrites) {
  Bytes written;
  withEverything().flatten(written);
  EXPECT_EQ(withEverything().flattened(), written);
  EXPECT_EQ(message().flattened().size(), 2u);
}

TEST(Wire, TheEmptyMessageIsItsMagic) {
  EXPECT_EQ(flatHex(message()), "4d32");
  EXPECT_EQ(message().max_length(), 2u);
}

TEST(Wire, TheWorkedExample) {
  message m;
  m.insert_bool(3, true);
  m.insert_u32(0x08000005, 7);
  m.insert_string(0x20000001, "ab");
  EXPECT_EQ(flatHex(m), grouped("4d 32 | 03 00 00 01 | 05 00 00 09 07 | 01 00 00 21 02 61 62"));
  EXPECT_EQ(m.max_length(), 22u);
  m.insert_u32(0x08000005, 0x1234);
  EXPECT_EQ(flatHex(m), grouped("4d 32 | 03 00 00 01 | 05 00 00 08 34 12 00 00 | 01 00 00 21 02 61 62"));
}

TEST(Wire, NumbersUpTo255TakeTheShortForm) {
  message m;
  m.insert_u32(0x08000005, 255);
  EXPECT_EQ(flatHex(m), grouped("4d32 05000009 ff"));
  EXPECT_TRUE(message(bytes("4d32 05000009 ff")) == m);
  m.insert_u32(0x08000005, 256);
  EXPECT_EQ(flatHex(m), grouped("4d32 05000008 00010000"));
  EXPECT_TRUE(message(bytes("4d32 05000008 00010000")) == m);
}

// One of every shape of record, each behind a number that would be misread if its id were written as it is.
TEST(Wire, AnIdWithBit24SetIsWrittenAsItsValueNeedsIt) {
  message m;
  m.insert_bool(0x01000003, false);
  m.insert_u32(0x09000002, 300);
  EXPECT_EQ(flatHex(m), grouped("4d32 03000000 02000008 2c010000"));
  m = message();
  m.insert_bool(0x01000003, true);
  m.insert_u32(0x09000002, 7);
  EXPECT_EQ(flatHex(m), grouped("4d32 03000001 02000009 07"));
  const auto flatOf = [](auto insert) {
    message one;
    insert(one);
    return flatHex(one);
  };
  EXPECT_EQ(flatOf([](message& one) { one.insert_u64(0x11000001, 1); }),
            grouped("4d32 01000010 0100000000000000"));
  EXPECT_EQ(flatOf([](message& one) { one.insert_addr6(0x19000001, IPAddr6::zero); }),
            grouped("4d32 01000018 00000000000000000000000000000000"));
  EXPECT_EQ(flatOf([](message& one) { one.insert_string(0x21000001, "ab"); }),
            grouped("4d32 01000021 02 6162"));
  EXPECT_EQ(flatOf([](message& one) { one.insert_u32_array(0x89000001, {1}); }),
            grouped("4d32 01000088 0100 01000000"));
  EXPECT_EQ(flatOf([](message& one) { one.insert_string_array(0xA1000001, {"a"}); }),
            grouped("4d32 010000a0 0100 0100 61"));
  const std::string long_(256, 'x');
  EXPECT_EQ(flatOf([&](message& one) { one.insert_string(0x21000001, long_); }).substr(0, 19),
            grouped("4d32 01000020 0001"));
}

TEST(Wire, BehindAnIdWithBit24SetTheRestIsReadable) {
  message m;
  m.insert_u32(0x09000002, 300);
  m.insert_u64(0x11000001, 5);
  m.insert_string(0x20000001, "behind it");
  Bytes out;
  m.flatten(out);
  message back;
  EXPECT_TRUE(reads(back, out));
  EXPECT_EQ(back.get_u32(0x08000002, 0), 300u);
  EXPECT_EQ(back.get_u64(0x10000001, 0), 5u);
  EXPECT_EQ(back.get_string(0x20000001, ""), "behind it");
}

TEST(Wire, TheReaderTakesEitherFormForAnyValue) {
  message m;
  EXPECT_TRUE(reads(m, bytes("4d32 05000008 07000000 01000020 0200 6162")));
  EXPECT_EQ(m.get_u32(0x08000005, 0), 7u);
  EXPECT_EQ(m.get_string(0x20000001, ""), "ab");
}

TEST(Wire, LengthsUpTo255TakeTheShortForm) {
  message m;
  m.insert_string(0x20000001, std::string(255, 'a'));
  EXPECT_EQ(flatHex(m).substr(0, 24), grouped("4d32 01000021 ff 616161").substr(0, 24));
  m.insert_string(0x20000001, std::string(256, 'a'));
  EXPECT_EQ(flatHex(m).substr(0, 24), grouped("4d32 01000020 0001 6161").substr(0, 24));
  for (const std::size_t n : {0, 1, 255, 256, 65535}) {
    message long_;
    long_.insert_raw(0x30000001, Bytes(n, 5));
    Flat out;
    long_.flatten(out);
    EXPECT_EQ(out.size(), 2 + 4 + (n > 255 ? 2 : 1) + n);
    EXPECT_TRUE(message(out) == long_);
  }
}

TEST(Wire, EveryTypeHasItsRecord) {
  EXPECT_EQ(
      flatHex(withEverything()).substr(0, 99),
      grouped(
          "4d32 03000001 04000000 05000009 07 06000008 78563412 01000031 03 010203 01000029 02 4d32 02000020"
          " 0001 7878")
          .substr(0, 99));
  message m;
  m.insert_u64(0x10000001, 0x0102030405060708);
  EXPECT_EQ(flatHex(m), grouped("4d32 01000010 0807060504030201"));
  m = message();
  m.insert_addr6(0x18000001, {{1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16}});
  EXPECT_EQ(flatHex(m), grouped("4d32 01000018 0102030405060708090a0b0c0d0e0f10"));
  m = message();
  m.insert_bool_array(0x80000001, {true, false});
  EXPECT_EQ(flatHex(m), grouped("4d32 01000080 0200 0100"));
  m = message();
  m.insert_u32_array(0x88000001, {1, 0x01020304});
  EXPECT_EQ(flatHex(m), grouped("4d32 01000088 0200 01000000 04030201"));
  m = message();
  m.insert_u64_array(0x90000001, {0x0102030405060708});
  EXPECT_EQ(flatHex(m), grouped("4d32 01000090 0100 0807060504030201"));
  m = message();
  m.insert_string_array(0xA0000001, {"a", "", "bc"});
  EXPECT_EQ(flatHex(m), grouped("4d32 010000a0 0300 0100 61 0000 0200 6263"));
  m = message();
  m.insert_message_array(0xA8000001, {Flat(Bytes{0x4d, 0x32}), Flat()});
  EXPECT_EQ(flatHex(m), grouped("4d32 010000a8 0200 0200 4d32 0000"));
  m = message();
  m.insert_raw_array(0xB0000001, {{9}, {8, 7}});
  EXPECT_EQ(flatHex(m), grouped("4d32 010000b0 0200 0100 09 0200 0807"));
}

TEST(Wire, MaxLengthAddsUpTheTable) {
  EXPECT_EQ(withEverything().max_length(), 2u + 2 * 4 + 2 * 8 + 12 + 20 + 8 + 262 + 8 + 9 + (2 + 6) +
                                               (8 + 6) + (8 + 6) + (16 + 6) + (6 + 3 + 2) + (6 + 4) +
                                               (6 + 3 + 4));
}

TEST(Wire, MaxLengthNeverCountsAFieldThatDisagreesWithItsId) {
  message m;
  m.insert_string(0x20000001, "ab");
  m.insert_string(0x08000001, std::string(100, 'x'));
  static_cast<const message&>(m).get_string_ref(0x08000001);
  EXPECT_EQ(m.max_length(), 2u + 8);
  m.insert_string(0x08000001, "");
  EXPECT_EQ(m.max_length(), 2u + 8);
  m.remove_field(0x08000001);
  EXPECT_EQ(m.max_length(), 2u + 8);
  EXPECT_EQ(flatHex(m), grouped("4d32 01000021 02 6162"));
}

TEST(Wire, RecordsComeInTheOrderOfTheRepresentation) {
  message m;
  m.insert_u32_array(0x88000001, {});
  m.insert_string(0x20000001, "");
  m.insert_string(0x20000002, "");
  m.insert_u32(0x08000001, 1);  // slot 8
  m.insert_u32(0x08000007, 2);  // slot 3
  m.insert_bool(1, true);
  m.insert_u32_array(0x88000002, {});
  EXPECT_EQ(0x08000001 % 11, 8);
  EXPECT_EQ(
      flatHex(m),
      grouped("4d32 01000001 07000009 02 01000009 01 02000021 00 01000021 00 02000088 0000 01000088 0000"));
}

TEST(Wire, FlattenIntoABufferTellsItsLength) {
  unsigned char room[64];
  unsigned int len = sizeof room;
  message m;
  m.insert_u32(0x08000005, 7);
  testing::internal::CaptureStdout();
  m.flatten(room, &len);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
  EXPECT_EQ(hex(Bytes(room, room + len)), grouped("4d32 05000009 07"));
}

TEST(Wire, TooLittleRoomIsWarnedOfAfterwards) {
  unsigned char room[64];
  unsigned int len = 6;
  message m;
  m.insert_u32(0x08000005, 7);
  testing::internal::CaptureStdout();
  m.flatten(room, &len);
  std::fflush(stdout);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "WARNING: too small buffer for flatten\n");
  EXPECT_EQ(len, 7u);
}

TEST(Wire, FlattenIntoAVectorReplacesWhatItHeld) {
  Bytes out(5000, 9);
  message().flatten(out);
  EXPECT_EQ(hex(out), "4d32");
  message m;
  m.insert_raw(0x30000001, Bytes(10000, 1));
  m.flatten(out);
  EXPECT_EQ(out.size(), 2u + 6 + 10000);
  EXPECT_EQ(out.back(), 1);
}

TEST(Wire, CutsALengthAbove65535WhileWritingAllBytes) {
  message m;
  m.insert_raw(0x30000001, Bytes(65537, 5));
  m.insert_u32_array(0x88000001, std::vector<unsigned int>(65538, 6));
  Bytes out;
  m.flatten(out);
  EXPECT_EQ(out.size(), 2u + 6 + 65537 + 6 + 4 * 65538);
  EXPECT_EQ(hex(Bytes(out.begin(), out.begin() + 9)), grouped("4d32 01000030 0100 05"));
  EXPECT_EQ(hex(Bytes(out.begin() + 8 + 65537, out.begin() + 8 + 65537 + 7)), grouped("01000088 0200 06"));
}

// --- Reading ---------------------------------------------------------------------------------------------------

TEST(Wire, WhatIsWrittenReadsBackEqual) {
  const message m = withEverything();
  Flat out;
  m.flatten(out);
  message back;
  EXPECT_TRUE(reads(back, out));
  EXPECT_TRUE(back == m);
  EXPECT_TRUE(RepAccess::read(back).unshareable);
}

TEST(Wire, FaultsAreTold) {
  const unsigned char none[] = {0};
  EXPECT_FALSE(message().unflatten(none, 0, message::normal));
  EXPECT_FALSE(reads("4d"));
  EXPECT_TRUE(reads("4d32"));
  EXPECT_FALSE(reads("4d33"));
  EXPECT_FALSE(reads("4d32 0000"));
  EXPECT_FALSE(reads("4d32 00"));
  EXPECT_FALSE(reads("4d32 000000"));
  EXPECT_FALSE(reads("4d32 01000038 00"));
  EXPECT_FALSE(reads("4d32 01000078"));
  EXPECT_FALSE(reads("4d32 010000b8 0000"));
  EXPECT_FALSE(reads("4d32 010000f8 0000"));
  EXPECT_FALSE(reads("4d00 0000"));
}

TEST(Wire, NoBytesAtAllAreRead) {
  message m;
  EXPECT_TRUE(m.unflatten(nullptr, 5, message::normal));
  EXPECT_TRUE(m == message());
  EXPECT_NE(RepAccess::of(m), nullptr);
}

TEST(Wire, AnyOtherTypeBehavesAsNormal) {
  message m;
  EXPECT_TRUE(reads(m, bytes("4d32 03000001"), static_cast<message::flatten_type>(7)));
  EXPECT_TRUE(m.get_bool(3, false));
  EXPECT_EQ(m.kept(), nullptr);
}

TEST(Wire, BareRecordsHaveNoMagic) {
  message m;
  EXPECT_TRUE(reads(m, bytes("03000001"), message::bare));
  EXPECT_TRUE(m.get_bool(3, false));
  EXPECT_TRUE(reads(m, {}, message::bare));
  EXPECT_FALSE(reads(m, bytes("4d32"), message::bare));
}

TEST(Wire, ReadingAddsToTheMessage) {
  message m;
  m.insert_u32(0x08000001, 1);
  m.insert_u32(0x08000002, 2);
  m.insert_u32_array(0x88000001, {1, 2, 3, 4, 5});
  m.insert_u32_array(0x88000002, {1});
  EXPECT_TRUE(reads(m, bytes("4d32 01000009 09 01000088 0200 06000000 07000000")));
  EXPECT_EQ(m.get_u32(0x08000001, 0), 9u);
  EXPECT_EQ(m.get_u32(0x08000002, 0), 2u);
  EXPECT_EQ(m.get_u32_array(0x88000001), (std::vector<unsigned int>{6, 7}));
  EXPECT_EQ(m.get_u32_array(0x88000002), (std::vector<unsigned int>{1}));
}

TEST(Wire, ReadingChangesTheObjectThatIsReferredTo) {
  message m;
  std::string* text = m.get_string_ref(0x20000001);
  std::vector<unsigned int>* numbers = m.get_u32_array_ref(0x88000001);
  EXPECT_TRUE(reads(m, bytes("4d32 01000021 02 6162 01000088 0100 07000000")));
  EXPECT_EQ(*text, "ab");
  EXPECT_EQ(*numbers, (std::vector<unsigned int>{7}));
}

TEST(Wire, ReadingReplacesAFieldOfAnotherKind) {
  message m;
  m.insert_u64(0x20000001, 5);
  EXPECT_TRUE(reads(m, bytes("4d32 01000021 02 6162")));
  EXPECT_EQ(m.get_string(0x20000001, ""), "ab");
}

TEST(Wire, AnyNonZeroByteOfABoolArrayIsTrue) {
  message m;
  EXPECT_TRUE(reads(m, bytes("4d32 01000080 0300 0200ff")));
  EXPECT_EQ(m.get_bool_array(0x80000001), (std::vector<bool>{true, false, true}));
  EXPECT_EQ(flatHex(m), grouped("4d32 01000080 0300 010001"));
  message same;
  same.insert_bool_array(0x80000001, {true, false, true});
  EXPECT_TRUE(same == m);
}

TEST(Wire, AnArrayThatDoesNotFitStandsEmpty) {
  for (const char* text : {"4d32 01000080 0300 0101", "4d32 01000088 0200 01000000 020000",
                           "4d32 01000090 0100 01020304050607", "4d32 01000098 ffff 01"}) {
    message m;
    EXPECT_FALSE(reads(m, bytes(text)));
    EXPECT_TRUE(m.has_array(static_cast<unsigned int>(bytes(text)[5]) << 24 | 1)) << text;
    EXPECT_EQ(m.max_length(), 2u + 6) << text;
  }
}

TEST(Wire, AStringArrayKeepsTheElementsBeforeTheFault) {
  message m;
  EXPECT_FALSE(reads(m, bytes("4d32 010000a0 0300 0100 61 0200 6263 0500 64")));
  EXPECT_EQ(m.get_string_array(0xA0000001), (std::vector<std::string>{"a", "bc"}));
  EXPECT_FALSE(reads(m, bytes("4d32 010000b0 ffff 01")));
  EXPECT_TRUE(m.has_array(0xB0000001));
  EXPECT_EQ(m.size_raw_array(0xB0000001), 0u);
}

TEST(Wire, AScalarWhoseBytesAreMissingIsNotStored) {
  for (const char* text :
       {"4d32 01000009", "4d32 01000008 010203", "4d32 01000010 01020304050607", "4d32 01000018 00",
        "4d32 01000021", "4d32 01000021 02 61", "4d32 01000020 01", "4d32 01000020 0200 61"}) {
    message m;
    EXPECT_FALSE(reads(m, bytes(text))) << text;
    EXPECT_TRUE(m == message()) << text;
    EXPECT_FALSE(RepAccess::read(m).unshareable) << text;
  }
  message m;
  EXPECT_FALSE(reads(m, bytes("4d32 01000088 01")));
  EXPECT_FALSE(m.has_array(0x88000001)) << "its count was not seen";
}

TEST(Wire, EveryPrefixIsReadWithinItsBounds) {
  Flat whole;
  withEverything().flatten(whole);
  unsigned int good = 0;
  for (std::size_t n = 1; n < whole.size(); ++n) {
    const Bytes prefix(whole.begin(),
                       whole.begin() + static_cast<long>(n));  // its end is where the sanitizer looks
    message m;
    if (reads(m, prefix)) ++good;
    RepAccess::read(m).check();
    EXPECT_TRUE(withEverything().max_length() >= m.max_length());
  }
  EXPECT_EQ(good, 17u) << "a prefix is good where a record ends, the magic alone included";
}

TEST(Wire, DamagedBytesNeverHarm) {
  Flat whole;
  withEverything().flatten(whole);
  const unsigned int seed = std::random_device{}();
  SCOPED_TRACE("seed " + std::to_string(seed));
  std::mt19937 random(seed);
  for (int i = 0; i < 20000; ++i) {
    Bytes damaged(whole.begin(), whole.end());
    for (unsigned int n = random() % 4 + 1; n > 0; --n)
      damaged[random() % damaged.size()] = static_cast<unsigned char>(random());
    message m;
    (void)reads(m, damaged, static_cast<message::flatten_type>(random() % 3));
    RepAccess::read(m).check();
    Flat again;
    m.flatten(again);
    EXPECT_TRUE(message(again) == m) << hex(damaged);
  }
}

// --- Kept records ------------------------------------------------------------------------------------------------

const char kMarked[] = "4d32 05000009 07 0100000b 09 02000023 02 6162 03000003";

TEST(Kept, MarkedRecordsAreCopiedAsTheyCome) {
  message m;
  EXPECT_TRUE(reads(m, bytes(kMarked), message::keep_marked));
  ASSERT_NE(m.kept(), nullptr);
  EXPECT_EQ(hex(*m.kept()), grouped("0100000b 09 02000023 02 6162 03000003"));
  EXPECT_EQ(m.get_u32(0x08000005, 0), 7u);
  EXPECT_EQ(m.size_u32(0x0A000001), 0u);
}

TEST(Kept, EveryKeptTypeIsCopiedWhole) {
  const char text[] =
      "0100000a 01020304 02000022 0100 61 03000082 0200 0101 04000089 00 0400008a 0100 01000000 05000092 "
      "0100 0102030405060708"
      " 060000a2 0200 0100 61 0000";
  const char kept[] =
      "0100000a 01020304 02000022 0100 61 03000082 0200 0101 0400008a 0100 01000000 05000092 0100 "
      "0102030405060708"
      " 060000a2 0200 0100 61 0000";
  message m;
  Bytes from = bytes("4d32");
  const Bytes records = bytes(text);
  from.insert(from.end(), records.begin(), records.end());
  EXPECT_FALSE(reads(m, from, message::keep_marked));  // 04000089 00 is an unmarked array cut short
  from = bytes("4d32");
  const Bytes good = bytes(kept);
  from.insert(from.end(), good.begin(), good.end());
  EXPECT_TRUE(reads(m, from, message::keep_marked));
  EXPECT_EQ(hex(*m.kept()), grouped(kept));
}

TEST(Kept, IsCopiedByCloneAndFreedByTheNextNormalReading) {
  message m;
  EXPECT_TRUE(reads(m, bytes(kMarked), message::keep_marked));
  message copy(m);
  ASSERT_NE(copy.kept(), nullptr);
  EXPECT_EQ(*copy.kept(), *m.kept());
  EXPECT_TRUE(reads(m, bytes("4d32"), message::normal));
  EXPECT_EQ(m.kept(), nullptr);
  EXPECT_TRUE(reads(copy, bytes("4d32"), message::keep_marked));
  EXPECT_TRUE(copy.kept()->empty());
}

TEST(Kept, HasTheWholeLengthAfterAFault) {
  message m;
  EXPECT_FALSE(reads(m, bytes("4d32 0100000b 09 00"), message::keep_marked));
  EXPECT_EQ(hex(*m.kept()), grouped("0100000b 09 00 0000"));
  EXPECT_FALSE(reads(m, bytes("ff"), message::keep_marked));
  EXPECT_EQ(hex(*m.kept()), "00");
}

TEST(Kept, CopiesOnlyTheIdOfAMarkedU64) {
  message m;
  EXPECT_TRUE(reads(m, bytes("4d32 01000012 03000001 04000000"), message::keep_marked));
  EXPECT_EQ(hex(*m.kept()), grouped("01000012"));
  EXPECT_TRUE(m.get_bool(3, false)) << "its payload is read as records";
  EXPECT_EQ(m.size_bool(4), 1u);
}

TEST(Kept, EveryPrefixStaysWithinItsBounds) {
  const Bytes whole = bytes(
      "4d32 0100000a 01020304 02000022 0100 61 0400008a 0100 01000000 060000a2 0200 0100 61 0000 0100000b "
      "09");
  for (std::size_t n = 1; n <= whole.size(); ++n) {
    message m;
    const Bytes prefix(whole.begin(), whole.begin() + static_cast<long>(n));
    const bool good = reads(m, prefix, message::keep_marked);
    EXPECT_LE(m.kept()->size(), n);
    EXPECT_TRUE(good || n < whole.size());
  }
}

TEST(Kept, TypeNormalStoresMarkedRecordsAsFields) {
  message m;
  EXPECT_TRUE(reads(m, bytes(kMarked)));
  EXPECT_EQ(m.get_u32(0x0A000001, 0), 9u);
  EXPECT_EQ(flatHex(m).size(), grouped(kMarked).size());
}

// --- Borrowing ---------------------------------------------------------------------------------------------------

TEST(Borrowing, ReadsTheSameFieldsWithoutCopyingThem) {
  Flat whole;
  withEverything().flatten(whole);
  alignas(8) static unsigned char room[8000];
  kl::container::Arena arena(room, sizeof room);
  message::Rep* rep = message::Rep::make(arena);
  EXPECT_EQ(readFormat(*rep, whole.data(), whole.size(), message::normal, kl::container::Reading::borrowing),
            kl::container::Outcome::ok);
  Bytes out(whole.size());
  EXPECT_EQ(kl::container::writeFormat(*rep, out.data()), out.data() + out.size());
  message copy;
  RepAccess::of(copy) = message::Rep::copyOf(*rep);
  EXPECT_TRUE(copy == withEverything());
  const auto* node = rep->find(kl::container::Kind::string, 0x20000002);
  EXPECT_TRUE(node->content() >= whole.data() && node->content() < whole.data() + whole.size());
}

TEST(Borrowing, AnArenaOfAnySizeIsEnoughOrTold) {
  Flat whole;
  withEverything().flatten(whole);
  const Bytes legacy = bytes(
      "0300 02 0500 00 03 0100 0000 2a000000 02 0700 00 00 0200 0000 01000000 02000000"
      "02 0700 00 00 0200 0000 03000000 04000000");
  for (const Bytes& from : {Bytes(whole), legacy}) {
    bool everOk = false;
    for (std::size_t n = message::Rep::arenaBytes(); n < 12000; n += 8) {
      std::vector<unsigned long long> room(n / 8);
      kl::container::Arena arena(reinterpret_cast<unsigned char*>(room.data()), n);
      message::Rep* rep = message::Rep::make(arena);
      const auto outcome =
          readFormat(*rep, from.data(), from.size(), message::normal, kl::container::Reading::borrowing);
      EXPECT_NE(outcome, kl::container::Outcome::fault);
      everOk = everOk || outcome == kl::container::Outcome::ok;
      rep->check();
    }
    EXPECT_TRUE(everOk);
  }
}

}  // namespace

#include "services/logd/intake/record_reader.h"

#include <gtest/gtest.h>

#include "tests/services/logd/fixture.h"
#include "tests/support/hex.h"
#include "tests/support/journal.h"

namespace logd::test {
namespace {

// A reader and the records that have come out of it, one word each.
struct Reading {
  // Null, or what is wrong with the bytes.
  const char* take(std::span<const unsigned char> bytes) {
    reader.add(bytes);
    for (Record record; reader.next(record);) journal.note(wordOf(record));
    return reader.fault();
  }

  static std::string wordOf(const Record& record) {
    if (!record.isRegistration) return std::to_string(record.source) + ":" + std::string(record.text);
    std::string word = "register" + std::to_string(record.source);
    for (const Topic topic : record.topics) word += "," + std::to_string(topic);
    return word;
  }

  RecordReader reader;
  kl::test::Journal journal;
};

const Bytes kExample = kl::test::bytes("000c 0000 0000 0002 0005 0007   0007 0002 616263");
constexpr char kMeaning[] = "register2,5,7 2:abc";

std::string faultOf(const std::string& digits) {
  Reading reading;
  const char* fault = reading.take(kl::test::bytes(digits));
  return fault == nullptr ? "" : fault;
}

TEST(RecordReader, ARegistrationAndALineAreTheseBytes) {
  Reading reading;
  EXPECT_EQ(reading.take(kExample), nullptr);
  EXPECT_EQ(reading.journal.text(), kMeaning);
  EXPECT_EQ(registration(2, {5, 7}) + textRecord(2, "abc"), kExample);
}

TEST(RecordReader, WhereverTheBytesAreCutTheRecordsAreTheSame) {
  for (std::size_t cut = 0; cut <= kExample.size(); ++cut) {
    Reading reading;
    const std::span<const unsigned char> all(kExample);
    EXPECT_EQ(reading.take(all.first(cut)), nullptr);
    EXPECT_EQ(reading.take(all.subspan(cut)), nullptr);
    EXPECT_EQ(reading.journal.text(), kMeaning) << cut;
    EXPECT_EQ(reading.reader.pendingBytes(), 0u);
  }
}

TEST(RecordReader, APrefixIsKeptAndGivesNoLine) {
  for (std::size_t cut = 1; cut < 7; ++cut) {
    Reading reading;
    EXPECT_EQ(reading.take(std::span(kExample).subspan(12, cut)), nullptr);
    EXPECT_EQ(reading.journal.text(), "");
    EXPECT_EQ(reading.reader.pendingBytes(), cut);
  }
}

TEST(RecordReader, EmptyTextsAndListsOfTopicsAreRecords) {
  Reading reading;
  EXPECT_EQ(reading.take(registration(1, {}) + textRecord(1, "")), nullptr);
  EXPECT_EQ(reading.journal.text(), "register1 1:");
}

TEST(RecordReader, TheLongestRecordIsTaken) {
  Reading reading;
  EXPECT_EQ(reading.take(textRecord(1, std::string(65531, 'x'))), nullptr);
  EXPECT_EQ(reading.journal.text().size(), 65531u + 2);
}

TEST(RecordReader, WhatIsNoRecordIsRefused) {
  EXPECT_EQ(faultOf("0000 0001"), "a record with a bad length");
  EXPECT_EQ(faultOf("0003 0001"), "a record with a bad length");
  EXPECT_EQ(faultOf("0006 0000 0000"), "a control record that is too short");
  EXPECT_EQ(faultOf("0008 0000 0001 0001"), "a control record of an unknown kind");
  EXPECT_EQ(faultOf("0009 0000 0000 0001 00"), "a registration of odd length");
  EXPECT_EQ(faultOf("0008 0000 0000 0000"), "a registration of source 0");
}

TEST(RecordReader, ASourceHasAtMost64Topics) {
  EXPECT_EQ(Reading().take(registration(1, Topics(64, 5))), nullptr);
  EXPECT_STREQ(Reading().take(registration(1, Topics(65, 5))), "a registration with too many topics");
}

TEST(RecordReader, NothingComesBehindABadRecord) {
  Reading reading;
  EXPECT_STREQ(reading.take(Bytes(4) + textRecord(1, "a")), "a record with a bad length");
  EXPECT_STREQ(reading.take(textRecord(1, "b")), "a record with a bad length");
  EXPECT_EQ(reading.journal.text(), "");
}

TEST(RecordReader, RecordsBeforeABadOneCount) {
  Reading reading;
  EXPECT_STREQ(reading.take(textRecord(1, "a") + Bytes(4)), "a record with a bad length");
  EXPECT_EQ(reading.journal.text(), "1:a");
}

}  // namespace
}  // namespace logd::test

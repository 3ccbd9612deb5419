#include "services/logd/intake/record_reader.h"

#include <gtest/gtest.h>

#include "tests/services/logd/fixture.h"
#include "tests/support/hex.h"
#include "tests/support/journal.h"

namespace logd::test {
namespace {

struct Noted final : RecordHost {
  void onRegistration(unsigned int source, Topics topics) override {
    std::string word = "register" + std::to_string(source);
    for (const Topic topic : topics) word += "," + std::to_string(topic);
    journal.note(word);
  }
  void onText(unsigned int source, std::string_view text) override {
    journal.note(std::to_string(source) + ":" + std::string(text));
  }
  kl::test::Journal journal;
};

const Bytes kExample = kl::test::bytes("000c 0000 0000 0002 0005 0007   0007 0002 616263");
constexpr char kMeaning[] = "register2,5,7 2:abc";

std::string faultOf(const std::string& digits) {
  Noted host;
  RecordReader reader;
  const char* fault = reader.take(kl::test::bytes(digits), host);
  return fault == nullptr ? "" : fault;
}

TEST(RecordReader, ARegistrationAndALineAreTheseBytes) {
  Noted host;
  RecordReader reader;
  EXPECT_EQ(reader.take(kExample, host), nullptr);
  EXPECT_EQ(host.journal.text(), kMeaning);
  EXPECT_EQ(registration(2, {5, 7}) + textRecord(2, "abc"), kExample);
}

TEST(RecordReader, WhereverTheBytesAreCutTheRecordsAreTheSame) {
  for (std::size_t cut = 0; cut <= kExample.size(); ++cut) {
    Noted host;
    RecordReader reader;
    const std::span<const unsigned char> all(kExample);
    EXPECT_EQ(reader.take(all.first(cut), host), nullptr);
    EXPECT_EQ(reader.take(all.subspan(cut), host), nullptr);
    EXPECT_EQ(host.journal.text(), kMeaning) << cut;
    EXPECT_EQ(reader.pendingBytes(), 0u);
  }
}

TEST(RecordReader, APrefixIsKeptAndGivesNoLine) {
  for (std::size_t cut = 1; cut < 7; ++cut) {
    Noted host;
    RecordReader reader;
    EXPECT_EQ(reader.take(std::span(kExample).subspan(12, cut), host), nullptr);
    EXPECT_EQ(host.journal.text(), "");
    EXPECT_EQ(reader.pendingBytes(), cut);
  }
}

TEST(RecordReader, EmptyTextsAndListsOfTopicsAreRecords) {
  Noted host;
  RecordReader reader;
  EXPECT_EQ(reader.take(registration(1, {}) + textRecord(1, ""), host), nullptr);
  EXPECT_EQ(host.journal.text(), "register1 1:");
}

TEST(RecordReader, TheLongestRecordIsTaken) {
  Noted host;
  RecordReader reader;
  EXPECT_EQ(reader.take(textRecord(1, std::string(65531, 'x')), host), nullptr);
  EXPECT_EQ(host.journal.text().size(), 65531u + 2);
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
  Noted host;
  EXPECT_EQ(RecordReader().take(registration(1, Topics(64, 5)), host), nullptr);
  EXPECT_STREQ(RecordReader().take(registration(1, Topics(65, 5)), host),
               "a registration with too many topics");
}

TEST(RecordReader, RecordsBeforeABadOneCount) {
  Noted host;
  RecordReader reader;
  EXPECT_STREQ(reader.take(textRecord(1, "a") + Bytes(4), host), "a record with a bad length");
  EXPECT_EQ(host.journal.text(), "1:a");
}

}  // namespace
}  // namespace logd::test

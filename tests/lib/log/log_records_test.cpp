#include "log/log_records.h"

#include <gtest/gtest.h>

#include <vector>

#include "tests/support/hex.h"

namespace kl::logging {
namespace {

std::string registration(unsigned int sourceId, const std::vector<unsigned short>& topics) {
  std::vector<unsigned char> record(registrationBytes(static_cast<unsigned int>(topics.size())));
  putRegistration(record.data(), sourceId, topics);
  return test::hex(record);
}

std::string lineHead(unsigned int sourceId, unsigned int textBytes) {
  std::vector<unsigned char> record(kLineHeadBytes);
  putLineHead(record.data(), sourceId, textBytes);
  return test::hex(record);
}

TEST(LogRecords, AreThoseOfTheDocument) {
  EXPECT_EQ(registration(5, {16, 4}), "000c 0000 0000 0005 0010 0004");
  EXPECT_EQ(lineHead(5, 3), "0007 0005");
  const MuteRecord mute = readMuteRecord(test::bytes("0006 0005 0001").data());
  EXPECT_EQ(mute.length, 6u);
  EXPECT_EQ(mute.sourceId, 5u);
  EXPECT_TRUE(mute.mutes);
}

TEST(LogRecords, ASourceWithoutTopicsIsEightBytes) { EXPECT_EQ(registration(1, {}), "0008 0000 0000 0001"); }

TEST(LogRecords, NumbersGoWithTheirLowSixteenBits) {
  EXPECT_EQ(registration(0x12345, {0xffff}), "000a 0000 0000 2345 ffff");
  EXPECT_EQ(lineHead(0x10001, 0), "0004 0001");
}

TEST(LogRecords, TheLongestOnesReachTheLastLength) {
  EXPECT_EQ(lineHead(1, kMostTextBytes), "ffff 0001");
  EXPECT_EQ(registrationBytes(kMostTopics), 65534u);
}

TEST(LogRecords, AnyValueButZeroMutes) {
  EXPECT_FALSE(readMuteRecord(test::bytes("0006 0005 0000").data()).mutes);
  EXPECT_TRUE(readMuteRecord(test::bytes("0006 0005 0100").data()).mutes);
  EXPECT_TRUE(readMuteRecord(test::bytes("0006 0005 ffff").data()).mutes);
}

}  // namespace
}  // namespace kl::logging

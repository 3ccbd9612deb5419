#include "services/loader/crashes/frame_ring.h"

#include <gtest/gtest.h>

#include <ctime>
#include <string>
#include <vector>

#include "kl/conventions.h"
#include "kl/records.h"

namespace {

using loader::Fate;
using loader::FrameHeader;
using loader::FrameRing;
namespace tap = common::tap;

class FrameRingTest : public testing::Test {
 protected:
  FrameRing::Number add(unsigned int from, unsigned int to, unsigned int number = 0) {
    return ring_.add({.from = from, .to = to, .requestId = number, .kind = FrameHeader::kNumbered});
  }
  std::vector<kl::message> messagesOf(unsigned int service, std::size_t most = 64) const {
    std::vector<kl::message> messages;
    for (const kl::message m : ring_.messagesOf(service, most)) messages.push_back(m);
    return messages;
  }
  // Their numbers.
  std::vector<unsigned int> numbersOf(unsigned int service, std::size_t most = 64) const {
    std::vector<unsigned int> numbers;
    for (const kl::message& m : messagesOf(service, most)) numbers.push_back(m.get(tap::NUMBER, 0));
    return numbers;
  }

  FrameRing ring_;
};

using Numbers = std::vector<unsigned int>;

TEST_F(FrameRingTest, ANewOneHasNothing) { EXPECT_EQ(numbersOf(0), Numbers{}); }

TEST_F(FrameRingTest, TheMessagesOfAServiceAreThoseOnBothSidesTheOldestFirst) {
  add(10, 20, 1);
  add(30, 10, 2);
  add(20, 30, 3);
  add(30, kl::PATH_ALL, 4);
  EXPECT_EQ(numbersOf(10), (Numbers{1, 2, 4}));
  EXPECT_EQ(numbersOf(10, 2), (Numbers{2, 4}));
}

TEST_F(FrameRingTest, TheLastOnesTakeThePlacesOfTheFirst) {
  for (unsigned int i = 1; i <= 2 * FrameRing::kRecords + 5; ++i) add(10, 20, i);
  const Numbers numbers = numbersOf(10, 10000);
  ASSERT_EQ(numbers.size(), FrameRing::kRecords);
  EXPECT_EQ(numbers.front(), FrameRing::kRecords + 6);
  EXPECT_EQ(numbers.back(), 2 * FrameRing::kRecords + 5);
}

TEST_F(FrameRingTest, ARecordHasTheLowByteOfEachNumberFirst) {
  ring_.setNow({0x01020304, 0x0305});
  ring_.add({.from = 0x11121314,
             .to = 0x21222324,
             .code = 0x31323334,
             .requestId = 0x41424344,
             .bytes = 0x51525354,
             .kind = FrameHeader::kReply});
  std::string hex;
  for (std::size_t i = 0; i < FrameRing::kRecordBytes; ++i) {
    char text[3];
    (void)std::snprintf(text, sizeof text, "%02x", ring_.bytes()[FrameRing::kRecordBytes + i]);
    hex += text;
  }
  EXPECT_EQ(hex,
            "04030201"
            "0503"
            "01"
            "00"
            "14131211"
            "24232221"
            "34333231"
            "44434241"
            "54535251"
            "01000000");
}

TEST_F(FrameRingTest, WhatBecameOfAMessageStaysAsItWasSaidFirst) {
  const FrameRing::Number number = add(10, 20);
  ring_.setFate(number, Fate::kDenied);
  ring_.setFate(number, Fate::kBusy);
  EXPECT_EQ(messagesOf(10).at(0).get(tap::FATE, 0), static_cast<unsigned int>(tap::DENIED));
}

TEST_F(FrameRingTest, OfARecordThatIsGoneNothingIsSaid) {
  const FrameRing::Number number = add(10, 20);
  for (unsigned int i = 0; i < FrameRing::kRecords; ++i) add(10, 20);
  ring_.setFate(number, Fate::kDenied);
  ring_.setFate(FrameRing::kNone, Fate::kDenied);
  for (const kl::message& m : messagesOf(10, 10000)) EXPECT_FALSE(m.has(tap::FATE));
}

TEST_F(FrameRingTest, AReplyHasTheCommandOfItsRequest) {
  ring_.add({.from = 10,
             .to = 20,
             .code = kl::CMD_GETALL,
             .requestId = 7,
             .kind = FrameHeader::kCommand | FrameHeader::kNumbered});
  ring_.add({.from = 20,
             .to = 10,
             .code = kl::ERROR_BUSY,
             .requestId = 7,
             .kind = FrameHeader::kReply | FrameHeader::kNumbered | FrameHeader::kError});
  ring_.add({.from = 20, .to = 10, .requestId = 8, .kind = FrameHeader::kReply | FrameHeader::kNumbered});
  const std::vector<kl::message> messages = messagesOf(10);
  EXPECT_EQ(messages.at(1).get(tap::COMMAND, 0), kl::CMD_GETALL);
  EXPECT_EQ(messages.at(1).get(tap::ERROR, 0), kl::ERROR_BUSY);
  EXPECT_TRUE(messages.at(1).get(tap::ANSWER, false));
  EXPECT_FALSE(messages.at(2).has(tap::COMMAND));
}

TEST_F(FrameRingTest, AMessageHasTheTimeOfDayAtWhichItPassed) {
  common::Moment minuteAgo = common::momentNow();
  minuteAgo.seconds -= 60;
  ring_.setNow(minuteAgo);
  const auto before = static_cast<unsigned long long>(::time(nullptr));
  add(10, 20);
  const unsigned long long at = messagesOf(10).at(0).get(tap::AT, 0) / 1000000;
  EXPECT_GE(at, before - 62);
  EXPECT_LE(at, static_cast<unsigned long long>(::time(nullptr)) - 59);
}

}  // namespace

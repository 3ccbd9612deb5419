#include "services/loader/routing/envelope.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/support/hex.h"

namespace {

using kl::test::bytes;
using loader::Envelope;

// SYS_TO [24, 0], SYS_FROM [7].
constexpr char kTo[] = "0100ff88 0200 18000000 00000000";
constexpr char kFrom[] = "0200ff88 0100 07000000";

std::string faultOf(const std::string& hexBody) {
  Envelope e;
  const std::vector<unsigned char> body = bytes(hexBody);
  const char* fault = readEnvelope(body, e);
  return fault == nullptr ? "" : fault;
}

std::string pathOf(unsigned int hops, unsigned int first) {
  std::string text = "0100ff88 ";
  text += kl::test::hex({static_cast<unsigned char>(hops), static_cast<unsigned char>(hops >> 8)});
  for (unsigned int i = 0; i < hops; ++i) {
    const unsigned int hop = i == 0 ? first : 5;
    text += kl::test::hex({static_cast<unsigned char>(hop), static_cast<unsigned char>(hop >> 8),
                           static_cast<unsigned char>(hop >> 16), static_cast<unsigned char>(hop >> 24)});
  }
  return "4d32" + text;
}

TEST(Envelope, FindsWhatRoutingDependsOn) {
  const std::vector<unsigned char> body = bytes(std::string("4d32") +
                                                "0500ff01"            // SYS_REPLYEXP true
                                                "0600ff09 2a"         // SYS_REQID 42
                                                "0700ff08 0d00fe00"   // SYS_CMD CMD_GET
                                                "0a00ff21 03 626f62"  // SYS_USER "bob"
                                                "0b00ff09 40"         // SYS_POLICY 64
                                                "05000009 07" +
                                                kTo + kFrom);
  Envelope e;
  ASSERT_EQ(readEnvelope(body, e), nullptr);
  EXPECT_EQ(e.path().size(), 2u);
  EXPECT_EQ(e.path()[0], 24u);
  EXPECT_EQ(e.path().withoutFirst()[0], 0u);
  EXPECT_EQ(e.returnPath().size(), 1u);
  EXPECT_EQ(e.returnPath()[0], 7u);
  EXPECT_TRUE(e.expectsReply);
  EXPECT_TRUE(e.hasRequestId);
  EXPECT_EQ(e.requestId, 42u);
  EXPECT_EQ(e.command, kl::CMD_GET);
  EXPECT_EQ(e.user.text(), "bob");
  EXPECT_EQ(e.policy.u32(), 64u);
  EXPECT_TRUE(e.isCommand());
  EXPECT_TRUE(e.isTracked());
  EXPECT_FALSE(e.isReply());
  EXPECT_FALSE(e.isErrorNotice());
  EXPECT_FALSE(e.isControl);
}

TEST(Envelope, AMessageWithoutTypeIsARequestAndAForeignTypeIsNoReply) {
  Envelope e;
  const auto plain = bytes(std::string("4d32") + kTo);
  ASSERT_EQ(readEnvelope(plain, e), nullptr);
  EXPECT_FALSE(e.isReply());
  EXPECT_FALSE(e.isCommand());
  const auto foreign = bytes(std::string("4d32 0300ff09 05 0700ff09 07") + kTo);
  ASSERT_EQ(readEnvelope(foreign, e), nullptr);
  EXPECT_FALSE(e.isReply());
  EXPECT_TRUE(e.isCommand());
  const auto reply = bytes(std::string("4d32 0300ff09 02 0700ff09 07") + kTo);
  ASSERT_EQ(readEnvelope(reply, e), nullptr);
  EXPECT_TRUE(e.isReply());
  EXPECT_FALSE(e.isCommand());
}

TEST(Envelope, AnErrorWithoutCommandIsANotice) {
  Envelope e;
  const auto notice = bytes(std::string("4d32 0400ff09 02") + kTo);
  ASSERT_EQ(readEnvelope(notice, e), nullptr);
  EXPECT_TRUE(e.isErrorNotice());
  const auto command = bytes(std::string("4d32 0400ff09 02 0700ff09 07") + kTo);
  ASSERT_EQ(readEnvelope(command, e), nullptr);
  EXPECT_FALSE(e.isErrorNotice());
}

TEST(Envelope, ANoticeIsNotTracked) {
  Envelope e;
  const auto notice =
      bytes(std::string("4d32 0400ff09 02 0600ff09 2a") + kTo);  // STATUS_ERROR with a request id
  ASSERT_EQ(readEnvelope(notice, e), nullptr);
  EXPECT_TRUE(e.isErrorNotice());
  EXPECT_FALSE(e.isTracked());
}

TEST(Envelope, SubscribingIsNotTracked) {
  for (const char* command : {"0700ff08 1200fe00", "0700ff08 1300fe00"}) {
    Envelope e;
    const auto body = bytes(std::string("4d32 0600ff09 01") + command + kTo);
    ASSERT_EQ(readEnvelope(body, e), nullptr);
    EXPECT_FALSE(e.isTracked());
    EXPECT_FALSE(e.wantsAnswer());
  }
}

TEST(Envelope, WithoutAPathAMessageIsGarbage) {
  EXPECT_EQ(faultOf("4d32"), "sent a message without a path");
  EXPECT_EQ(faultOf("4d32 0100ff88 0000"), "sent a message without a path");
}

TEST(Envelope, BytesThatAreNoMessageAreGarbage) {
  EXPECT_EQ(faultOf(""), "sent bytes that are no message");
  EXPECT_EQ(faultOf("0000"), "sent bytes that are no message");  // the older format
  EXPECT_EQ(faultOf("0100 02050000030100000 02a000000"), "sent bytes that are no message");
  EXPECT_EQ(faultOf(std::string("4d32") + kTo + "00"), "sent bytes that are no message");
  EXPECT_EQ(faultOf(std::string("4d32") + kTo + "01000038"), "sent bytes that are no message");
}

TEST(Envelope, ASystemFieldMayStandOnlyOnce) {
  EXPECT_EQ(faultOf(std::string("4d32") + kTo + kTo), "sent a system field twice");
  EXPECT_EQ(faultOf(std::string("4d32 0b00ff09 40 0b00ff08 ffffffff") + kTo), "sent a system field twice");
  EXPECT_EQ(faultOf(std::string("4d32 0500ff01 0500ff00") + kTo), "sent a system field twice");
  EXPECT_EQ(faultOf(std::string("4d32 05000009 07 05000009 08") + kTo), "");  // others may
}

TEST(Envelope, ASystemFieldHasTheTypeThatBelongsToItsNumber) {
  const char* const message = "4d32 0100ff88 0100 18000000";
  const std::string fault = "sent a system field of another type";
  for (const char* record : {"0200ff08 07000000",          // SYS_FROM as a number
                             "0300ff20 0000",              // SYS_TYPE as a text
                             "0400ff00",                   // SYS_STATUS as a truth
                             "0500ff08 01000000",          // SYS_REPLYEXP as a number
                             "0600ff10 0000000000000000",  // SYS_REQID as a long number
                             "0700ff88 0000",              // SYS_CMD as a list
                             "0800ff30 0000",              // SYS_ERRNO as raw bytes
                             "0900ff28 0000",              // SYS_ERRSTR as a message
                             "0a00ff08 07000000",          // SYS_USER as a number
                             "0b00ff00",                   // SYS_POLICY as a truth
                             "0d00ff20 0000",              // SYS_CTRL as a text
                             "0f00ff10 0000000000000000",  // SYS_CTRL_ARG as a long number
                             "1100ff88 0000",              // SYS_NOTIFYCMD as a list
                             "1200ff08 07000000"})         // SYS_NOTIFYPATH as a number
    EXPECT_EQ(faultOf(std::string(message) + record), fault) << record;
  EXPECT_EQ(faultOf("4d32 0100ff08 18000000"), fault);                // SYS_TO as a number
  EXPECT_EQ(faultOf(std::string(message) + "0a00ff09 07"), fault);    // in its short form, too
  EXPECT_EQ(faultOf(std::string(message) + "0a00ff24 0000"), fault);  // with a bit that no type has
  EXPECT_EQ(faultOf(std::string(message) + "0a00ff20 0000 0a00ff09 07"), fault);
}

TEST(Envelope, NumbersWithoutANameAndTheFieldWithAnOpenTypeHaveAnyType) {
  const char* const message = "4d32 0100ff88 0100 18000000";
  for (const char* number : {"0c", "0e", "10", "13", "3f", "40"})
    for (const char* value : {"00ff00", "00ff09 07", "00ff20 0000", "00ff88 0000", "00ff30 0000"})
      EXPECT_EQ(faultOf(std::string(message) + number + value), "") << number << value;
  EXPECT_EQ(faultOf(std::string(message) + "0a00fe09 07"),
            "");  // the number of SYS_USER in another name space
  EXPECT_EQ(faultOf(std::string(message) + "0a010009 07"), "");
}

TEST(Envelope, APathMayNotBeginWithPathSelf) {
  EXPECT_EQ(faultOf(pathOf(2, kl::PATH_SELF)), "sent a path that begins with PATH_SELF");
}

TEST(Envelope, APathMayHave32HopsAndNoMore) {
  EXPECT_EQ(faultOf(pathOf(32, 24)), "");
  EXPECT_EQ(faultOf(pathOf(33, 24)), "sent a path of more than 32 hops");
  EXPECT_EQ(faultOf(pathOf(33, kl::PATH_ALL)), "sent a path of more than 32 hops");
}

TEST(Envelope, AListOfPathsMayBeLonger) { EXPECT_EQ(faultOf(pathOf(300, kl::PATH_MULTI)), ""); }

TEST(Envelope, AReturnPathMayHave31HopsBecauseItsSenderIsPutInFront) {
  const auto returnPathOf = [](unsigned int hops) {
    return pathOf(hops, 7).replace(4, 4, "0200");  // SYS_FROM in the place of SYS_TO
  };
  EXPECT_EQ(faultOf(returnPathOf(31) + kTo), "");
  EXPECT_EQ(faultOf(returnPathOf(32) + kTo), "sent a return path of more than 31 hops");
}

TEST(Envelope, EveryPrefixOfAMessageIsGarbageOrEndsWhereARecordEnds) {
  const std::vector<unsigned char> whole =
      bytes(std::string("4d32 0500ff01 0600ff09 2a 0a00ff21 03 626f62") + kTo + kFrom);
  int carried = 0;
  for (std::size_t length = 0; length < whole.size(); ++length) {
    const std::vector<unsigned char> prefix(whole.begin(),
                                            whole.begin() + static_cast<std::ptrdiff_t>(length));
    Envelope e;
    if (readEnvelope(prefix, e) == nullptr) ++carried;
  }
  EXPECT_EQ(carried, 1);  // the one that ends behind SYS_TO
}

}  // namespace

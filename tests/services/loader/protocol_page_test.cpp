// The examples of docs/protocol.md, as they stand there.

#include <gtest/gtest.h>

#include <fstream>
#include <iterator>
#include <memory>
#include <sstream>
#include <string>

#include "services/loader/admission/registration.h"
#include "services/loader/admission/rights.h"
#include "tests/services/loader/fixture.h"
#include "tests/support/hex.h"

namespace {

using kl::test::bytes;
using kl::test::hex;

std::string page() {
  std::ifstream in(KL_SOURCE_DIR "/docs/protocol.md");
  return {std::istreambuf_iterator<char>(in), {}};
}

bool isHexPair(const std::string& word) {
  return word.size() == 2 && word.find_first_not_of("0123456789abcdef") == std::string::npos;
}

// The bytes of the page's example number `index`: the pairs of digits at the beginning of its lines.
std::vector<unsigned char> example(unsigned int index) {
  const std::string text = page();
  std::size_t at = 0;
  for (unsigned int fence = 0; fence <= 2 * index; ++fence) at = text.find("```\n", at) + 4;
  std::istringstream lines(text.substr(at, text.find("```", at) - at));
  std::string digits;
  for (std::string line; std::getline(lines, line);) {
    std::istringstream words(line);
    for (std::string word; words >> word && isHexPair(word);) digits += word;
  }
  return bytes(digits);
}

// True when the bytes are whole frames of well-formed messages.
bool areFrames(std::span<const unsigned char> stream) {
  while (stream.size() >= 4) {
    const std::size_t length = kl::readLe32(stream.data());
    if (stream.size() - 4 < length) return false;
    kl::RecordWalk walk(stream.subspan(4, length));
    for (kl::Record record; walk.next(record);) {
    }
    if (!walk.ok()) return false;
    stream = stream.subspan(4 + length);
  }
  return stream.empty();
}

TEST(ProtocolPage, TheFirstExampleIsAFrame) {
  EXPECT_EQ(hex(example(0)), hex(bytes("11000000 4d32 0d00ff09 06 0100ff88 0100 01000000")));
  EXPECT_TRUE(areFrames(example(0)));
}

TEST(ProtocolPage, TheConfirmationIsTheLoaders) {
  loader::Service service(500);
  service.starts = 1;
  const std::vector<unsigned char> registration = example(1);
  // The values are cut short on the page; what is behind them is the confirmation.
  const std::vector<unsigned char> shown(registration.end() - 4 - 0x26, registration.end());
  ASSERT_TRUE(areFrames(shown));
  const kl::message m(std::vector<unsigned char>(shown.begin() + 4, shown.end()));
  loader::Log log(-1);
  loader::ServiceTable table;
  loader::IdCounter ids("/nowhere/next-id", log);
  const loader::Configuration configuration;
  EXPECT_TRUE(m == loader::Registration(table, ids, configuration).readyMessage(service));
}

TEST(ProtocolPage, TheRoutedRequestIsRewrittenAsShown) {
  const std::vector<unsigned char> sent = bytes(
      "4d32 0500ff01 0600ff09 05 0700ff08 0d00fe00 0200ff88 0100 07000000 0100ff88 0200 18000000 00000000");
  loader::Envelope e;
  ASSERT_EQ(readEnvelope(sent, e), nullptr);
  loader::Buffer out;
  appendDelivered(out, e, e.path().withoutFirst(), 500, {});
  EXPECT_EQ(hex({out.bytes().begin(), out.bytes().end()}),
            hex(bytes("2b000000 4d32 0500ff01 0600ff09 05 0700ff08 0d00fe00 "
                      "0200ff88 0200 f4010000 07000000 0100ff88 0100 00000000")));
  EXPECT_NE(page().find("02 00 ff 88  02 00  f4 01 00 00  07 00 00 00   SYS_FROM"), std::string::npos);
  EXPECT_NE(page().find("01 00 ff 88  01 00  00 00 00 00      SYS_TO"), std::string::npos);
}

TEST(ProtocolPage, TheRightsAreThoseOfBob) {
  EXPECT_EQ(hex(example(3)), hex(loader::rightsRecords("bob", loader::Rights::of(64))));
}

TEST(ProtocolPage, AGatewaysRightsAreWorkedOutAsShown) {
  const auto users = std::make_shared<loader::UsersSpokenFor>();
  loader::SenderRights bob = loader::equalRights("bob", loader::Rights::of(64 | 128));
  bob.user = loader::trustedRights("bob").user;
  users->add("bob", bob);
  loader::SenderRights gateway = loader::equalRights("web", loader::Rights::of(64));
  gateway.speaksFor = users;
  const std::string user = "0a 00 ff 21  03  62 6f 62";
  const std::string sentBits = "0b 00 ff 08  80 02 00 00";
  const std::string bits = "0b 00 ff 08  80 00 00 00";
  const std::vector<unsigned char> sent =
      bytes("4d32 0700ff08 0d00fe00 0100ff88 0100 18000000 " + user + " " + sentBits);
  loader::Envelope e;
  ASSERT_EQ(readEnvelope(sent, e), nullptr);
  loader::Buffer out;
  appendDelivered(out, e, loader::Path(), 500, loader::Access::decide(gateway, e, {}).mark);
  const std::vector<unsigned char> appended = bytes(user + bits);
  ASSERT_GT(out.size(), appended.size());
  EXPECT_EQ(hex({out.bytes().end() - static_cast<std::ptrdiff_t>(appended.size()), out.bytes().end()}),
            hex(appended));
  EXPECT_NE(page().find(user + "                 " + user + "                 SYS_USER \"bob\"\n"),
            std::string::npos);
  EXPECT_NE(page().find(sentBits + "                  " + bits + "                  SYS_POLICY: 640"),
            std::string::npos);
}

TEST(ProtocolPage, TheLastExampleStopsService32) {
  const std::vector<unsigned char> frame = example(5);
  ASSERT_TRUE(areFrames(frame)) << hex(frame);
  const kl::message m(std::vector<unsigned char>(frame.begin() + 4, frame.end()));
  EXPECT_EQ(m.get(kl::SYS_CMD, 0), kl::CMD_SETOBJ);
  EXPECT_EQ(m.get(kl::STD_ID, 0), 32u);
  EXPECT_EQ(m.get(kl::SVC_ACTION, 0), kl::SVC_STOP);
}

}  // namespace

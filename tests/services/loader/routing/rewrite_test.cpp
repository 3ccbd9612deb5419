#include "services/loader/routing/rewrite.h"

#include <gtest/gtest.h>

#include <string>

#include "services/loader/routing/access.h"
#include "tests/support/builders.h"
#include "tests/support/hex.h"

namespace {

using kl::test::bytes;
using kl::test::hex;
using loader::Buffer;
using loader::Envelope;

constexpr char kCommand[] = "0700ff08 0d00fe00";
// SYS_USER "bob" and SYS_POLICY 64, as the loader writes them: u32 values first.
constexpr char kBob[] = "0b00ff09 40 0a00ff21 03 626f62";

// The frame that one with this body becomes on its way from service 0x20.
std::string delivered(const std::string& hexBody, const std::string& rights = "") {
  const std::vector<unsigned char> body = bytes(hexBody);
  Envelope e;
  EXPECT_EQ(readEnvelope(body, e), nullptr);
  loader::SenderRights sender;
  sender.isTrusted = rights.empty();
  sender.grants.push_back({loader::Rights::of(64), bytes(rights)});
  const loader::RightsMark mark = loader::Access::decide(sender, e, {}).mark;
  Buffer out;
  const std::size_t size = appendDelivered(out, e, e.path().withoutFirst(), 0x20, mark);
  EXPECT_EQ(size, out.size());
  EXPECT_LE(size, 4 + mostDelivered(e, mark));
  return hex({out.bytes().begin(), out.bytes().end()});
}

std::string grouped(const std::string& text) { return hex(bytes(text)); }

TEST(Rewrite, TheFirstHopIsCutAndTheSenderPutInFront) {
  EXPECT_EQ(delivered("4d32 05000009 07"
                      "0100ff88 0200 18000000 00000000"
                      "0200ff88 0100 07000000"),
            grouped("1f000000 4d32 05000009 07"
                    "0100ff88 0100 00000000"
                    "0200ff88 0200 20000000 07000000"));
}

TEST(Rewrite, RecordsKeepTheirPlaces) {
  EXPECT_EQ(
      delivered("4d32 0200ff88 0100 07000000 05000009 07 0100ff88 0100 18000000 01000021 01 61"),
      grouped("21000000 4d32 0200ff88 0200 20000000 07000000 05000009 07 0100ff88 0000 01000021 01 61"));
}

TEST(Rewrite, TheLastHopLeavesAnEmptyPath) {
  EXPECT_EQ(delivered("4d32 0100ff88 0100 18000000 0200ff88 0000"),
            grouped("12000000 4d32 0100ff88 0000 0200ff88 0100 20000000"));
}

TEST(Rewrite, AMissingReturnPathIsAppended) {
  EXPECT_EQ(delivered("4d32 0100ff88 0100 18000000 05000009 07"),
            grouped("17000000 4d32 0100ff88 0000 05000009 07 0200ff88 0100 20000000"));
}

TEST(Rewrite, RightsOfACommandAreReplacedWhereverTheyStand) {
  EXPECT_EQ(
      delivered(std::string("4d32 0b00ff08 ffffffff 0a00ff21 04 726f6f74") + kCommand +
                    "0100ff88 0100 18000000 0200ff88 0000",
                kBob),
      grouped(std::string("27000000 4d32 ") + kCommand + "0100ff88 0000 0200ff88 0100 20000000 " + kBob));
}

TEST(Rewrite, RightsAreSetWhereTheSenderSetNone) {
  EXPECT_EQ(
      delivered(std::string("4d32") + kCommand + "0100ff88 0100 18000000 0200ff88 0000", kBob),
      grouped(std::string("27000000 4d32 ") + kCommand + "0100ff88 0000 0200ff88 0100 20000000 " + kBob));
}

TEST(Rewrite, RightsInAReplyOrWithoutACommandPassAsTheyCame) {
  const std::string rest = "0b00ff09 01 0100ff88 0100 18000000 0200ff88 0000";
  const std::string passed = "0b00ff09 01 0100ff88 0000 0200ff88 0100 20000000";
  EXPECT_EQ(delivered("4d32" + rest, kBob), grouped("17000000 4d32" + passed));
  EXPECT_EQ(delivered("4d32 0300ff09 02" + rest, kBob), grouped("1c000000 4d32 0300ff09 02" + passed));
}

TEST(Rewrite, AForeignTypeDoesNotSaveForgedRights) {
  const std::string out = delivered(
      std::string("4d32 0300ff09 05 0b00ff09 ff") + kCommand + "0100ff88 0100 18000000 0200ff88 0000", kBob);
  EXPECT_EQ(out, grouped(std::string("2c000000 4d32 0300ff09 05") + kCommand +
                         "0100ff88 0000 0200ff88 0100 20000000" + kBob));
}

TEST(Rewrite, WithAllRightsTheSendersOwnPass) {
  EXPECT_EQ(
      delivered(std::string("4d32 0b00ff09 01") + kCommand + "0100ff88 0100 18000000 0200ff88 0000"),
      grouped(std::string("1f000000 4d32 0b00ff09 01") + kCommand + "0100ff88 0000 0200ff88 0100 20000000"));
}

TEST(Rewrite, AUserMayBeAddedBesideTheRightsThatTheSenderSet) {
  const std::vector<unsigned char> body =
      bytes(std::string("4d32 0b00ff09 01") + kCommand + "0100ff88 0100 18000000");
  const std::vector<unsigned char> user = bytes("0a00ff21 03 626f62");
  Envelope e;
  ASSERT_EQ(readEnvelope(body, e), nullptr);
  Buffer out;
  (void)appendDelivered(out, e, e.path().withoutFirst(), 0x20, {user, false});
  EXPECT_EQ(hex({out.bytes().begin(), out.bytes().end()}),
            grouped(std::string("27000000 4d32 0b00ff09 01") + kCommand +
                    "0100ff88 0000 0200ff88 0100 20000000 0a00ff21 03 626f62"));
}

TEST(Rewrite, HowLongAFrameGetsIsKnownBefore) {
  using Ids = std::vector<unsigned int>;
  const std::vector<unsigned char> records(30);
  for (const Ids& path : {Ids{24}, Ids{24, 3}, Ids{kl::PATH_MULTI, 2, 24, 3, 1, 25}})
    for (const Ids& from : {Ids{}, Ids{7}, Ids{7, 8, 9}}) {
      kl::message m = kl::test::notification(path, from);
      const std::vector<unsigned char> body = kl::test::flat(m);
      Envelope e;
      ASSERT_EQ(readEnvelope(body, e), nullptr);
      Buffer out;
      const loader::RightsMark mark{records, true, true, 64};
      EXPECT_LE(appendDelivered(out, e, e.path().withoutFirst(), 0x20, mark), 4 + mostDelivered(e, mark));
    }
}

TEST(Rewrite, AFrameMayGrowPast65535Bytes) {
  std::vector<unsigned char> body = bytes("4d32 0100ff88 0100 18000000 01000030 edff");
  body.resize(body.size() + 0xffed, 0x5a);
  ASSERT_EQ(body.size(), 65535u);
  Envelope e;
  ASSERT_EQ(readEnvelope(body, e), nullptr);
  Buffer out;
  EXPECT_EQ(appendDelivered(out, e, loader::Path(), 0x20, {}), 4u + 65541u);
  EXPECT_LE(65541u, loader::mostDelivered(e, {}));
  EXPECT_EQ(hex({out.bytes().begin(), out.bytes().begin() + 18}),
            grouped("05000100 4d32 0100ff88 0000 01000030 edff"));
}

}  // namespace

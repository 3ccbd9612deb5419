// The bytes were worked out by hand; that Wireshark reads them tests/tools/klctl/verbs/capture_test.py shows.

#include "tools/klctl/output/pcapng.h"

#include <gtest/gtest.h>

#include <array>

#include "tests/support/hex.h"

namespace klctl {
namespace {

using kl::test::bytes;
using Bytes = std::vector<unsigned char>;

Bytes of(const std::string& block) { return {block.begin(), block.end()}; }

}  // namespace

TEST(Pcapng, ASectionSaysTheByteOrderAndWhoWroteIt) {
  EXPECT_EQ(of(pcapng::section("k", "")), bytes("0a0d0d0a 28000000 | 4d3c2b1a 0100 0000 ffffffff ffffffff |"
                                                "0400 0100 6b000000 | 0000 0000 | 28000000"));
  EXPECT_EQ(of(pcapng::section("k", "all")),
            bytes("0a0d0d0a 30000000 | 4d3c2b1a 0100 0000 ffffffff ffffffff |"
                  "0400 0100 6b000000 | 0100 0300 616c6c00 | 0000 0000 | 30000000"));
}

TEST(Pcapng, AnInterfaceHasANameAndItsTimesAUnit) {
  EXPECT_EQ(of(pcapng::interface("a", 0)),
            bytes("01000000 28000000 | 9300 0000 00000000 | 0200 0100 61000000 | 0900 0100 06000000 |"
                  "0000 0000 | 28000000"));
}

TEST(Pcapng, APacketIsPaddedAndKnowsItsLength) {
  const std::array<unsigned char, 3> captured{0xaa, 0xbb, 0xcc};
  pcapng::Packet packet{.interface = 2, .at = 0x0102030405, .bytes = captured, .length = 9, .comment = ""};
  EXPECT_EQ(of(pcapng::packet(packet)),
            bytes("06000000 24000000 | 02000000 01000000 05040302 03000000 09000000 |"
                  "aabbcc 00 | 24000000"));
  packet.comment = "hi";
  EXPECT_EQ(of(pcapng::packet(packet)),
            bytes("06000000 30000000 | 02000000 01000000 05040302 03000000 09000000 |"
                  "aabbcc 00 | 0100 0200 68690000 | 0000 0000 | 30000000"));
}

TEST(Pcapng, APacketIsNeverShorterThanWhatThereIsOfIt) {
  const std::array<unsigned char, 4> captured{1, 2, 3, 4};
  EXPECT_EQ(of(pcapng::packet({.interface = 0, .at = 0, .bytes = captured, .length = 1, .comment = ""})),
            bytes("06000000 24000000 | 00000000 00000000 00000000 04000000 04000000 | 01020304 | 24000000"));
}

TEST(Pcapng, StatisticsSayWhatIsMissing) {
  const pcapng::Statistics seen{.interface = 1, .begin = 1, .end = 0x100000002, .received = 3, .lost = 4};
  EXPECT_EQ(of(pcapng::statistics(seen)),
            bytes("05000000 4c000000 | 01000000 01000000 02000000 | 0200 0800 00000000 01000000 |"
                  "0300 0800 01000000 02000000 | 0400 0800 03000000 00000000 | 0500 0800 04000000 00000000 |"
                  "0000 0000 | 4c000000"));
}

TEST(Pcapng, ALongTextIsCut) {
  const std::string block = pcapng::section("k", std::string(70'000, 'x'));
  EXPECT_EQ(block.size(), 40 + 4 + pcapng::kMostText);
}

TEST(Pcapng, ABlockSaysHowLongItIs) {
  const std::string block = pcapng::interface("netif (32)", 0);
  EXPECT_EQ(pcapng::blockBytes(block.data()), block.size());
}

}  // namespace klctl

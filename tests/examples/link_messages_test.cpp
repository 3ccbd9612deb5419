#include "examples/link_messages.h"

#include <gtest/gtest.h>
#include <linux/if_link.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <sys/socket.h>

#include <cstring>
#include <memory>

namespace {

using Bytes = std::vector<unsigned char>;

template <class T>
Bytes bytesOf(const T& value) {
  Bytes bytes(sizeof value);
  std::memcpy(bytes.data(), &value, sizeof value);
  return bytes;
}

Bytes text(const std::string& word) {
  Bytes bytes(word.begin(), word.end());
  bytes.push_back(0);
  return bytes;
}

void append(Bytes& bytes, const Bytes& more) {
  bytes.insert(bytes.end(), more.begin(), more.end());
  bytes.resize((bytes.size() + 3) / 4 * 4);
}

struct Attribute {
  unsigned int type;
  Bytes value;
};

Bytes messageOf(unsigned int type, const Bytes& body, const std::vector<Attribute>& attributes = {},
                unsigned int flags = 0) {
  Bytes content;
  append(content, body);
  for (const auto& [kind, value] : attributes) {
    rtattr head{};
    head.rta_type = static_cast<unsigned short>(kind);
    head.rta_len = static_cast<unsigned short>(sizeof head + value.size());
    append(content, bytesOf(head));
    append(content, value);
  }
  nlmsghdr head{};
  head.nlmsg_len = static_cast<unsigned int>(sizeof head + content.size());
  head.nlmsg_type = static_cast<unsigned short>(type);
  head.nlmsg_flags = static_cast<unsigned short>(flags);
  Bytes result = bytesOf(head);
  append(result, content);
  return result;
}

Bytes linkBody(int index, unsigned int flags = 0, unsigned char family = AF_UNSPEC) {
  ifinfomsg body{};
  body.ifi_family = family;
  body.ifi_index = index;
  body.ifi_flags = flags;
  return bytesOf(body);
}

Bytes newLink(int index, const std::string& name, unsigned int flags = 0, unsigned int mtu = 1500) {
  return messageOf(RTM_NEWLINK, linkBody(index, flags),
                   {{IFLA_IFNAME, text(name)}, {IFLA_MTU, bytesOf(mtu)}, {IFLA_ADDRESS, {2, 0, 0, 0, 0, 1}}});
}

Bytes addressBody(unsigned int index, unsigned char family, unsigned char prefixLength) {
  ifaddrmsg body{};
  body.ifa_family = family;
  body.ifa_prefixlen = prefixLength;
  body.ifa_index = index;
  return bytesOf(body);
}

const Bytes kFd01 = {0xfd, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1};
const Bytes kFd02 = {0xfd, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 2};

Bytes operator+(const Bytes& a, const Bytes& b) {
  Bytes both = a;
  both.insert(both.end(), b.begin(), b.end());
  return both;
}

kl::IPAddr6 ip(const Bytes& bytes) {
  kl::IPAddr6 address;
  std::copy(bytes.begin(), bytes.end(), address.bytes);
  return address;
}

// Reads from memory that ends with the bytes, so that a step beyond is seen.
LinkNews take(Links& links, const Bytes& bytes, std::size_t count) {
  const auto exact = std::make_unique<unsigned char[]>(count);
  std::copy_n(bytes.begin(), count, exact.get());
  return takeLinkMessages(links, {exact.get(), count});
}

LinkNews take(Links& links, const Bytes& bytes) { return take(links, bytes, bytes.size()); }

std::vector<std::string> names(const Links& links) {
  std::vector<std::string> result;
  for (const auto& [index, link] : links) result.push_back(link.name);
  return result;
}

using Names = std::vector<std::string>;

}  // namespace

TEST(LinkMessages, ANewLinkIsTakenWithWhatItSays) {
  rtnl_link_stats64 counters{};
  counters.rx_bytes = 0x123456789a;
  counters.tx_packets = 7;
  Links links;
  take(links, messageOf(RTM_NEWLINK, linkBody(5, IFF_UP | IFF_RUNNING),
                        {{IFLA_IFNAME, text("eth0")},
                         {IFLA_MTU, bytesOf(1400u)},
                         {IFLA_ADDRESS, {2, 0, 0, 0, 0, 1}},
                         {IFLA_STATS64, bytesOf(counters)}}));
  ASSERT_TRUE(links.contains(5));
  const Link& link = links[5];
  EXPECT_EQ(link.name, "eth0");
  EXPECT_EQ(link.mtu, 1400u);
  EXPECT_EQ(link.hardwareAddress, (Bytes{2, 0, 0, 0, 0, 1}));
  EXPECT_TRUE(link.up);
  EXPECT_TRUE(link.running);
  EXPECT_EQ(link.counters.rxBytes, 0x123456789au);
  EXPECT_EQ(link.counters.txPackets, 7u);
}

TEST(LinkMessages, WhatAMessageDoesNotMentionStays) {
  Links links;
  take(links, newLink(5, "eth0", IFF_UP));
  take(links, messageOf(RTM_NEWLINK, linkBody(5, 0), {{IFLA_MTU, bytesOf(9000u)}}));
  EXPECT_EQ(links[5].name, "eth0");
  EXPECT_EQ(links[5].mtu, 9000u);
  EXPECT_FALSE(links[5].up);
}

TEST(LinkMessages, ALinkThatNeverHadANameIsNoLink) {
  Links links;
  take(links, messageOf(RTM_NEWLINK, linkBody(5), {{IFLA_MTU, bytesOf(9000u)}}));
  take(links, newLink(6, ""));
  take(links, newLink(7, "a-name-too-long-for-it"));
  EXPECT_TRUE(links.empty());
}

TEST(LinkMessages, ADeletedLinkIsGone) {
  Links links;
  take(links, newLink(5, "eth0") + newLink(6, "eth1"));
  take(links, messageOf(RTM_DELLINK, linkBody(5)));
  EXPECT_EQ(names(links), Names{"eth1"});
}

TEST(LinkMessages, ALinkThatOnlyLeavesItsBridgeIsNotGone) {
  Links links;
  take(links, newLink(5, "eth0"));
  take(links, messageOf(RTM_DELLINK, linkBody(5, 0, AF_BRIDGE)));
  take(links, messageOf(RTM_NEWLINK, linkBody(5, IFF_UP, AF_BRIDGE), {{IFLA_IFNAME, text("other")}}));
  EXPECT_EQ(names(links), Names{"eth0"});
  EXPECT_FALSE(links[5].up);
}

TEST(LinkMessages, AddressesComeAndGo) {
  Links links;
  take(links, newLink(5, "eth0"));
  const Bytes first = messageOf(RTM_NEWADDR, addressBody(5, AF_INET6, 64), {{IFA_ADDRESS, kFd01}});
  const Bytes second = messageOf(RTM_NEWADDR, addressBody(5, AF_INET, 24),
                                 {{IFA_ADDRESS, {10, 0, 0, 1}}, {IFA_LOCAL, {10, 0, 0, 1}}});
  take(links, first + second + first);  // once more is no other
  ASSERT_EQ(links[5].addresses.size(), 2u);
  const Address& v4 = *links[5].addresses.begin();
  EXPECT_TRUE(v4.isIPv4());
  EXPECT_EQ(v4.own, ip({0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xff, 0xff, 10, 0, 0, 1}));
  const Address& v6 = *links[5].addresses.rbegin();
  EXPECT_FALSE(v6.isIPv4());
  EXPECT_EQ(v6.own, ip(kFd01));
  take(links, messageOf(RTM_DELADDR, addressBody(5, AF_INET6, 64), {{IFA_ADDRESS, kFd01}}));
  ASSERT_EQ(links[5].addresses.size(), 1u);
  EXPECT_TRUE(links[5].addresses.begin()->isIPv4());
}

TEST(LinkMessages, OnAPointToPointLinkTheOwnAddressIsShown) {
  Links links;
  take(links, newLink(5, "ppp0"));
  for (const bool ownFirst : {true, false}) {
    const Attribute own{IFA_LOCAL, kFd01};
    const Attribute other{IFA_ADDRESS, kFd02};
    take(links, messageOf(RTM_NEWADDR, addressBody(5, AF_INET6, 128),
                          ownFirst ? std::vector{own, other} : std::vector{other, own}));
    ASSERT_EQ(links[5].addresses.size(), 1u);
    EXPECT_EQ(links[5].addresses.begin()->own, ip(kFd01));
    EXPECT_EQ(links[5].addresses.begin()->other, ip(kFd02));
  }
}

TEST(LinkMessages, OneAddressWithTwoPrefixesGoesWithTheSecond) {
  Links links;
  take(links, newLink(5, "eth0"));
  const auto message = [](unsigned int type, unsigned char prefixLength) {
    return messageOf(type, addressBody(5, AF_INET, prefixLength), {{IFA_LOCAL, {10, 0, 0, 1}}});
  };
  take(links, message(RTM_NEWADDR, 24) + message(RTM_NEWADDR, 16) + message(RTM_DELADDR, 24));
  ASSERT_EQ(links[5].addresses.size(), 1u);
  EXPECT_EQ(links[5].addresses.begin()->prefixLength, 16);
  take(links, message(RTM_DELADDR, 16));
  EXPECT_TRUE(links[5].addresses.empty());
}

TEST(LinkMessages, AnAddressOfAnUnknownLinkOrFamilyIsLeftAlone) {
  Links links;
  take(links, newLink(5, "eth0"));
  take(links, messageOf(RTM_NEWADDR, addressBody(6, AF_INET6, 64), {{IFA_ADDRESS, kFd01}}) +
                  messageOf(RTM_NEWADDR, addressBody(5, AF_PACKET, 64), {{IFA_ADDRESS, kFd01}}));
  EXPECT_EQ(names(links), Names{"eth0"});
  EXPECT_TRUE(links[5].addresses.empty());
}

TEST(LinkMessages, AnswersSayThatTheyEndOrFailOrWereInterrupted) {
  Links links;
  EXPECT_TRUE(take(links, newLink(5, "eth0") + messageOf(NLMSG_DONE, {})).isEnd);
  EXPECT_TRUE(take(links, messageOf(NLMSG_ERROR, {})).isError);
  EXPECT_TRUE(take(links, messageOf(NLMSG_DONE, {}, {}, NLM_F_DUMP_INTR)).wasInterrupted);
  const LinkNews nothing = take(links, newLink(6, "eth1") + messageOf(RTM_NEWROUTE, {1, 2, 3, 4}));
  EXPECT_FALSE(nothing.isEnd || nothing.isError || nothing.wasInterrupted);
  EXPECT_EQ(names(links), (Names{"eth0", "eth1"}));
}

TEST(LinkMessages, OfEveryPrefixTheWholeMessagesAreTaken) {
  const Bytes first = newLink(5, "eth0");
  const Bytes second = newLink(6, "eth1");
  const Bytes all =
      first + second + messageOf(RTM_NEWADDR, addressBody(5, AF_INET6, 64), {{IFA_ADDRESS, kFd01}});
  for (std::size_t count = 0; count <= all.size(); ++count) {
    Links links;
    take(links, all, count);
    const std::size_t whole = count < first.size() ? 0 : count < first.size() + second.size() ? 1 : 2;
    EXPECT_EQ(links.size(), whole) << count;
    EXPECT_EQ(whole > 0 && !links[5].addresses.empty(), count == all.size()) << count;
  }
}

// The length of the message shrinks with it, so it is whole and what is in it is not.
TEST(LinkMessages, AMessageThatEndsInsideItsBodyOrAnAttributeChangesNothing) {
  constexpr std::size_t kBody = sizeof(ifinfomsg);
  const Bytes whole = messageOf(RTM_NEWLINK, linkBody(5, IFF_UP), {{IFLA_IFNAME, text("new")}});
  const std::size_t contentBytes = whole.size() - sizeof(nlmsghdr);
  for (std::size_t count = 0; count < contentBytes; ++count) {
    if (count == kBody) continue;  // no attribute is well-formed, too
    Bytes bytes(whole.begin(), whole.end() - static_cast<std::ptrdiff_t>(contentBytes - count));
    const auto length = static_cast<unsigned int>(bytes.size());
    std::memcpy(bytes.data(), &length, sizeof length);
    Links links;
    take(links, newLink(5, "old"));
    take(links, bytes);
    EXPECT_EQ(names(links), Names{"old"}) << count;
    EXPECT_FALSE(links[5].up) << count;
  }
}

TEST(LinkMessages, AnAttributeThatClaimsMoreThanThereIsChangesNothing) {
  for (const auto claim : std::vector<unsigned short>{0, 3, 200, 0xffff}) {
    Bytes bytes = newLink(5, "eth0");
    std::memcpy(bytes.data() + sizeof(nlmsghdr) + sizeof(ifinfomsg), &claim, sizeof claim);
    Links links;
    take(links, bytes);
    EXPECT_TRUE(links.empty()) << claim;
  }
}

TEST(LinkMessages, AMessageThatClaimsTooMuchOrTooLittleEndsTheReading) {
  for (const unsigned int claim : {0u, 15u, 5000u, 0xffffffffu}) {
    Bytes bytes = newLink(5, "eth0");
    std::memcpy(bytes.data(), &claim, sizeof claim);
    Links links;
    take(links, bytes + newLink(6, "eth1"));
    EXPECT_TRUE(links.empty()) << claim;
  }
}

TEST(LinkMessages, ValuesOfTheWrongSizeAreRefused) {
  Links links;
  take(links, newLink(5, "eth0"));
  take(links, messageOf(RTM_NEWLINK, linkBody(5), {{IFLA_MTU, {1, 2}}}));
  EXPECT_EQ(links[5].mtu, 1500u);
  for (const Bytes& value : {Bytes{}, Bytes{10, 0, 0}, Bytes{10, 0, 0, 1, 0}, kFd01})
    take(links, messageOf(RTM_NEWADDR, addressBody(5, AF_INET, 24), {{IFA_LOCAL, value}}));
  for (const Bytes& value : {Bytes{}, Bytes{10, 0, 0, 1}, kFd01 + Bytes{0}})
    take(links, messageOf(RTM_NEWADDR, addressBody(5, AF_INET6, 64), {{IFA_ADDRESS, value}}));
  take(links, messageOf(RTM_NEWADDR, addressBody(5, AF_INET6, 64)));
  EXPECT_TRUE(links[5].addresses.empty());
}

TEST(LinkMessages, CountersOfAnOlderKernelAreFewer) {
  rtnl_link_stats64 counters{};
  counters.rx_packets = 3;
  Bytes value = bytesOf(counters);
  value.resize(sizeof counters.rx_packets);
  Links links;
  take(links, messageOf(RTM_NEWLINK, linkBody(5), {{IFLA_IFNAME, text("eth0")}, {IFLA_STATS64, value}}));
  EXPECT_EQ(links[5].counters.rxPackets, 3u);
  EXPECT_EQ(links[5].counters.txBytes, 0u);
}

// Whichever byte is another: names stay names, and the reading stays inside (the sanitizers watch).
TEST(LinkMessages, NoByteLeadsAstray) {
  const Bytes all = newLink(5, "eth0") +
                    messageOf(RTM_NEWADDR, addressBody(5, AF_INET6, 64), {{IFA_ADDRESS, kFd01}}) +
                    messageOf(RTM_DELLINK, linkBody(6));
  for (std::size_t at = 0; at < all.size(); ++at) {
    for (const int value : {0, 1, 4, 0x10, 0x7f, 0x80, 0xff}) {
      Bytes bytes = all;
      bytes[at] = static_cast<unsigned char>(value);
      Links links;
      take(links, bytes);
      for (const std::string& name : names(links)) EXPECT_TRUE(!name.empty() && name.size() < IFNAMSIZ) << at;
    }
  }
}

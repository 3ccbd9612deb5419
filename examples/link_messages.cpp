// The kernel's messages about interfaces, rtnetlink.  Numbers are in host byte order, everything begins at a
// multiple of 4:
//
//     message     16   length with this head, type, flags, number, port
//                      RTM_NEWLINK, RTM_DELLINK: ifinfomsg, attributes IFLA_...
//                      RTM_NEWADDR, RTM_DELADDR: ifaddrmsg, attributes IFA_...
//     attribute    4   length with this head, type; then its value
//
// M1  no length is used before it was compared with the bytes that are there
// M2  a message is taken as a whole or not at all
// M3  taking a message once more changes nothing: the table that was read and the news that came
//     meanwhile may overlap

#include "link_messages.h"

#include <linux/if_link.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <sys/socket.h>

#include <algorithm>
#include <cstring>

namespace {
using Bytes = std::span<const unsigned char>;

constexpr unsigned int kTypeBits = 0x3fff;  // of an attribute's type; the others are flags
constexpr std::size_t kIPv4At = 12;         // of ::ffff:a.b.c.d

// The same, brought to the next multiple of 4, or to the end.
Bytes behind(Bytes bytes, std::size_t length) {
  return bytes.subspan(std::min((length + 3) / 4 * 4, bytes.size()));
}

// Copies a value off the front; false when it is not whole.
template <class T>
bool cut(Bytes& bytes, T& value) {
  if (bytes.size() < sizeof value) return false;
  std::memcpy(&value, bytes.data(), sizeof value);
  bytes = behind(bytes, sizeof value);
  return true;
}

// Calls `take(type, value)` for each attribute, as long as it says true; false when one is malformed.  M1
template <class Take>
bool forEachAttribute(Bytes attributes, Take take) {
  while (!attributes.empty()) {
    rtattr head{};
    Bytes rest = attributes;
    if (!cut(rest, head) || head.rta_len < sizeof head || head.rta_len > attributes.size()) return false;
    if (!take(head.rta_type & kTypeBits, rest.first(head.rta_len - sizeof head))) return false;
    attributes = behind(attributes, head.rta_len);
  }
  return true;
}

bool takeName(Link& link, Bytes value) {
  const auto end = std::find(value.begin(), value.end(), '\0');
  link.name.assign(value.begin(), end);
  return !link.name.empty() && link.name.size() < IFNAMSIZ;
}

// Kernels differ in how many counters they know: those that are missing are 0.
void takeCounters(Link& link, Bytes value) {
  rtnl_link_stats64 counters{};
  std::memcpy(&counters, value.data(), std::min(value.size(), sizeof counters));
  link.counters = {counters.rx_bytes, counters.tx_bytes, counters.rx_packets, counters.tx_packets};
}

bool takeLinkAttribute(Link& link, unsigned int type, Bytes value) {
  switch (type) {
    case IFLA_IFNAME: return takeName(link, value);
    case IFLA_ADDRESS: link.hardwareAddress.assign(value.begin(), value.end()); return true;
    case IFLA_MTU: return cut(value, link.mtu);
    case IFLA_STATS64: takeCounters(link, value); return true;
    default: return true;
  }
}

// Properties that a message does not have stay as they were: some messages have one property only.
bool takeNewLink(Links& links, const ifinfomsg& body, Bytes attributes) {
  const auto index = static_cast<unsigned int>(body.ifi_index);
  const auto known = links.find(index);
  Link link = known == links.end() ? Link() : known->second;
  link.up = (body.ifi_flags & IFF_UP) != 0;
  link.running = (body.ifi_flags & IFF_RUNNING) != 0;
  const bool isWhole = forEachAttribute(
      attributes, [&link](unsigned int type, Bytes value) { return takeLinkAttribute(link, type, value); });
  if (!isWhole) return false;  // M2
  if (!link.name.empty()) links.insert_or_assign(index, link);
  return true;
}

// Other families send messages about interfaces, too: a bridge sends "deleted" when an interface only leaves it.
bool takeLink(Links& links, unsigned int type, Bytes content) {
  ifinfomsg body{};
  if (!cut(content, body)) return false;
  if (body.ifi_family != AF_UNSPEC) return true;
  if (type == RTM_NEWLINK) return takeNewLink(links, body, content);
  links.erase(static_cast<unsigned int>(body.ifi_index));
  return true;
}

bool takeIP(kl::IPAddr6& address, unsigned int family, Bytes value) {
  const std::size_t begin = family == AF_INET ? kIPv4At : 0;
  if (value.size() != sizeof address.bytes - begin) return false;
  address = {};
  if (family == AF_INET) address.bytes[kIPv4At - 2] = address.bytes[kIPv4At - 1] = 0xff;
  std::copy(value.begin(), value.end(), address.bytes + begin);
  return true;
}

// IFA_ADDRESS is the neighbour's on a point-to-point link, where IFA_LOCAL is ours; IPv6 has IFA_LOCAL only there.
bool readAddress(Address& address, const ifaddrmsg& body, Bytes attributes) {
  address.prefixLength = body.ifa_prefixlen;
  bool hasOwn = false;
  bool hasOther = false;
  const bool isWhole = forEachAttribute(attributes, [&](unsigned int type, Bytes value) {
    if (type == IFA_LOCAL) return hasOwn = takeIP(address.own, body.ifa_family, value);
    if (type == IFA_ADDRESS) return hasOther = takeIP(address.other, body.ifa_family, value);
    return true;
  });
  if (!hasOwn) address.own = address.other;
  if (!hasOther) address.other = address.own;
  return isWhole && (hasOwn || hasOther);
}

bool takeAddress(Links& links, unsigned int type, Bytes content) {
  ifaddrmsg body{};
  if (!cut(content, body)) return false;
  if (body.ifa_family != AF_INET && body.ifa_family != AF_INET6) return true;
  Address address;
  if (!readAddress(address, body, content)) return false;
  const auto link = links.find(body.ifa_index);
  if (link == links.end()) return true;  // news of the interface itself are on their way
  if (type == RTM_NEWADDR) link->second.addresses.insert(address);
  else link->second.addresses.erase(address);
  return true;
}

bool takeMessage(Links& links, LinkNews& news, const nlmsghdr& head, Bytes content) {
  if ((head.nlmsg_flags & NLM_F_DUMP_INTR) != 0) news.wasInterrupted = true;
  switch (head.nlmsg_type) {
    case NLMSG_DONE: news.isEnd = true; return true;
    case NLMSG_ERROR: news.isError = true; return true;
    case RTM_NEWLINK:
    case RTM_DELLINK: return takeLink(links, head.nlmsg_type, content);
    case RTM_NEWADDR:
    case RTM_DELADDR: return takeAddress(links, head.nlmsg_type, content);
    default: return true;
  }
}

}  // namespace

LinkNews takeLinkMessages(Links& links, Bytes bytes) {
  LinkNews news;
  while (!bytes.empty()) {
    nlmsghdr head{};
    Bytes rest = bytes;
    if (!cut(rest, head) || head.nlmsg_len < sizeof head || head.nlmsg_len > bytes.size()) break;  // M1
    if (!takeMessage(links, news, head, rest.first(head.nlmsg_len - sizeof head))) break;
    bytes = behind(bytes, head.nlmsg_len);
  }
  return news;
}

// Reading interfaces over rtnetlink.
//
// Two questions, each answered by a "dump": a run of netlink messages up to NLMSG_DONE.  The first
// lists the interfaces with their counters, the second all IPv6 addresses, each of which names the
// interface that it belongs to.  A message is a fixed body followed by attributes.

#include "links.h"

#include <linux/if_link.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace {
using Links = std::map<unsigned int, Link>;
using Visit = void (*)(Links&, const nlmsghdr&);

constexpr std::size_t kReplyBytes = 32768;  // the kernel never fills more at once

// A netlink socket that is closed again.
class RouteSocket {
 public:
  RouteSocket() : fd_(::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE)) {}
  ~RouteSocket() {
    if (fd_ >= 0) ::close(fd_);
  }
  RouteSocket(const RouteSocket&) = delete;
  RouteSocket& operator=(const RouteSocket&) = delete;

  int fd() const { return fd_; }

 private:
  int fd_;
};

bool askForAll(int fd, unsigned short type, unsigned char family) {
  struct {
    nlmsghdr head;
    rtgenmsg body;
  } request{};
  request.head.nlmsg_len = NLMSG_LENGTH(sizeof request.body);
  request.head.nlmsg_type = type;
  request.head.nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
  request.body.rtgen_family = family;
  return ::send(fd, &request, request.head.nlmsg_len, 0) == static_cast<ssize_t>(request.head.nlmsg_len);
}

// Shows `visit` every message of the answer; false when it breaks off before its end.
bool readAnswer(int fd, Links& links, Visit visit) {
  alignas(nlmsghdr) unsigned char buffer[kReplyBytes];
  for (;;) {
    ssize_t got;
    do got = ::recv(fd, buffer, sizeof buffer, 0);
    while (got < 0 && errno == EINTR);
    if (got <= 0) return false;
    auto left = static_cast<unsigned int>(got);
    for (auto* m = reinterpret_cast<nlmsghdr*>(buffer); NLMSG_OK(m, left); m = NLMSG_NEXT(m, left)) {
      if (m->nlmsg_type == NLMSG_DONE) return true;
      if (m->nlmsg_type == NLMSG_ERROR) return false;
      visit(links, *m);
    }
  }
}

bool dump(int fd, unsigned short type, unsigned char family, Links& links, Visit visit) {
  return askForAll(fd, type, family) && readAnswer(fd, links, visit);
}

// Calls `take(attribute type, bytes, length)` for each attribute that follows a body of this size.
template <class Take>
void forEachAttribute(const nlmsghdr& m, std::size_t bodyBytes, Take take) {
  if (m.nlmsg_len < NLMSG_LENGTH(bodyBytes)) return;
  auto left = static_cast<unsigned int>(m.nlmsg_len - NLMSG_SPACE(bodyBytes));
  const char* body = static_cast<const char*>(NLMSG_DATA(&m));
  const auto* a = reinterpret_cast<const rtattr*>(body + NLMSG_ALIGN(bodyBytes));
  for (; RTA_OK(a, left); a = RTA_NEXT(a, left)) {
    take(a->rta_type, static_cast<const unsigned char*>(RTA_DATA(a)), RTA_PAYLOAD(a));
  }
}

template <class T>
T copyOf(const unsigned char* bytes, std::size_t length) {
  T value{};
  std::memcpy(&value, bytes, std::min(length, sizeof value));
  return value;
}

void takeCounters(Link& link, const rtnl_link_stats64& counters) {
  link.rxBytes = counters.rx_bytes;
  link.txBytes = counters.tx_bytes;
  link.rxPackets = counters.rx_packets;
  link.txPackets = counters.tx_packets;
}

void addLink(Links& links, const nlmsghdr& m) {
  if (m.nlmsg_type != RTM_NEWLINK) return;
  const auto& body = *static_cast<const ifinfomsg*>(NLMSG_DATA(&m));
  Link& link = links[static_cast<unsigned int>(body.ifi_index)];
  link.up = (body.ifi_flags & IFF_UP) != 0;
  forEachAttribute(
      m, sizeof body, [&link](unsigned int type, const unsigned char* bytes, std::size_t length) {
        if (type == IFLA_IFNAME)
          link.name.assign(bytes, bytes + ::strnlen(reinterpret_cast<const char*>(bytes), length));
        if (type == IFLA_ADDRESS) link.hardwareAddress.assign(bytes, bytes + length);
        if (type == IFLA_MTU) link.mtu = copyOf<unsigned int>(bytes, length);
        if (type == IFLA_STATS64) takeCounters(link, copyOf<rtnl_link_stats64>(bytes, length));
      });
}

void addAddress(Links& links, const nlmsghdr& m) {
  if (m.nlmsg_type != RTM_NEWADDR) return;
  const auto& body = *static_cast<const ifaddrmsg*>(NLMSG_DATA(&m));
  const auto link = links.find(body.ifa_index);
  if (link == links.end()) return;  // it came up between the two questions
  kl::IPAddr6 address;
  bool isOwn = false;  // on a point-to-point link IFA_ADDRESS is the other end's and IFA_LOCAL ours
  forEachAttribute(m, sizeof body, [&](unsigned int type, const unsigned char* bytes, std::size_t length) {
    if (type != IFA_LOCAL && (type != IFA_ADDRESS || isOwn)) return;
    address = copyOf<kl::IPAddr6>(bytes, length);
    isOwn = type == IFA_LOCAL;
  });
  link->second.addresses.push_back(address);
}

}  // namespace

Links readLinks() {
  Links links;
  const RouteSocket socket;
  if (!dump(socket.fd(), RTM_GETLINK, AF_UNSPEC, links, addLink)) return {};
  (void)dump(socket.fd(), RTM_GETADDR, AF_INET6, links, addAddress);  // a kernel without IPv6 has none
  return links;
}

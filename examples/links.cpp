// Reading all interfaces over rtnetlink.
//
// Two questions, each answered by a "dump": a run of messages up to NLMSG_DONE.  The first lists the interfaces
// with their counters, the second all addresses, each of which names the interface that it belongs to.

#include "links.h"

#include <linux/rtnetlink.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include "link_messages.h"
#include "route_socket.h"

namespace {

constexpr std::size_t kReplyBytes = 32768;  // the kernel never fills more at once
constexpr int kAttempts = 10;               // at a table that does not change while it is read
constexpr unsigned char kIPv4Prefix[] = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xff, 0xff};

enum class Reading { kDone, kInterrupted, kFailed };

bool askForAll(int fd, unsigned short type) {
  struct {
    nlmsghdr head;
    rtgenmsg body;
  } request{};
  request.head.nlmsg_len = NLMSG_LENGTH(sizeof request.body);
  request.head.nlmsg_type = type;
  request.head.nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
  request.body.rtgen_family = AF_UNSPEC;
  return ::send(fd, &request, request.head.nlmsg_len, 0) == static_cast<ssize_t>(request.head.nlmsg_len);
}

Reading readAnswer(int fd, Links& links) {
  unsigned char buffer[kReplyBytes];
  bool wasInterrupted = false;
  for (;;) {
    ssize_t got;
    do got = ::recv(fd, buffer, sizeof buffer, 0);
    while (got < 0 && errno == EINTR);
    if (got <= 0) return Reading::kFailed;
    const LinkNews news = takeLinkMessages(links, {buffer, static_cast<std::size_t>(got)});
    wasInterrupted = wasInterrupted || news.wasInterrupted;
    if (news.isError) return Reading::kFailed;
    if (news.isEnd) return wasInterrupted ? Reading::kInterrupted : Reading::kDone;
  }
}

Reading dump(int fd, unsigned short type, Links& links) {
  return askForAll(fd, type) ? readAnswer(fd, links) : Reading::kFailed;
}

Reading readOnce(int fd, Links& links) {
  const Reading first = dump(fd, RTM_GETLINK, links);
  const Reading second = first == Reading::kFailed ? first : dump(fd, RTM_GETADDR, links);
  return second == Reading::kDone ? first : second;
}

}  // namespace

bool Address::isIPv4() const { return std::memcmp(own.bytes, kIPv4Prefix, sizeof kIPv4Prefix) == 0; }

bool operator<(const Address& a, const Address& b) {
  static_assert(sizeof(Address) == 2 * sizeof(kl::IPAddr6) + 1, "there is nothing between its members");
  return std::memcmp(&a, &b, sizeof a) < 0;
}

bool Link::looksLike(const Link& other) const {
  return name == other.name && hardwareAddress == other.hardwareAddress && addresses == other.addresses &&
         mtu == other.mtu && up == other.up && running == other.running;
}

std::optional<Links> readLinks(bool* isWhole) {
  std::optional<Links> result;
  Reading reading = Reading::kInterrupted;
  for (int attempt = 0; attempt < kAttempts && reading == Reading::kInterrupted; ++attempt) {
    const RouteSocket socket;  // a new one, on which no old answer waits
    Links links;
    reading = readOnce(socket.fd(), links);
    if (reading != Reading::kFailed) result = std::move(links);
  }
  if (isWhole != nullptr) *isWhole = reading == Reading::kDone;
  return result;
}

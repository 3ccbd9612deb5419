// How the table of interfaces stays current.
//
// The kernel sends each change to a socket that joined its groups.  The messages carry the new state, so they are
// simply taken into the table; comparing it with the one before shows what is different.  When more changes came
// than the socket holds, some are lost and the whole table is read.
//
// W1  the socket listens before the table is first read, so no change falls in between
// W2  the table is read after the socket is empty: nothing older is taken into it afterwards

#include "link_monitor.h"

#include <cerrno>
#include <utility>

#include "link_messages.h"

namespace {

constexpr std::size_t kNewsBytes = 32768;

void join(int fd) {
  sockaddr_nl own{};
  own.nl_family = AF_NETLINK;
  own.nl_groups = RTMGRP_LINK | RTMGRP_IPV4_IFADDR | RTMGRP_IPV6_IFADDR;
  (void)::bind(fd, reinterpret_cast<const sockaddr*>(&own), sizeof own);  // without a socket nothing comes
}

// The interfaces that are not the same in both, as they are in `before`.
Links differences(const Links& before, const Links& now) {
  Links result;
  for (const auto& [index, link] : before) {
    const auto found = now.find(index);
    if (found == now.end() || !found->second.looksLike(link)) result.emplace(index, link);
  }
  for (const auto& [index, link] : now)
    if (!before.contains(index)) result.emplace(index, Link());
  return result;
}

}  // namespace

LinkMonitor::LinkMonitor() : socket_(SOCK_NONBLOCK) {
  join(socket_.fd());  // W1
  (void)takeNews();
}

Links LinkMonitor::takeNews() {
  Links now = links_;
  while (takeOne(now)) {
  }
  if (isStale_) readAnew(now);  // W2
  Links before = differences(links_, now);
  links_.swap(now);
  return before;
}

// Takes one datagram; false when there is none.
bool LinkMonitor::takeOne(Links& links) {
  unsigned char buffer[kNewsBytes];
  sockaddr_nl sender{};
  socklen_t length = sizeof sender;
  const ssize_t got = ::recvfrom(socket_.fd(), buffer, sizeof buffer, MSG_TRUNC,
                                 reinterpret_cast<sockaddr*>(&sender), &length);
  if (got < 0) {
    if (errno == ENOBUFS) isStale_ = true;  // changes were lost
    return errno == ENOBUFS || errno == EINTR;
  }
  if (sender.nl_pid != 0) return true;  // not from the kernel
  const auto bytes = static_cast<std::size_t>(got);
  if (bytes <= sizeof buffer) (void)takeLinkMessages(links, {buffer, bytes});
  else isStale_ = true;  // it was cut off
  return true;
}

void LinkMonitor::readAnew(Links& links) {
  bool isWhole = false;
  auto all = readLinks(&isWhole);
  if (!all) return;
  links.swap(*all);
  isStale_ = !isWhole;
}

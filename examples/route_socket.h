#pragma once
// route_socket.h: a netlink socket to the kernel's routing family, closed again by its destructor.

#include <linux/rtnetlink.h>
#include <sys/socket.h>
#include <unistd.h>

class RouteSocket {
 public:
  explicit RouteSocket(int flags = 0)
      : fd_(::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC | flags, NETLINK_ROUTE)) {}
  ~RouteSocket() {
    if (fd_ >= 0) ::close(fd_);
  }
  RouteSocket(const RouteSocket&) = delete;
  RouteSocket& operator=(const RouteSocket&) = delete;

  // -1 when the kernel gave none; whatever is done with it then fails.
  int fd() const { return fd_; }

 private:
  int fd_;
};

#pragma once
// link_monitor.h: keeps the table of interfaces current from the kernel's notifications.

#include "links.h"
#include "route_socket.h"

// The interfaces of this network namespace.  Watch its descriptor, and take the news when there are any:
//
//     LinkMonitor monitor;
//     addSocket(monitor.fd(), this, kl::bind<Netif, &Netif::onNews>(), POLLIN);
//     ...
//     for (const auto& [index, before] : monitor.takeNews()) notifyChange(index);
//
// Errors:    while the kernel cannot be asked the table stays as it was; while the kernel's changes each time it is
//            read, it is what was seen last.  isStale() says so in both cases.
// Ownership: owns its socket, which never blocks; a resource, so it is not copied.
// Threads:   belongs to one thread.
// Cost:      one system call for each change in the kernel; when more came than the socket holds, the whole table
//            is read anew.
class LinkMonitor {
 public:
  LinkMonitor();

  // Readable when there are news.
  int fd() const { return socket_.fd(); }

  // As of the last takeNews().
  const Links& links() const { return links_; }

  // Takes everything that the kernel has said, and returns each interface that is now there, gone, or another
  // than before, as it was before: one that is new without a name.  Counters make no difference.
  Links takeNews();

  // The table has to be read anew and could not be; takeNews() tries it again.
  bool isStale() const { return isStale_; }

 private:
  bool takeOne(Links& links);
  void readAnew(Links& links);

  RouteSocket socket_;
  Links links_;
  bool isStale_ = true;
};

#pragma once
// log_socket.h: listens where a program finds the log service, and waits for what it logs.

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <string>

#include "kl/utilities.h"

class LogSocket {
 public:
  LogSocket() : listener_(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    (void)kl::logSocketPath().copy(address.sun_path, sizeof address.sun_path - 1);
    isThere_ = ::bind(listener_, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0 &&
               ::listen(listener_, 1) == 0;
  }
  ~LogSocket() {
    ::close(connection_);
    ::close(listener_);
    ::unlink(kl::logSocketPath().c_str());
  }
  LogSocket(const LogSocket&) = delete;
  LogSocket& operator=(const LogSocket&) = delete;

  // Waits for a line with this text; false when 20 s pass without one more byte.
  bool gets(const std::string& text) {
    while (received_.find(text) == std::string::npos)
      if (!receiveMore()) return false;
    return true;
  }

 private:
  static bool isReadable(int fd) {
    pollfd entry{fd, POLLIN, 0};
    return ::poll(&entry, 1, 20000) > 0;
  }

  bool receiveMore() {
    if (connection_ < 0 && isThere_ && isReadable(listener_))
      connection_ = ::accept(listener_, nullptr, nullptr);
    if (connection_ < 0 || !isReadable(connection_)) return false;
    char bytes[4096];
    const ssize_t count = ::read(connection_, bytes, sizeof bytes);
    if (count > 0) received_.append(bytes, static_cast<std::size_t>(count));
    return count > 0;
  }

  int listener_;
  int connection_ = -1;
  bool isThere_ = false;
  std::string received_;
};

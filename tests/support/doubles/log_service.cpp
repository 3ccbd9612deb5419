#include "tests/support/doubles/log_service.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "kl/utilities.h"
#include "tests/support/hex.h"

namespace kl::test {
namespace {

bool isReadable(int fd) {
  constexpr int kPatienceMs = 20000;
  pollfd entry{fd, POLLIN, 0};
  return ::poll(&entry, 1, kPatienceMs) > 0;
}

}  // namespace

LogService::LogService(int backlog) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  const std::string path = logSocketPath();
  std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
  ::unlink(path.c_str());
  listener_ = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  if (::bind(listener_, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0 &&
      ::listen(listener_, backlog) == 0)
    return;
  std::perror(path.c_str());
  std::abort();
}

LogService::~LogService() {
  hangUp();
  ::close(listener_);
  ::unlink(logSocketPath().c_str());
}

bool LogService::accept() {
  hangUp();
  connection_ = ::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
  return connection_ >= 0;
}

bool LogService::acceptNewest() {
  const bool found = accept();
  for (int newer; (newer = ::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK)) >= 0;) {
    hangUp();
    connection_ = newer;
  }
  return found;
}

std::vector<unsigned char> LogService::receive() {
  std::vector<unsigned char> all;
  std::vector<unsigned char> some(1 << 16);
  for (ssize_t count; (count = ::recv(connection_, some.data(), some.size(), 0)) > 0;)
    all.insert(all.end(), some.begin(), some.begin() + count);
  return all;
}

std::string LogService::received() { return hex(receive()); }

bool LogService::awaits(const std::string& text) {
  if (connection_ < 0 && (!isReadable(listener_) || !accept())) return false;
  while (awaited_.find(text) == std::string::npos) {
    if (!isReadable(connection_)) return false;
    const std::vector<unsigned char> more = receive();
    if (more.empty()) return false;
    awaited_.append(more.begin(), more.end());
  }
  return true;
}

bool LogService::isLeft() {
  unsigned char byte = 0;
  return ::recv(connection_, &byte, 1, 0) == 0;
}

void LogService::send(const std::string& digits) {
  const std::vector<unsigned char> record = bytes(digits);
  if (::send(connection_, record.data(), record.size(), MSG_NOSIGNAL) !=
      static_cast<ssize_t>(record.size())) {
    std::perror("send");
    std::abort();
  }
}

void LogService::hangUp() {
  if (connection_ >= 0) ::close(connection_);
  connection_ = -1;
}

}  // namespace kl::test

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

constexpr int kPatienceMs = 20000;

std::vector<unsigned char> receivedFrom(int fd) {
  std::vector<unsigned char> all;
  std::vector<unsigned char> some(1 << 16);
  for (ssize_t count; (count = ::recv(fd, some.data(), some.size(), 0)) > 0;)
    all.insert(all.end(), some.begin(), some.begin() + count);
  return all;
}

bool hasEnded(int fd) {
  unsigned char byte = 0;
  return ::recv(fd, &byte, 1, MSG_PEEK) == 0;
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

bool LogService::acceptNext() {
  const int fd = ::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
  if (fd >= 0) connections_.push_back({fd, {}});
  return fd >= 0;
}

bool LogService::accept() {
  hangUp();
  return acceptNext();
}

bool LogService::acceptNewest() {
  const bool found = accept();
  while (acceptNext()) {
    ::close(connections_.front().fd);
    connections_.erase(connections_.begin());
  }
  return found;
}

std::vector<unsigned char> LogService::receive() { return receivedFrom(connection()); }

std::string LogService::received() { return hex(receive()); }

bool LogService::awaits(const std::string& text) {
  const auto hasCome = [&](const Connection& one) { return one.awaited.find(text) != std::string::npos; };
  while (std::none_of(connections_.begin(), connections_.end(), hasCome)) {
    if (!awaitSomething()) return false;
    while (acceptNext()) {
    }
    for (Connection& one : connections_) read(one);
  }
  return true;
}

bool LogService::awaitSomething() const {
  std::vector<pollfd> entries{{listener_, POLLIN, 0}};
  for (const Connection& one : connections_) entries.push_back({one.fd, POLLIN, 0});
  return ::poll(entries.data(), entries.size(), kPatienceMs) > 0;
}

void LogService::read(Connection& connection) {
  const std::vector<unsigned char> more = receivedFrom(connection.fd);
  connection.awaited.append(more.begin(), more.end());
  if (!hasEnded(connection.fd)) return;
  ::close(connection.fd);
  connection.fd = -1;
}

bool LogService::isLeft() { return hasEnded(connection()); }

void LogService::send(const std::string& digits) {
  const std::vector<unsigned char> record = bytes(digits);
  if (::send(connection(), record.data(), record.size(), MSG_NOSIGNAL) !=
      static_cast<ssize_t>(record.size())) {
    std::perror("send");
    std::abort();
  }
}

void LogService::hangUp() {
  for (const Connection& one : connections_)
    if (one.fd >= 0) ::close(one.fd);
  connections_.clear();
}

}  // namespace kl::test

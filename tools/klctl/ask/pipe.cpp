// A byte string travels as its length, four bytes in the host's order, and itself.

#include "ask/pipe.h"

#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <limits>

namespace klctl {
namespace {
using std::chrono::milliseconds;
using std::chrono::steady_clock;

bool sendAll(int fd, const unsigned char* bytes, std::size_t count) {
  while (count > 0) {
    const ssize_t sent = ::send(fd, bytes, count, MSG_NOSIGNAL);
    if (sent < 0 && errno == EINTR) continue;
    if (sent <= 0) return false;
    bytes += sent;
    count -= static_cast<std::size_t>(sent);
  }
  return true;
}

// Milliseconds until the deadline as poll takes them, rounded up.
int remaining(const Deadline& deadline) {
  if (!deadline) return -1;
  const auto left = std::chrono::ceil<milliseconds>(*deadline - steady_clock::now()).count();
  return static_cast<int>(std::clamp<long long>(left, 0, std::numeric_limits<int>::max()));
}

Received receiveAll(int fd, unsigned char* bytes, std::size_t count, const Deadline& deadline) {
  while (count > 0) {
    pollfd watched{fd, POLLIN, 0};
    if (!waitReadable(&watched, 1, deadline)) return Received::kLate;
    const ssize_t got = ::recv(fd, bytes, count, 0);
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) return Received::kEnded;
    bytes += got;
    count -= static_cast<std::size_t>(got);
  }
  return Received::kWhole;
}

}  // namespace

bool waitReadable(pollfd* watched, nfds_t count, const Deadline& deadline) {
  int ready;
  do ready = ::poll(watched, count, remaining(deadline));
  while (ready < 0 && errno == EINTR);
  return ready > 0;
}

bool sendBytes(int fd, const Bytes& bytes) {
  const auto length = static_cast<std::uint32_t>(bytes.size());
  unsigned char head[sizeof length];
  std::memcpy(head, &length, sizeof length);
  return sendAll(fd, head, sizeof head) && sendAll(fd, bytes.data(), bytes.size());
}

Received receiveBytes(int fd, Bytes& bytes, const Deadline& deadline) {
  std::uint32_t length = 0;
  unsigned char head[sizeof length];
  const Received received = receiveAll(fd, head, sizeof head, deadline);
  if (received != Received::kWhole) return received;
  std::memcpy(&length, head, sizeof length);
  bytes.assign(length, 0);
  return receiveAll(fd, bytes.data(), length, deadline);
}

}  // namespace klctl

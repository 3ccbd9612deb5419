#include "tests/support/doubles/raw_peer.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <utility>

#include "kl/conventions.h"
#include "kl/records.h"
#include "kl/services.h"
#include "kl/utilities.h"

namespace kl::test {
namespace {

using Clock = std::chrono::steady_clock;

class Deadline {
 public:
  explicit Deadline(int ms) : end_(Clock::now() + std::chrono::milliseconds(ms)) {}
  int leftMs() const {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end_ - Clock::now()).count();
    return left > 0 ? static_cast<int>(left) : 0;
  }

 private:
  Clock::time_point end_;
};

int connectOnce(const std::string& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::memcpy(address.sun_path, path.c_str(), path.size());
  const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0) return fd;
  ::close(fd);
  return -1;
}

}  // namespace

RawPeer::RawPeer(RawPeer&& other) noexcept
    : fd_(std::exchange(other.fd_, -1)), in_(std::move(other.in_)), ready_(other.ready_) {}

RawPeer& RawPeer::operator=(RawPeer&& other) noexcept {
  std::swap(fd_, other.fd_);
  in_.swap(other.in_);
  ready_.swap(other.ready_);
  return *this;
}

RawPeer RawPeer::registered(unsigned int id) {
  RawPeer peer;
  EXPECT_TRUE(peer.connect());
  const unsigned int given = peer.registerAs(id);
  EXPECT_TRUE(id == 0 ? given != 0 : given == id) << "asked for " << id << ", got " << given;
  return peer;
}

bool RawPeer::connect(int deadlineMs) {
  const Deadline deadline(deadlineMs);
  while ((fd_ = connectOnce(loaderSocketPath())) < 0 && deadline.leftMs() > 0) ::usleep(2000);
  return fd_ >= 0;
}

void RawPeer::close() {
  if (fd_ >= 0) ::close(fd_);
  fd_ = -1;
}

void RawPeer::halfClose() { ::shutdown(fd_, SHUT_WR); }

bool RawPeer::sendBytes(std::span<const unsigned char> bytes) {
  const Deadline deadline(kDeadlineMs);
  while (!bytes.empty()) {
    const ssize_t n = ::send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    if (n > 0) bytes = bytes.subspan(static_cast<std::size_t>(n));
    else if (errno != EAGAIN || !waitFor(POLLOUT, deadline.leftMs())) return false;
  }
  return true;
}

bool RawPeer::sendBody(std::span<const unsigned char> body) { return sendBytes(framed(body)); }

bool RawPeer::send(const message& m) { return sendBytes(frameOf(m)); }

std::optional<std::vector<unsigned char>> RawPeer::receiveBody(int deadlineMs) {
  const Deadline deadline(deadlineMs);
  while (in_.size() < FRAME_PREFIX_BYTES || in_.size() - FRAME_PREFIX_BYTES < readLe32(in_.data()))
    if (!readSome(deadline.leftMs())) return {};
  const auto end = in_.begin() + static_cast<std::ptrdiff_t>(FRAME_PREFIX_BYTES + readLe32(in_.data()));
  std::vector<unsigned char> body(in_.begin() + FRAME_PREFIX_BYTES, end);
  in_.erase(in_.begin(), end);
  return body;
}

std::optional<message> RawPeer::receive(int deadlineMs) {
  const auto body = receiveBody(deadlineMs);
  if (!body) return {};
  return message(*body);
}

std::optional<message> RawPeer::receiveCommand(unsigned int command, int deadlineMs) {
  const Deadline deadline(deadlineMs);
  while (const auto m = receive(deadline.leftMs()))
    if (m->get(SYS_CMD, CMD_NOOP) == command && !isReply(*m)) return m;
  return {};
}

std::optional<message> RawPeer::receiveReply(unsigned int requestId, int deadlineMs) {
  const Deadline deadline(deadlineMs);
  while (const auto m = receive(deadline.leftMs())) {
    unsigned int id = 0;
    if (isReply(*m) && getRequestID(*m, &id) && id == requestId) return m;
  }
  return {};
}

bool RawPeer::isDisconnected(int deadlineMs) {
  const Deadline deadline(deadlineMs);
  while (waitFor(POLLIN, deadline.leftMs())) {
    unsigned char bytes[4096];
    const ssize_t n = ::read(fd_, bytes, sizeof bytes);
    if (n == 0 || (n < 0 && errno != EAGAIN)) return true;
  }
  return false;
}

bool RawPeer::isQuiet(int forMs) { return in_.empty() && !waitFor(POLLIN, forMs); }

unsigned int RawPeer::registerAs(unsigned int id) {
  if (!send(hello(id))) return 0;
  const auto answer = receive();
  if (!answer || answer->get(SYS_CTRL, 0) != CTRL_READY) return 0;
  ready_ = *answer;
  return ready_.get(READY_ID, 0);
}

bool RawPeer::meet(unsigned int id, RawPeer& other) {
  message m = notification({id});
  m.insert(SYS_CMD, CMD_NOOP);
  return send(m) && other.receiveCommand(CMD_NOOP);
}

bool RawPeer::waitFor(short events, int deadlineMs) const {
  pollfd entry{fd_, events, 0};
  return ::poll(&entry, 1, deadlineMs) == 1;
}

bool RawPeer::readSome(int deadlineMs) {
  if (!waitFor(POLLIN, deadlineMs)) return false;
  unsigned char bytes[65536];
  const ssize_t n = ::read(fd_, bytes, sizeof bytes);
  if (n <= 0) return false;
  in_.insert(in_.end(), bytes, bytes + n);
  return true;
}

}  // namespace kl::test

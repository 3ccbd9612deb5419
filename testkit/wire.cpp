// The socket pair of a bus and its service.
//
// A Looper takes descriptor 3 where that is a local socket.  A program opens files whenever it likes, and the first free
// number may be 3; so a descriptor that stands for nothing keeps the place from the start of the program on, and what the
// program inherited there is put aside while a bus lives.

#include "testkit/wire.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <utility>

#include "kl/conventions.h"
#include "kl/records.h"
#include "testkit/failures.h"

namespace kl::test {
namespace {

constexpr unsigned int kMostCut = 40;  // of a piece by chance

unsigned long long inodeOf(int fd) {
  struct stat status {};
  return ::fstat(fd, &status) == 0 ? static_cast<unsigned long long>(status.st_ino) : 0;
}

// Before any static object of the program is made.
[[gnu::constructor(101)]] void keepThePlace() {
  if (::fcntl(CONNECTION_DESCRIPTOR, F_GETFD) >= 0) return;
  const int fd = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
  if (fd >= 0 && fd != CONNECTION_DESCRIPTOR) ::close(fd);
}

}  // namespace

void Wire::open() {
  close();
  displaced_ = ::fcntl(CONNECTION_DESCRIPTOR, F_DUPFD_CLOEXEC, kAside);
  std::array<int, 2> ends{-1, -1};
  if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()) != 0)
    return report("cannot make a socket pair");
  fd_ = ::fcntl(ends[0], F_DUPFD_CLOEXEC, kAside);
  const int service = ::fcntl(ends[1], F_DUPFD_CLOEXEC, kAside);
  for (const int end : ends) ::close(end);
  (void)::dup3(service, CONNECTION_DESCRIPTOR, O_CLOEXEC);
  ::close(service);
  (void)::fcntl(fd_, F_SETFL, O_NONBLOCK);
  inode_ = inodeOf(CONNECTION_DESCRIPTOR);
}

void Wire::close() {
  hangUp();
  in_.clear();
  pieces_.clear();
  if (inode_ == 0) return;
  if (inodeOf(CONNECTION_DESCRIPTOR) == std::exchange(inode_, 0)) ::close(CONNECTION_DESCRIPTOR);
  if (displaced_ < 0) return;
  if (::fcntl(CONNECTION_DESCRIPTOR, F_GETFD) < 0)
    (void)::dup3(displaced_, CONNECTION_DESCRIPTOR, O_CLOEXEC);  // W2
  ::close(std::exchange(displaced_, -1));
}

// For the copies of a forked process as well.
void Wire::hangUp() {
  if (fd_ < 0) return;
  (void)::shutdown(fd_, SHUT_RDWR);
  ::close(std::exchange(fd_, -1));
}

Wire::Outcome Wire::read(const std::function<void(std::span<const unsigned char>)>& onFrame) {
  if (!isOpen()) return Outcome::kNothing;
  std::array<unsigned char, 65536> bytes;
  const ssize_t got = ::recv(fd_, bytes.data(), bytes.size(), MSG_DONTWAIT);
  if (got < 0) return errno == ECONNRESET ? Outcome::kEnd : Outcome::kNothing;
  if (got == 0) return Outcome::kEnd;
  in_.insert(in_.end(), bytes.begin(), bytes.begin() + got);
  std::size_t done = 0;
  while (in_.size() - done >= FRAME_PREFIX_BYTES) {
    const std::size_t length = readLe32(&in_[done]);
    if (length > FRAME_MOST_BYTES) return Outcome::kTooLong;
    if (in_.size() - done - FRAME_PREFIX_BYTES < length) break;
    const auto body = std::span(in_).subspan(done + FRAME_PREFIX_BYTES, length);
    done += FRAME_PREFIX_BYTES + length;
    onFrame(body);
  }
  in_.erase(in_.begin(), in_.begin() + static_cast<std::ptrdiff_t>(done));
  return Outcome::kBytes;
}

void Wire::send(std::span<const unsigned char> bytes, Moment now) {
  if (bytes.empty() || !isOpen()) return;
  const unsigned int more = mostTicks_ == 0 ? 0 : chanceBelow(mostTicks_ + 1);
  const Moment last = pieces_.empty() ? 0 : pieces_.back().due;
  pieces_.push_back({std::max(now + delay_ + more, last), {bytes.begin(), bytes.end()}});  // W1
}

void Wire::write(Moment now) {
  while (isOpen() && isDue(now)) {
    Piece& piece = pieces_.front();
    const std::size_t written = writeSome(piece);
    if (piece.done == piece.bytes.size()) pieces_.pop_front();
    if (written == 0 || cut_ != 0 || mostTicks_ != 0) return;
  }
}

std::optional<Moment> Wire::nextDue() const {
  if (pieces_.empty()) return {};
  return pieces_.front().due;
}

void Wire::disturb(unsigned int mostTicks, unsigned int seed) {
  mostTicks_ = mostTicks;
  chance_.seed(seed);
}

void Wire::shrinkBuffers() const {
  const int size = 1;  // the kernel takes its smallest
  for (const int fd : {fd_, CONNECTION_DESCRIPTOR}) {
    (void)::setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &size, sizeof size);
    (void)::setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &size, sizeof size);
  }
}

std::size_t Wire::most() {
  if (cut_ != 0) return cut_;
  return mostTicks_ != 0 ? 1 + chanceBelow(kMostCut) : FRAME_MOST_BYTES;
}

// A service that is gone takes nothing.
std::size_t Wire::writeSome(Piece& piece) {
  const std::size_t count = std::min(most(), piece.bytes.size() - piece.done);
  const ssize_t sent = ::send(fd_, piece.bytes.data() + piece.done, count, MSG_NOSIGNAL | MSG_DONTWAIT);
  if (sent < 0 && errno != EAGAIN && errno != EINTR) piece.done = piece.bytes.size();
  if (sent <= 0) return 0;
  piece.done += static_cast<std::size_t>(sent);
  return static_cast<std::size_t>(sent);
}

}  // namespace kl::test

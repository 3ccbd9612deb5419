#include "tests/support/doubles/loader_double.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "kl/conventions.h"
#include "kl/services.h"
#include "kl/utilities.h"

namespace kl::test {
namespace {

constexpr timeval kPatience{10, 0};

unsigned long long inodeOf(int fd) {
  struct stat status {};
  return ::fstat(fd, &status) == 0 ? status.st_ino : 0;
}

void require(bool ok, const char* what) {
  if (ok) return;
  std::perror(what);
  std::abort();
}

// Reads exactly so many bytes; false when they do not come.
bool readAll(int fd, unsigned char* bytes, std::size_t count) {
  while (count > 0) {
    const ssize_t got = ::recv(fd, bytes, count, 0);
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) return false;
    bytes += got;
    count -= static_cast<std::size_t>(got);
  }
  return true;
}

}  // namespace

LoaderDouble::LoaderDouble() {
  std::array<int, 2> ends{};
  require(::socketpair(AF_UNIX, SOCK_STREAM, 0, ends.data()) == 0, "socketpair");
  if (ends[0] == CONNECTION_DESCRIPTOR) std::swap(ends[0], ends[1]);
  if (ends[1] != CONNECTION_DESCRIPTOR) {
    require(::dup2(ends[1], CONNECTION_DESCRIPTOR) == CONNECTION_DESCRIPTOR, "dup2");
    ::close(ends[1]);
  }
  fd_ = ends[0];
  inherited_ = inodeOf(CONNECTION_DESCRIPTOR);
  require(::setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &kPatience, sizeof kPatience) == 0, "SO_RCVTIMEO");
}

LoaderDouble::~LoaderDouble() {
  close();
  if (inherited_ != 0 && inodeOf(CONNECTION_DESCRIPTOR) == inherited_) ::close(CONNECTION_DESCRIPTOR);
}

void LoaderDouble::sendBytes(const std::vector<unsigned char>& bytes) {
  std::size_t done = 0;
  while (done < bytes.size()) {
    const ssize_t sent = ::send(fd_, bytes.data() + done, bytes.size() - done, MSG_NOSIGNAL);
    if (sent < 0 && errno == EINTR) continue;
    ASSERT_GT(sent, 0) << std::strerror(errno);
    done += static_cast<std::size_t>(sent);
  }
}

void LoaderDouble::send(const message& m) { sendBytes(frameOf(m)); }

void LoaderDouble::sendReady(message m) {
  m.insert(SYS_TO, {SERVICE_LOADER});
  m.insert(SYS_CTRL, CTRL_READY);
  send(m);
}

std::vector<unsigned char> LoaderDouble::receiveFrame() {
  std::vector<unsigned char> frame(4);
  if (!readAll(fd_, frame.data(), 4)) {
    ADD_FAILURE() << "no frame came";
    return frame;
  }
  const std::size_t length = frame[0] | static_cast<std::size_t>(frame[1]) << 8 |
                             static_cast<std::size_t>(frame[2]) << 16 |
                             static_cast<std::size_t>(frame[3]) << 24;
  frame.resize(4 + length);
  EXPECT_TRUE(readAll(fd_, frame.data() + 4, length)) << "the frame is cut off";
  return frame;
}

message LoaderDouble::receive() {
  const std::vector<unsigned char> frame = receiveFrame();
  return {frame.data() + 4, static_cast<unsigned int>(frame.size() - 4)};
}

bool LoaderDouble::isSilent() const {
  unsigned char byte = 0;
  return ::recv(fd_, &byte, 1, MSG_PEEK | MSG_DONTWAIT) < 0 && errno == EAGAIN;
}

void LoaderDouble::shrinkBuffers() {
  const int size = 1;  // the kernel takes its smallest
  for (const int fd : {fd_, CONNECTION_DESCRIPTOR}) {
    (void)::setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &size, sizeof size);
    (void)::setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &size, sizeof size);
  }
}

void LoaderDouble::close() {
  if (fd_ >= 0) ::shutdown(fd_, SHUT_RDWR);  // for whoever has a copy of it after a fork, too
  if (fd_ >= 0) ::close(fd_);
  fd_ = -1;
}

// Its descriptor keeps clear of 3, which is not its own.
ListeningLoader::ListeningLoader() {
  const int fd = ::socket(AF_UNIX, SOCK_STREAM, 0);
  fd_ = ::fcntl(fd, F_DUPFD_CLOEXEC, CONNECTION_DESCRIPTOR + 1);
  ::close(fd);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  loaderSocketPath().copy(address.sun_path, sizeof address.sun_path - 1);
  require(::bind(fd_, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0,
          "bind the loader's socket");
  require(::listen(fd_, 8) == 0, "listen");
}

ListeningLoader::~ListeningLoader() {
  ::close(fd_);
  ::unlink(loaderSocketPath().c_str());
}

int ListeningLoader::accept() {
  const int fd = ::accept4(fd_, nullptr, nullptr, SOCK_CLOEXEC);
  require(fd >= 0, "accept");
  return fd;
}

}  // namespace kl::test

// How a process comes by its connection to the loader.
//
// A service that the loader started has the connection as descriptor 3.  Everybody else connects to
// the loader's socket.  Which of the two is tried is the mode's choice; neither is not an option.

#include "looper/connection.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>

#include "base/report.h"
#include "fixed_paths.h"
#include "kl/looper.h"

namespace kl {
namespace {

constexpr int kInheritedSocket = 3;

bool isLocalSocket(int fd) {
  sockaddr_storage address{};
  socklen_t length = sizeof address;
  return ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) == 0 &&
         address.ss_family == AF_UNIX;
}

bool connectTo(int fd, const char* path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::strncpy(address.sun_path, path, sizeof address.sun_path - 1);
  while (::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
    if (errno != EINTR) return false;
  return true;
}

std::string withErrno(const char* text) {
  return std::string(text) + " (errno=" + std::to_string(errno) + ")";
}

int connectToLoader() {
  const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) endProcess(withErrno("socket failed"));
  if (connectTo(fd, paths::kLoaderSocket)) return fd;
  const std::string line = withErrno("connect failed");
  ::close(fd);
  endProcess(line);
}

int inheritOrConnect(unsigned int mode) {
  if (mode != Looper::kConnect && isLocalSocket(kInheritedSocket)) return kInheritedSocket;
  if (mode == Looper::kInherited) endProcess("LOOPER: didn't get connection to loader");
  return connectToLoader();
}

}  // namespace

int openLoaderSocket(unsigned int mode) {
  const int fd = inheritOrConnect(mode);
  (void)::fcntl(fd, F_SETFD, FD_CLOEXEC);
  if (::fcntl(fd, F_SETFL, O_NONBLOCK) != 0) reportLine(std::string("fcntl: ") + std::strerror(errno));
  return fd;
}

}  // namespace kl

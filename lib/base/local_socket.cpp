// Connections to the services of this machine, which listen at a path.

#include "base/local_socket.h"

#include <sys/socket.h>
#include <sys/un.h>

#include <cerrno>
#include <cstring>

namespace kl {

int openLocalSocket() { return ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0); }

bool connectLocalSocket(int fd, const char* path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  const std::size_t length = std::strlen(path);
  if (length >= sizeof address.sun_path) {
    errno = ENAMETOOLONG;
    return false;
  }
  std::memcpy(address.sun_path, path, length);
  while (::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
    if (errno != EINTR) return false;
  return true;
}

}  // namespace kl

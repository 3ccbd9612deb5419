// How a process comes by its connection to the loader.
//
// A service that the loader started has the connection as descriptor 3.  Any other program connects to the loader's
// socket.  The mode decides which of the two is tried; a process without a connection ends.

#include "looper/connection.h"

#include <fcntl.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>
#include <string>

#include "base/descriptor.h"
#include "base/local_socket.h"
#include "base/report.h"
#include "kl/conventions.h"
#include "kl/looper.h"
#include "kl/utilities.h"

namespace kl {
namespace {

bool isLocalSocket(int fd) {
  sockaddr_storage address{};
  socklen_t length = sizeof address;
  return ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) == 0 &&
         address.ss_family == AF_UNIX;
}

std::string withErrno(const char* text) { return std::string(text) + " (errno=" + decimal(errno) + ")"; }

int connectToLoader() {
  Descriptor fd(openLocalSocket());
  if (!fd) endProcess(withErrno("socket failed"));
  const std::string path = loaderSocketPath();
  if (!connectLocalSocket(fd.fd(), path.c_str())) endProcess(withErrno("connect failed"));
  return fd.release();
}

int inheritOrConnect(unsigned int mode) {
  if (mode != Looper::kConnect && isLocalSocket(CONNECTION_DESCRIPTOR)) return CONNECTION_DESCRIPTOR;
  if (mode == Looper::kInherited) endProcess("LOOPER: didn't get connection to loader");
  return connectToLoader();
}

}  // namespace

int openLoaderSocket(unsigned int mode) {
  const int fd = inheritOrConnect(mode);
  (void)::fcntl(fd, F_SETFD, FD_CLOEXEC);
  if (::fcntl(fd, F_SETFL, O_NONBLOCK) != 0) printErrorLine(std::string("fcntl: ") + std::strerror(errno));
  return fd;
}

}  // namespace kl

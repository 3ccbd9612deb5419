// A socket that listens comes to its place by rename(): bound beside it, given its group and its mode, made to listen, and only
// then moved over what stands there.  A client that connects finds the old socket or the new one, and never one that
// is not ready.

#include "services/common/local_socket.h"

#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

namespace common {
namespace {

constexpr int kFlags = SOCK_CLOEXEC | SOCK_NONBLOCK;

const sockaddr* generic(const sockaddr_un& address) { return reinterpret_cast<const sockaddr*>(&address); }

// A killed process leaves its socket, for a moment, to a child that has not come to its own program yet.  At the end
// that connects the kernel reports who made the socket listen; whom it cannot see it calls 0.
bool hasEnded(pid_t listener) { return listener > 0 && ::kill(listener, 0) != 0 && errno == ESRCH; }

// A process that is stopped takes no connections: once its backlog is full a connect that waits would wait for it.
bool somebodyListens(const std::string& path) {
  const Descriptor probe = newStreamSocket();
  if (!connectTo(probe.get(), path)) return errno == EAGAIN;
  return !hasEnded(peerOf(probe.get()).pid);
}

bool admit(const char* path, const SocketAccess& access) {
  const bool hasGroup =
      access.group == SocketAccess::kOwnGroup || ::chown(path, static_cast<uid_t>(-1), access.group) == 0;
  return hasGroup && ::chmod(path, access.mode) == 0;
}

bool listenAt(int fd, const sockaddr_un& address, int backlog, const SocketAccess& access) {
  (void)::unlink(address.sun_path);
  return ::bind(fd, generic(address), sizeof address) == 0 && admit(address.sun_path, access) &&
         ::listen(fd, backlog) == 0;
}

}  // namespace

bool fillAddress(const std::string& path, sockaddr_un& address) {
  address = {};
  address.sun_family = AF_UNIX;
  if (path.size() >= sizeof address.sun_path) return false;
  std::memcpy(address.sun_path, path.c_str(), path.size());
  return true;
}

Descriptor newStreamSocket() { return Descriptor(::socket(AF_UNIX, SOCK_STREAM | kFlags, 0)); }

bool connectTo(int fd, const std::string& path) {
  sockaddr_un address;
  if (fillAddress(path, address)) return ::connect(fd, generic(address), sizeof address) == 0;
  errno = ENAMETOOLONG;
  return false;
}

Peer peerOf(int fd) {
  ucred who{};
  socklen_t size = sizeof who;
  if (::getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &who, &size) != 0) return {};
  return {who.pid, who.uid};
}

std::string ListeningSocket::open(const std::string& path, int backlog, const std::string& owner,
                                  const SocketAccess& access) {
  sockaddr_un fresh;
  if (!fillAddress(path + ".new", fresh)) return path + ": too long for a socket";
  if (somebodyListens(path)) return path + ": " + owner + " is running already";
  Descriptor socket = newStreamSocket();
  if (!socket.isOpen() || !listenAt(socket.get(), fresh, backlog, access) ||
      std::rename(fresh.sun_path, path.c_str()) != 0) {
    const std::string reason = std::strerror(errno);
    (void)::unlink(fresh.sun_path);
    return path + ": " + reason;
  }
  socket_ = std::move(socket);
  path_ = path;
  return {};
}

void ListeningSocket::close() {
  if (!socket_.isOpen()) return;
  socket_.close();
  (void)::unlink(path_.c_str());
}

Descriptor ListeningSocket::accept() const {
  return Descriptor(::accept4(socket_.get(), nullptr, nullptr, kFlags));
}

}  // namespace common

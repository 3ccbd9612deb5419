#include "intake/listener.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>

#include "kl/utilities.h"

namespace logd {
namespace {

constexpr int kBacklog = 1024;  // processes that come before the loader has let the log service in wait here
constexpr mode_t kSocketMode = 0666;

std::string failure(const std::string& what) { return what + ": " + std::strerror(errno); }

bool fillAddress(const std::string& path, sockaddr_un& address) {
  address = {};
  address.sun_family = AF_UNIX;
  if (path.size() >= sizeof address.sun_path) return false;
  std::memcpy(address.sun_path, path.c_str(), path.size());
  return true;
}

bool somebodyListens(const std::string& path) {
  sockaddr_un address;
  const Descriptor probe(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  return fillAddress(path, address) &&
         (::connect(probe.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0 ||
          errno == EAGAIN);
}

bool bindTo(int fd, const std::string& path) {
  sockaddr_un address;
  (void)::unlink(path.c_str());
  return fillAddress(path, address) &&
         ::bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
}

}  // namespace

std::string Listener::open() {
  const std::string path = kl::logSocketPath();
  const std::string fresh = path + ".new";
  std::error_code error;
  std::filesystem::create_directories(std::filesystem::path(path).parent_path(), error);
  if (somebodyListens(path)) return path + ": a log service is running already";
  Descriptor socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  if (!socket.isOpen() || !bindTo(socket.get(), fresh) || ::chmod(fresh.c_str(), kSocketMode) != 0 ||
      ::listen(socket.get(), kBacklog) != 0 || std::rename(fresh.c_str(), path.c_str()) != 0)
    return failure(path);
  socket_ = std::move(socket);
  path_ = path;
  return {};
}

void Listener::close() {
  if (!socket_.isOpen()) return;
  socket_.close();
  (void)::unlink(path_.c_str());
}

Descriptor Listener::accept() const {
  return Descriptor(::accept4(socket_.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
}

}  // namespace logd

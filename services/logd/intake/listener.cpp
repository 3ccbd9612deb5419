// Processes may connect before the loader has let the log service in; until it runs they wait, hence the long backlog.

#include "intake/listener.h"

#include <filesystem>

#include "kl/utilities.h"

namespace logd {
namespace {

constexpr int kBacklog = 1024;

}  // namespace

// A folder that cannot be made is found by the socket.
std::string Listener::open() {
  const std::string path = kl::logSocketPath();
  std::error_code ignored;
  std::filesystem::create_directories(std::filesystem::path(path).parent_path(), ignored);
  return ListeningSocket::open(path, kBacklog, "a log service");
}

}  // namespace logd

// Accepting stops while no descriptor is left; a timer, and each connection that is closed, make it try again.

#include "transport/listener.h"

#include <poll.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <filesystem>

#include "kl/utilities.h"

namespace loader {
namespace {

constexpr int kBacklog = 256;
constexpr unsigned int kPauseTicks = 20;

// The folders of the loader's socket, of the first-start markers and of the log service's socket.  The markers are
// made by services of any user, hence the mode of a shared folder.
std::string makeFolders() {
  const std::filesystem::path run = kl::runFolderPath();
  std::error_code error;
  for (const std::filesystem::path& folder :
       {std::filesystem::path(kl::loaderSocketPath()).parent_path(), run,
        std::filesystem::path(kl::logSocketPath()).parent_path()}) {
    const bool isNew = std::filesystem::create_directories(folder, error);
    if (error) return folder.string() + ": cannot be made: " + error.message();
    if (isNew && folder == run) (void)::chmod(run.c_str(), 01777);
  }
  return {};
}

}  // namespace

std::string Listener::open() {
  if (std::string problem = makeFolders(); !problem.empty()) return problem;
  return openAt(kl::loaderSocketPath(), {});
}

std::string Listener::openAt(const std::string& path, const common::SocketAccess& access) {
  if (std::string problem = socket_.open(path, kBacklog, "a loader", access); !problem.empty())
    return problem;
  runner_.addSocket(socket_.fd(), this, kl::bind<Listener, &Listener::onConnect>(), POLLIN);
  return {};
}

void Listener::close() {
  if (!socket_.isOpen()) return;
  resumeTimer_.cancel();
  runner_.removeSocket(socket_.fd());
  socket_.close();
}

void Listener::resume() {
  if (!isPaused_ || !socket_.isOpen()) return;
  isPaused_ = false;
  resumeTimer_.cancel();
  watch();
}

void Listener::pause(int errorNumber) {
  if (!isPauseLogged_) log_.line(std::string("connections have to wait: ") + std::strerror(errorNumber));
  isPaused_ = true;
  isPauseLogged_ = true;
  watch();
  resumeTimer_.start(kPauseTicks);
}

void Listener::watch() { runner_.changeSocket(socket_.fd(), isPaused_ ? 0 : POLLIN); }

void Listener::onConnect(int, unsigned int) {
  for (unsigned int n = 0; n < kMostInAPass && socket_.isOpen() && acceptOne(); ++n) {
  }
}

// True when there may be another one.
bool Listener::acceptOne() {
  Descriptor socket = socket_.accept();
  if (socket.isOpen()) {
    isPauseLogged_ = false;
    const common::Peer peer = common::peerOf(socket.get());
    onConnection_(std::move(socket), peer);
    return true;
  }
  // nothing was pending, or poll will report it again
  const bool passes = errno == EAGAIN || errno == EINTR || errno == ECONNABORTED;
  if (!passes) pause(errno);
  return false;
}

}  // namespace loader

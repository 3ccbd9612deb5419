#include "transport/listener.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>

#include "kl/utilities.h"

namespace loader {
namespace {

constexpr int kBacklog = 256;
constexpr mode_t kSocketMode = 0666;
constexpr unsigned int kPauseTicks = 20;

std::string failure(const std::string& what) { return what + ": " + std::strerror(errno); }

bool fillAddress(const std::string& path, sockaddr_un& address) {
  address = {};
  address.sun_family = AF_UNIX;
  if (path.size() >= sizeof address.sun_path) return false;
  std::memcpy(address.sun_path, path.c_str(), path.size());
  return true;
}

// A loader that is stopped takes no connections: once its backlog is full a connect that waits would wait for it.
bool somebodyListens(const sockaddr_un& address) {
  const Descriptor probe(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  return ::connect(probe.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0 ||
         errno == EAGAIN;
}

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

Applicant peerOf(int fd) {
  ucred peer{};
  socklen_t size = sizeof peer;
  Applicant who;
  if (::getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &peer, &size) != 0)
    return {0, static_cast<uid_t>(-1), nullptr};
  who.pid = peer.pid;
  who.uid = peer.uid;
  return who;
}

}  // namespace

std::string Listener::open() {
  if (std::string problem = makeFolders(); !problem.empty()) return problem;
  const std::string path = kl::loaderSocketPath();
  sockaddr_un address;
  if (!fillAddress(path, address)) return path + ": too long for a socket";
  if (somebodyListens(address)) return path + ": a loader is running already";
  (void)::unlink(path.c_str());
  Descriptor socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  if (!socket.isOpen() ||
      ::bind(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
    return failure(path);
  path_ = path;
  socket_ = std::move(socket);
  if (::chmod(path.c_str(), kSocketMode) != 0 || ::listen(socket_.get(), kBacklog) != 0) return failure(path);
  runner_.addSocket(socket_.get(), this, kl::bind<Listener, &Listener::onConnect>(), POLLIN);
  return {};
}

void Listener::close() {
  if (!socket_.isOpen()) return;
  for (kl::TimerPtr* timer : {&resumeTimer_, &tickTimer_}) {
    runner_.removeTimer(*timer);
    *timer = {};
  }
  runner_.removeSocket(socket_.get());
  socket_.close();
  (void)::unlink(path_.c_str());
}

void Listener::resume() {
  if (!isPaused_ || !socket_.isOpen()) return;
  isPaused_ = false;
  runner_.removeTimer(resumeTimer_);
  resumeTimer_ = {};
  watch();
}

void Listener::pause(int errorNumber) {
  if (!isTold_) host_.cannotAccept(errorNumber);
  isPaused_ = isTold_ = true;
  watch();
  resumeTimer_ = runner_.addTimer(this, kl::bind<Listener, &Listener::resume>(), kPauseTicks);
}

void Listener::cameToNothing() {
  if (!socket_.isOpen()) return;
  ++failures_;
  if (!tickTimer_) tickTimer_ = runner_.addTimer(this, kl::bind<Listener, &Listener::onTick>(), 1);
  if (failures_ != kMostFailures) return;
  if (!isSlow_) host_.tooManyFail();
  isSlow_ = true;
  watch();
}

// After a tick with too many it looks at one more, whether they have become fewer.
void Listener::onTick() {
  tickTimer_ = {};
  isSlow_ = failures_ >= kMostFailures;
  failures_ = 0;
  if (isSlow_) tickTimer_ = runner_.addTimer(this, kl::bind<Listener, &Listener::onTick>(), 1);
  watch();
}

void Listener::watch() {
  const bool mayAccept = !isPaused_ && failures_ < kMostFailures;
  runner_.changeSocket(socket_.get(), mayAccept ? POLLIN : 0);
}

void Listener::onConnect(int fd, unsigned int) {
  Descriptor socket(::accept4(fd, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
  if (socket.isOpen()) {
    isTold_ = false;
    const Applicant who = peerOf(socket.get());
    return host_.onConnection(std::move(socket), who);
  }
  const bool passes =
      errno == EAGAIN || errno == EINTR || errno == ECONNABORTED;  // it was none, or is tried again
  if (!passes) pause(errno);
}

}  // namespace loader

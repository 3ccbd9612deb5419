// Accepting stops for two reasons, each with its timer: no descriptor is left (isPaused_), or too many connections came
// to nothing in this tick (isSlow_).

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
  if (std::string problem = socket_.open(kl::loaderSocketPath(), kBacklog, "a loader"); !problem.empty())
    return problem;
  runner_.addSocket(socket_.fd(), this, kl::bind<Listener, &Listener::onConnect>(), POLLIN);
  return {};
}

void Listener::close() {
  if (!socket_.isOpen()) return;
  for (kl::TimerPtr* timer : {&resumeTimer_, &tickTimer_}) {
    runner_.removeTimer(*timer);
    *timer = {};
  }
  runner_.removeSocket(socket_.fd());
  socket_.close();
}

void Listener::resume() {
  if (!isPaused_ || !socket_.isOpen()) return;
  isPaused_ = false;
  runner_.removeTimer(resumeTimer_);
  resumeTimer_ = {};
  watch();
}

void Listener::pause(int errorNumber) {
  if (!isPauseLogged_) log_.line(std::string("connections have to wait: ") + std::strerror(errorNumber));
  isPaused_ = true;
  isPauseLogged_ = true;
  watch();
  resumeTimer_ = runner_.addTimer(this, kl::bind<Listener, &Listener::resume>(), kPauseTicks);
}

void Listener::onFailure() {
  if (!socket_.isOpen()) return;
  ++failures_;
  if (!tickTimer_) tickTimer_ = runner_.addTimer(this, kl::bind<Listener, &Listener::onTick>(), 1);
  if (failures_ != kMostFailures) return;
  if (!isSlow_) log_.line("too many connections come to nothing; new ones have to wait");
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
  runner_.changeSocket(socket_.fd(), mayAccept ? POLLIN : 0);
}

void Listener::onConnect(int, unsigned int) {
  Descriptor socket = socket_.accept();
  if (socket.isOpen()) {
    isPauseLogged_ = false;
    const common::Peer peer = common::peerOf(socket.get());
    return onConnection_(std::move(socket), peer);
  }
  // nothing was pending, or poll will report it again
  const bool passes = errno == EAGAIN || errno == EINTR || errno == ECONNABORTED;
  if (!passes) pause(errno);
}

}  // namespace loader

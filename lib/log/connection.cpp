// The connection to the log service: who has it, how it begins and ends.
//
//     disconnected (socket_ == -1) --connectToLog--> connected --closeConnection--> disconnected
//
// Whatever ends a connection, the next record tries to begin another one.
//
// C1  a connected socket is watched by the runner, a disconnected Logger has no socket there
// C2  besides, there is at most one descriptor: the one whose connecting failed is used for the next attempt, so
//     a process that logs while the service is down does not run out of them

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <csignal>
#include <cstring>
#include <utility>

#include "fixed_paths.h"
#include "kl/logger.h"
#include "kl/runner.h"
#include "log/diagnostics.h"

namespace kl {
namespace {

Logger* theLogger = nullptr;

bool connectTo(int fd) {
  sockaddr_un address{};
  static_assert(sizeof paths::kLogSocket <= sizeof address.sun_path);
  address.sun_family = AF_UNIX;
  std::memcpy(address.sun_path, paths::kLogSocket, sizeof paths::kLogSocket);
  return ::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
}

}  // namespace

Logger* Logger::getLogger() {
  if (theLogger == nullptr) theLogger = new Logger;
  return theLogger;
}

Logger::Logger() {
  (void)std::signal(SIGPIPE, SIG_IGN);
  connectToLog();
}

Logger::~Logger() {
  if (socket_ >= 0) closeConnection();
  if (spareSocket_ >= 0) ::close(spareSocket_);
}

void Logger::connectToLog() {
  socket_ = -1;
  Runner* runner = getRunner();
  if (runner == nullptr) return logging::printLine("no runner while connecting to log");
  const int fd = takeSocket();
  if (fd < 0) return logging::printError("could not connect to log: ");
  // A service that takes no connections must not stop this process, so connecting does not wait either.
  if (::fcntl(fd, F_SETFL, O_NONBLOCK) != 0) logging::printError("could not set to non blocking: ");
  if (!connectTo(fd)) {
    spareSocket_ = fd;  // C2
    return logging::printError("could not connect to log: ");
  }
  socket_ = fd;
  runner->addSocket(socket_, this, bind<Logger, &Logger::onSocket>(), POLLIN);  // C1
  for (Source* source : table_) source->registered = false;
}

int Logger::takeSocket() {
  if (spareSocket_ >= 0) return std::exchange(spareSocket_, -1);  // C2
  return ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
}

void Logger::closeConnection() {
  ::close(socket_);
  if (Runner* runner = getRunner()) runner->removeSocket(socket_);  // C1
  socket_ = -1;
  for (Source* source : table_) source->muted = source->registered = false;
}

}  // namespace kl

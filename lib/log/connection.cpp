// The connection to the log service: its beginning and its end.
//
//     disconnected (socket_ == -1) --connectToLog--> connected --closeConnection--> disconnected
//
// After a connection's end, whatever its reason, the next record tries to begin another one.
//
// C1  a connected socket is watched by the runner, a disconnected Logger has no socket there
// C2  besides, there is at most one descriptor: the one whose connecting failed is used for the next attempt, so
//     a process that logs while the service is down does not run out of them

#include <fcntl.h>
#include <unistd.h>

#include <csignal>
#include <string>
#include <utility>

#include "base/local_socket.h"
#include "base/report.h"
#include "kl/logger.h"
#include "kl/runner.h"
#include "kl/utilities.h"

namespace kl {
namespace {

Logger* theLogger = nullptr;

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
  if (runner == nullptr) return printLine("no runner while connecting to log");
  const int fd = takeSocket();
  if (fd < 0) return printErrno("could not connect to log: ");
  // A service that takes no connections must not stop this process, so connecting does not wait either.
  if (::fcntl(fd, F_SETFL, O_NONBLOCK) != 0) printErrno("could not set to non blocking: ");
  const std::string path = logSocketPath();
  if (!connectLocalSocket(fd, path.c_str())) {
    spareSocket_ = fd;  // C2
    return printErrno("could not connect to log: ");
  }
  socket_ = fd;
  runner->addSocket(socket_, this, bind<Logger, &Logger::onSocket>(), POLLIN);  // C1
  for (Source* source : table_) source->registered = false;
}

int Logger::takeSocket() {
  if (spareSocket_ >= 0) return std::exchange(spareSocket_, -1);  // C2
  return openLocalSocket();
}

void Logger::closeConnection() {
  ::close(socket_);
  if (Runner* runner = getRunner()) runner->removeSocket(socket_);  // C1
  socket_ = -1;
  for (Source* source : table_) source->muted = source->registered = false;
}

}  // namespace kl

// As in logging/log.cpp: a pipe that polls as writable has room for PIPE_BUF bytes, and no piece is longer.

#include "crashes/output_sink.h"

#include <limits.h>
#include <poll.h>
#include <unistd.h>

namespace loader {
namespace {

constexpr std::size_t kPieceBytes = PIPE_BUF / 2 - 1;

// One whose reader has gone takes nothing any more.
bool takesAPiece(int fd) {
  pollfd entry{fd, POLLOUT, 0};
  return ::poll(&entry, 1, 0) == 1 && (entry.revents & (POLLOUT | POLLERR | POLLHUP)) == POLLOUT;
}

}  // namespace

void OutputSink::write(std::string_view bytes) {
  while (!bytes.empty()) {
    const std::string_view piece = bytes.substr(0, kPieceBytes);
    if (!writePiece(piece)) {
      lostBytes_ += bytes.size();
      return;
    }
    bytes.remove_prefix(piece.size());
  }
}

bool OutputSink::writePiece(std::string_view piece) {
  if (!takesAPiece(fd_)) return false;
  tellLosses();
  return ::write(fd_, piece.data(), piece.size()) == static_cast<ssize_t>(piece.size());
}

void OutputSink::tellLosses() {
  if (lostBytes_ == 0) return;
  log_.line(service_ + ": " + std::to_string(lostBytes_) +
            " bytes of its output were lost because nobody took them");
  lostBytes_ = 0;
}

}  // namespace loader

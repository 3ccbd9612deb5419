// A line is written only where poll() says that the descriptor takes one: a pipe that polls as writable has room for
// PIPE_BUF bytes, and lines are cut below that.  Thus no write waits, and none is torn.

#include "logging/log.h"

#include <poll.h>
#include <unistd.h>

#include <limits.h>

#include "logging/log_sender.h"

namespace loader {

void Log::line(const std::string& text) {
  writeLine(text);
  if (sender_ != nullptr) sender_->line(text);
}

bool Log::output(Stream stream, const std::string& text) {
  return sender_ == nullptr || sender_->output(stream, text);
}

void Log::writeLine(const std::string& text) {
  if (!takesALine()) {
    ++dropped_;
    return;
  }
  if (dropped_ > 0) write(std::to_string(dropped_) + " lines were lost because nobody took them");
  dropped_ = 0;
  write(text);
}

// A pipe that polls as writable has room for PIPE_BUF bytes, and no line is longer.
bool Log::takesALine() const {
  pollfd entry{fd_, POLLOUT, 0};
  return ::poll(&entry, 1, 0) == 1 && (entry.revents & POLLOUT) != 0;
}

void Log::write(std::string text) {
  text = "kl-loader: " + text;
  text.resize(text.size() < PIPE_BUF / 2 ? text.size() : PIPE_BUF / 2 - 1);
  text += '\n';
  (void)!::write(fd_, text.data(), text.size());
}

}  // namespace loader

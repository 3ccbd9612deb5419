// The executable mappings of a process, read line by line through a buffer of 100 bytes.

#include "loop/maps.h"

#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string_view>

namespace kl {

char textBuffer[kTextBytes];

namespace {

// Async-signal-safe: read(2) only.  The lines of a file, each at most as long as the buffer.
class Lines {
 public:
  explicit Lines(int fd) : fd_(fd) {}

  // The next line with its newline; a line that is longer than the buffer comes in pieces without one.
  // Empty at the end.
  //
  // Kept on purpose: every line is preceded by a read, and the first read that gives nothing ends the walk, so lines
  // that still lie in the buffer then are not seen.
  // Held by Maps.LinesInTheBufferAtTheEndAreNotExamined.
  std::string_view next() {
    dropPrevious();
    do {
      if (!topUp()) return {};
      lineBytes_ = lineIn(textBuffer, used_);
    } while (lineBytes_ == 0);
    return {textBuffer, lineBytes_};
  }

 private:
  void dropPrevious() {
    std::memmove(textBuffer, textBuffer + lineBytes_, used_ - lineBytes_);
    used_ -= lineBytes_;
  }

  bool topUp() {
    ssize_t count = 0;
    do {
      count = ::read(fd_, textBuffer + used_, kTextBytes - used_);
    } while (count < 0 && errno == EINTR);
    if (count <= 0) return false;
    used_ += static_cast<std::size_t>(count);
    return true;
  }

  // The bytes of the buffer that are one line; 0 if its end has not been read yet.
  static std::size_t lineIn(const char* text, std::size_t used) {
    const void* newline = std::memchr(text, '\n', used);
    if (newline != nullptr) return static_cast<std::size_t>(static_cast<const char*>(newline) - text) + 1;
    return used == kTextBytes ? used : 0;
  }

  int fd_;
  std::size_t used_ = 0;
  std::size_t lineBytes_ = 0;
};

}  // namespace

// Async-signal-safe: read(2) and write(2) only.  A line longer than the buffer is judged by its beginning.
void writeExecutableMaps(int fd, ReportText& out) {
  Lines lines(fd);
  bool insideLongLine = false;
  for (std::string_view line = lines.next(); !line.empty(); line = lines.next()) {
    const bool isWhole = line.back() == '\n';
    if (!insideLongLine && line.find(" r-xp ") != std::string_view::npos) {
      out.put(line.data(), line.size());
      if (!isWhole) out.put("\n");
    }
    insideLongLine = !isWhole;
  }
}

}  // namespace kl

// The line is written over itself and wiped out at the end; a path is safe for the terminal before it stands in it.

#include "ask/progress.h"

#include <unistd.h>

#include "services/common/text.h"

namespace klctl {
namespace {
constexpr std::chrono::seconds kPatience(1);
constexpr std::chrono::milliseconds kInterval(200);
constexpr char kWipe[] = "\r\x1b[K";
}  // namespace

Progress::Progress(int fd, const std::string& path, Time start)
    : fd_(fd), path_(common::printable(path)), next_(::isatty(fd) == 1 ? start + kPatience : Time::max()) {}

Progress::~Progress() {
  if (shown_) write(kWipe);
}

void Progress::look(Time now, std::size_t objects) {
  if (now < next_) return;
  next_ = now + kInterval;
  shown_ = true;
  write(kWipe + path_ + ": " + std::to_string(objects) + " objects ...");
}

// A line that cannot be written is no loss.
void Progress::write(const std::string& text) const { (void)!::write(fd_, text.data(), text.size()); }

}  // namespace klctl

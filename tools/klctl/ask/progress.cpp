#include "ask/progress.h"

#include <unistd.h>

#include <utility>

namespace klctl {
namespace {
constexpr std::chrono::seconds kPatience(1);
constexpr std::chrono::milliseconds kInterval(200);
constexpr char kWipe[] = "\r\x1b[K";
}  // namespace

Progress::Progress(int fd, std::string path, Time start)
    : fd_(fd), path_(std::move(path)), next_(::isatty(fd) == 1 ? start + kPatience : Time::max()) {}

Progress::~Progress() {
  if (shown_) write(kWipe);
}

void Progress::look(Time now, std::size_t objects) {
  if (now < next_) return;
  next_ = now + kInterval;
  shown_ = true;
  write(kWipe + path_ + ": " + std::to_string(objects) + " objects ...");
}

// What cannot be shown is no loss.
void Progress::write(const std::string& text) const { (void)!::write(fd_, text.data(), text.size()); }

}  // namespace klctl

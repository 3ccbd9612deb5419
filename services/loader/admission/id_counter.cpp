// The file always holds an id that no loader has given out, so a block of ids is claimed there before the first of
// them is used.  When a block was used up is kept in memory: for a day the counter does not come back to it.

#include "admission/id_counter.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <utility>

#include "services/common/seconds.h"

namespace loader {
namespace {

// Puts the text into the file as a whole: after a crash it holds the old text or the new one.
bool replaceFile(const std::string& file, const std::string& text) {
  const std::string fresh = file + ".new";
  const int fd = ::open(fresh.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (fd < 0) return false;
  errno = ENOSPC;  // a write that takes a part sets no errno
  const bool isWritten =
      ::write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size()) && ::fsync(fd) == 0;
  const int error = errno;
  ::close(fd);
  errno = error;
  return isWritten && std::rename(fresh.c_str(), file.c_str()) == 0;
}

}  // namespace

IdCounter::IdCounter(std::string file, Log& log) : IdCounter(std::move(file), log, common::secondsNow) {}

IdCounter::IdCounter(std::string file, Log& log, Seconds seconds)
    : file_(std::move(file)),
      log_(log),
      seconds_(std::move(seconds)),
      next_(readFile()),
      claimedEnd_(next_) {}

// Without it the next loader skips some ids, which needs no line.
IdCounter::~IdCounter() {
  if (next_ != claimedEnd_) (void)replaceFile(file_, std::to_string(next_) + "\n");
}

unsigned int IdCounter::next(bool mayComeEarly) {
  if (!mayComeEarly && isResting()) return 0;
  if (next_ == claimedEnd_) claimBlock();
  const unsigned int id = next_++;
  if (next_ % kBlock == 0) leaveBlock();
  return id;
}

// True when the ids of this block were given out so short a time ago that they are not given out again.
bool IdCounter::isResting() const {
  const std::optional<unsigned int>& leftAt = leftAt_[next_ / kBlock];
  return leftAt && seconds_() - *leftAt < kRestSeconds;
}

unsigned int IdCounter::readFile() {
  std::ifstream in(file_);
  if (!in) return kFirst;  // the first start on this machine
  unsigned int value = 0;
  if (in >> value && value >= kFirst && value <= kLast) return value;
  log_.line(file_ + ": expected a number from " + std::to_string(kFirst) + " to " + std::to_string(kLast) +
            "; counting begins anew");
  return kFirst;
}

void IdCounter::claimBlock() {
  claimedEnd_ = (next_ / kBlock + 1) * kBlock;
  const unsigned int after = claimedEnd_ > kLast ? kFirst : claimedEnd_;
  if (!replaceFile(file_, std::to_string(after) + "\n"))
    log_.line(file_ + ": cannot be written: " + std::strerror(errno) +
              "; ids may come again after a restart");
}

void IdCounter::leaveBlock() {
  leftAt_[(next_ - 1) / kBlock] = seconds_();
  if (next_ > kLast) next_ = claimedEnd_ = kFirst;
}

}  // namespace loader

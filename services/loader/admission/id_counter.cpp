// The file always holds an id that no loader has given out, so a block of ids is claimed there before the first of
// them is used.

#include "admission/id_counter.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>

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

IdCounter::IdCounter(std::string file, Log& log)
    : file_(std::move(file)), log_(log), next_(readFile()), claimedEnd_(next_) {}

unsigned int IdCounter::next() {
  if (next_ == claimedEnd_) claimBlock();
  const unsigned int id = next_++;
  if (next_ > kLast) next_ = claimedEnd_ = kFirst;
  return id;
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
  claimedEnd_ = std::min(next_ + kBlock, kLast + 1);
  const unsigned int after = claimedEnd_ > kLast ? kFirst : claimedEnd_;
  if (!replaceFile(file_, std::to_string(after) + "\n"))
    log_.line(file_ + ": cannot be written: " + std::strerror(errno) +
              "; ids may come again after a restart");
}

}  // namespace loader

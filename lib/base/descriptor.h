#pragma once
// descriptor.h: a descriptor that is closed at the end of a block.

#include <unistd.h>

#include <utility>

namespace kl {

// open(2) of a file, closed on exec; what it creates is for its owner alone.  -1 with errno.
int openFile(const char* path, int flags);

// Owns a descriptor, or none (-1).
class Descriptor {
 public:
  explicit Descriptor(int fd) : fd_(fd) {}
  Descriptor(const char* path, int flags) : fd_(openFile(path, flags)) {}
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
  ~Descriptor() {
    if (fd_ >= 0) ::close(fd_);
  }

  explicit operator bool() const { return fd_ >= 0; }
  int fd() const { return fd_; }

  // Hands it over: closing it is the caller's business.
  [[nodiscard]] int release() { return std::exchange(fd_, -1); }

 private:
  int fd_;
};

}  // namespace kl

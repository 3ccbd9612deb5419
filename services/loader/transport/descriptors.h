#pragma once
// descriptors.h: owning a descriptor, and how many there may be.

#include <unistd.h>

#include <utility>

namespace loader {

// Closes its descriptor when it goes.
class Descriptor {
 public:
  explicit Descriptor(int fd = -1) : fd_(fd) {}
  Descriptor(Descriptor&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
  Descriptor& operator=(Descriptor&& other) noexcept {
    std::swap(fd_, other.fd_);
    return *this;
  }
  ~Descriptor() { close(); }

  int get() const { return fd_; }
  bool isOpen() const { return fd_ >= 0; }
  int release() { return std::exchange(fd_, -1); }
  void close() {
    if (fd_ >= 0) ::close(fd_);
    fd_ = -1;
  }

 private:
  int fd_;
};

// Sees to it that the three standard descriptors are open, so that nothing else takes their numbers.
void openStandardDescriptors();

// Lets this process open as many descriptors as it may; the processes that it starts get the limit of before.
void raiseDescriptorLimit();
void restoreDescriptorLimit();

}  // namespace loader

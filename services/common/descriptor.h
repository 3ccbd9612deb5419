#pragma once
// descriptor.h: the owner of a descriptor, and the first descriptors of a process.

#include <unistd.h>

#include <utility>

namespace common {

// Closes its descriptor at the end of its life.
//
//     common::Descriptor file(::open(path, O_RDONLY | O_CLOEXEC));
//     if (!file.isOpen()) return std::strerror(errno);
//
// Errors:    none; -1 is a descriptor that is not open, as system calls return it.
// Ownership: owns its descriptor; moving hands it over, assigning exchanges the two.
// Threads:   as any value.
// Cost:      one system call at the end.
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

// Opens /dev/null, with these flags of open(), under each number from 0 to `last` that is closed.  Otherwise the next
// socket or file of the process would get such a number, and be taken for a standard stream or for the connection
// that the loader passes on.  Needs: a process that has opened nothing yet.
void occupyDescriptors(int last, int flags);

}  // namespace common

#pragma once
// descriptor.h: a file that is open for the length of a block, and what a descriptor says about its file.

#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "base/file_io.h"

namespace kl {

class Descriptor {
 public:
  Descriptor(const char* path, int flags) : fd_(openFile(path, flags)) {}
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
  ~Descriptor() {
    if (fd_ >= 0) ::close(fd_);
  }

  explicit operator bool() const { return fd_ >= 0; }
  int fd() const { return fd_; }

 private:
  int fd_;
};

// 0, which no file has, if it cannot be told.
inline unsigned long long inodeOf(int fd) {
  struct stat file;
  return ::fstat(fd, &file) == 0 ? static_cast<unsigned long long>(file.st_ino) : 0;
}

// The same of a name.
inline unsigned long long inodeOfPath(const std::string& path) {
  struct stat file;
  return ::stat(path.c_str(), &file) == 0 ? static_cast<unsigned long long>(file.st_ino) : 0;
}

// In bytes; -1 if it cannot be told.
inline long long lengthOf(int fd) {
  struct stat file;
  return ::fstat(fd, &file) == 0 ? static_cast<long long>(file.st_size) : -1;
}

}  // namespace kl

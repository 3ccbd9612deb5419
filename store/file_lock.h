#pragma once
// file_lock.h: the lock under which a store's files are changed.

#include <string>

namespace kl {

// Names the lock of one store.
class FileLock {
 public:
  explicit FileLock(const std::string& basePath) : path_(basePath + ".lock") {}
  FileLock(const FileLock&) = delete;
  FileLock& operator=(const FileLock&) = delete;

 private:
  friend class LockBracket;

  std::string path_;
  bool isHeld_ = false;  // by a bracket of this process
};

// Holds the lock for its lifetime; waits for it.  A lock that cannot be had is reported, and the work goes on
// without it.  A bracket inside another one of the same process does nothing: closing any descriptor of a
// file drops the locks that the process has on it.
class LockBracket {
 public:
  explicit LockBracket(FileLock& lock);
  LockBracket(const LockBracket&) = delete;
  LockBracket& operator=(const LockBracket&) = delete;
  ~LockBracket();

 private:
  FileLock& lock_;
  bool isInner_;
  int fd_ = -1;
};

}  // namespace kl

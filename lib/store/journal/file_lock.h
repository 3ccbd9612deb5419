#pragma once
// file_lock.h: the lock under which a store's files are changed.

#include <string>

namespace kl {

// The lock of one store: the whole of P.lock, for writing.  The content of that file is the journal's business
// (journal.h).
class FileLock {
 public:
  explicit FileLock(const std::string& basePath) : path_(basePath + ".lock") {}
  FileLock(const FileLock&) = delete;
  FileLock& operator=(const FileLock&) = delete;

  bool isHeld() const { return isHeld_; }
  // The open lock file, while the lock is held.
  int fd() const { return fd_; }

 private:
  friend class LockScope;
  friend class LockHold;
  friend class LockBracket;

  void acquire();
  bool release();

  std::string path_;
  int fd_ = -1;
  bool isHeld_ = false;
  bool isUnreported_ = false;  // a hold could not have the lock, and no bracket has reported it yet
};

// The base of both ways of holding the lock.
class LockScope {
 public:
  LockScope(const LockScope&) = delete;
  LockScope& operator=(const LockScope&) = delete;

  // Whether this one took the lock, or tried to.  Inside of it the others do nothing: closing any descriptor of a file
  // drops the locks that the process has on it.
  bool isOutermost() const { return isOutermost_; }

 protected:
  LockScope(FileLock& lock, bool isOutermost) : lock_(lock), isOutermost_(isOutermost) {}
  ~LockScope() = default;

  FileLock& lock_;
  const bool isOutermost_;
};

// Holds the lock for the length of an operation and prints nothing: the brackets inside report what failed.
class LockHold : public LockScope {
 public:
  explicit LockHold(FileLock& lock);
  ~LockHold();

 private:
  bool isMine_ = false;
};

// Brackets one change of the files: holds the lock for its lifetime, and reports a failure; the work then goes on
// without it.
class LockBracket : public LockScope {
 public:
  explicit LockBracket(FileLock& lock);
  ~LockBracket();

 private:
  int outerFd_ = -1;
};

}  // namespace kl

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
  friend class LockGuard;
  friend class QuietLockGuard;
  friend class ReportingLockGuard;

  void acquire();
  bool release();

  std::string path_;
  int fd_ = -1;
  bool isHeld_ = false;
  bool isUnreported_ = false;  // a quiet guard has failed, and no reporting one has told yet
};

// The base of both guards.
class LockGuard {
 public:
  LockGuard(const LockGuard&) = delete;
  LockGuard& operator=(const LockGuard&) = delete;

  // Whether this one took the lock, or tried to.  Inside of it the others do nothing: closing any descriptor of a file
  // drops the locks that the process has on it.
  bool isOutermost() const { return isOutermost_; }

 protected:
  LockGuard(FileLock& lock, bool isOutermost) : lock_(lock), isOutermost_(isOutermost) {}
  ~LockGuard() = default;

  FileLock& lock_;
  const bool isOutermost_;
};

// Holds the lock for the length of an operation and prints nothing: the reporting guards inside print what failed.
class QuietLockGuard : public LockGuard {
 public:
  explicit QuietLockGuard(FileLock& lock);
  ~QuietLockGuard();

 private:
  bool isMine_ = false;
};

// Holds the lock for the length of one change of the files, and prints a failure; the work then goes on without it.
class ReportingLockGuard : public LockGuard {
 public:
  explicit ReportingLockGuard(FileLock& lock);
  ~ReportingLockGuard();

 private:
  int outerFd_ = -1;
};

}  // namespace kl

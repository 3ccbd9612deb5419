#pragma once
// file_lock.h: the lock under which a store's files are changed.

#include <cstddef>
#include <string>

namespace kl {

// The lock of one store: the whole of P.lock, for writing.
class FileLock {
 public:
  explicit FileLock(const std::string& basePath) : basePath_(basePath), path_(basePath + ".lock") {}
  FileLock(const FileLock&) = delete;
  FileLock& operator=(const FileLock&) = delete;

  bool isHeld() const { return isHeld_; }
  // The open lock file, while the lock is held.
  int fd() const { return fd_; }
  // How many bytes at its start belong to a durable record; what else it holds begins behind them.
  std::size_t durableBytes() const { return durableBytes_; }
  void setDurableBytes(std::size_t bytes) { durableBytes_ = bytes; }
  // Leaves nothing but these first bytes in the lock file.  Needs: the lock.
  void dropRecords(std::size_t keepBytes);

 private:
  friend class LockHold;
  friend class LockBracket;

  void acquire();
  bool release();

  std::string basePath_;
  std::string path_;
  int fd_ = -1;
  bool isHeld_ = false;
  bool isUnreported_ = false;  // a hold could not have the lock, and no bracket has said so yet
  std::size_t durableBytes_ = 0;
};

// Holds the lock for the length of an operation, without a word: what failed is said by the brackets inside.
// Inside another hold or bracket it does nothing.
class LockHold {
 public:
  explicit LockHold(FileLock& lock);
  LockHold(const LockHold&) = delete;
  LockHold& operator=(const LockHold&) = delete;
  ~LockHold();

 private:
  FileLock& lock_;
  bool isOuter_;
  bool isMine_ = false;
};

// Brackets one change of the files: holds the lock for its lifetime, and says what of that failed; the work
// then goes on without it.  Where the lock is held already it does nothing: closing any descriptor of a file
// drops the locks that the process has on it.
class LockBracket {
 public:
  explicit LockBracket(FileLock& lock);
  LockBracket(const LockBracket&) = delete;
  LockBracket& operator=(const LockBracket&) = delete;
  ~LockBracket();

 private:
  FileLock& lock_;
  bool isOuter_;
  int outerFd_ = -1;
};

}  // namespace kl

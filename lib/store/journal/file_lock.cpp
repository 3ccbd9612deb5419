// The lock under which a store's files are changed.
//
// SL1  there is one descriptor of the lock file while the lock is held
// SL2  a quiet guard that failed is reported by the first reporting one inside it; each further one tries anew

#include "store/journal/file_lock.h"

#include <fcntl.h>
#include <unistd.h>

#include "base/file_io.h"
#include "base/held_output.h"
#include "base/report.h"

namespace kl {
namespace {

bool changeLock(int fd, short type) {
  struct flock whole = {};
  whole.l_type = type;
  whole.l_whence = SEEK_SET;
  return ::fcntl(fd, F_SETLKW, &whole) == 0;
}

}  // namespace

void FileLock::acquire() {
  heldOutput.write();  // whoever has the lock may wait for this process
  fd_ = openFile(path_.c_str(), O_RDWR | O_CREAT);
  isHeld_ = changeLock(fd_, F_WRLCK);
}

bool FileLock::release() {
  isHeld_ = false;
  return changeLock(fd_, F_UNLCK);
}

QuietLockGuard::QuietLockGuard(FileLock& lock) : LockGuard(lock, !lock.isHeld_ && !lock.isUnreported_) {
  if (!isOutermost_) return;
  lock_.acquire();
  isMine_ = lock_.isHeld_;
  lock_.isUnreported_ = !isMine_;
}

QuietLockGuard::~QuietLockGuard() {
  if (!isOutermost_ || (!isMine_ && !lock_.isUnreported_)) return;
  lock_.isUnreported_ = false;
  if (isMine_ && !lock_.release()) {
    printLine("STORE: unlock fnctl failed");
    ::close(lock_.fd_);
  }
  ::close(lock_.fd_);
}

ReportingLockGuard::ReportingLockGuard(FileLock& lock) : LockGuard(lock, !lock.isHeld_) {
  if (!isOutermost_) return;
  outerFd_ = lock_.fd_;
  if (!lock_.isUnreported_) lock_.acquire();
  lock_.isUnreported_ = false;
  if (lock_.fd_ < 0) printLine("STORE: lock open failed");
  if (!lock_.isHeld_) printLine("STORE: lock fnctl failed");
}

ReportingLockGuard::~ReportingLockGuard() {
  if (!isOutermost_) return;
  if (!lock_.release()) {
    printLine("STORE: unlock fnctl failed");
    // Kept on purpose: the descriptor is closed here and once more below, where that has no effect.
    // Held by StoreFileLock.ALockFileThatCannotBeOpenedIsReportedAndTheWorkGoesOn.
    ::close(lock_.fd_);
  }
  ::close(lock_.fd_);
  lock_.fd_ = outerFd_;
}

}  // namespace kl

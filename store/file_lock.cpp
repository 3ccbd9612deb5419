// The lock under which a store's files are changed: the whole of P.lock, for writing.

#include "store/file_lock.h"

#include <fcntl.h>
#include <unistd.h>

#include "store/file_io.h"
#include "store/report.h"

namespace kl {
namespace {

bool changeLock(int fd, short type) {
  struct flock whole = {};
  whole.l_type = type;
  whole.l_whence = SEEK_SET;
  return ::fcntl(fd, F_SETLKW, &whole) == 0;
}

}  // namespace

LockBracket::LockBracket(FileLock& lock) : lock_(lock), isInner_(lock.isHeld_) {
  if (isInner_) return;
  fd_ = openFile(lock_.path_.c_str(), O_RDWR | O_CREAT);
  if (fd_ < 0) reportStore("STORE: lock open failed");
  lock_.isHeld_ = changeLock(fd_, F_WRLCK);
  if (!lock_.isHeld_) reportStore("STORE: lock fnctl failed");
}

LockBracket::~LockBracket() {
  if (isInner_) return;
  lock_.isHeld_ = false;
  if (!changeLock(fd_, F_UNLCK)) {
    reportStore("STORE: unlock fnctl failed");
    // Kept on purpose: the descriptor is closed here and once more below, where that has no effect.
    // Held by StoreFileLock.ALockFileThatCannotBeOpenedIsReportedAndTheWorkGoesOn.
    ::close(fd_);
  }
  ::close(fd_);
}

}  // namespace kl

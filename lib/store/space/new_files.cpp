// The pair of files that a compaction writes beside the old ones.
//
// Their room is reserved before anything is written or given up: on a disk that is nearly full the old files stay.
// Both are synced, then the journal notes that they are whole, then they are renamed.  Without that note the old pair
// counts, with it the new one.  If there is no room for it, a new index that is left alone means the same: the new
// data file is made before it, removed behind it, and renamed before it.  Held by
// StoreCompactionRoom.WithoutItForTheDataTheOldFilesStay.

#include "store/space/new_files.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

#include "base/descriptor.h"
#include "base/file_io.h"
#include "base/report.h"

namespace kl {
namespace {

// A file system that cannot reserve room finds out when it is written to.
bool reserve(int fd, unsigned long long bytes) {
  if (bytes == 0) return true;
  const int error = ::posix_fallocate(fd, 0, static_cast<off_t>(bytes));
  return error == 0 || error == EOPNOTSUPP || error == ENOSYS || error == EINVAL;
}

bool cutTo(int fd, unsigned long long used, unsigned long long room) {
  return used >= room || lengthOf(fd) <= static_cast<long long>(used) ||
         ::ftruncate(fd, static_cast<off_t>(used)) == 0;
}

}  // namespace

NewFiles::~NewFiles() {
  if (idxFd_ >= 0) ::close(idxFd_);
  if (dataFd_ >= 0) ::close(dataFd_);
  if (!areInPlace_) removeNewFiles(path_);
}

bool NewFiles::create(const FileLengths& room) {
  room_ = room;
  dataFd_ = openFile(name(".dat.new").c_str(), O_RDWR | O_CREAT | O_TRUNC);
  if (dataFd_ < 0 || !reserve(dataFd_, room.data)) {
    printLine("STORE: compact: could not open new data file");
    return false;
  }
  idxFd_ = openFile(name(".idx.new").c_str(), O_RDWR | O_CREAT | O_TRUNC);
  if (idxFd_ < 0 || !reserve(idxFd_, room.idx)) {
    printLine("STORE: compact: could not open new index file");
    return false;
  }
  return true;
}

bool NewFiles::trim(const FileLengths& used) const {
  return cutTo(dataFd_, used.data, room_.data) && cutTo(idxFd_, used.idx, room_.idx);
}

Journal::Replaced NewFiles::commit(Journal& journal) {
  (void)::fsync(idxFd_);
  (void)::fsync(dataFd_);
  const unsigned long long freshIndex = inodeOf(idxFd_);
  const Journal::Replaced replaced = journal.replaceFiles({freshIndex, inodeOf(dataFd_)});
  areInPlace_ = replaced == Journal::Replaced::kBoth;
  const bool isIndexCopied = areInPlace_ && inodeOfPath(name(".idx")) != freshIndex;
  if (isIndexCopied) ::close(takeIdx());
  if (replaced == Journal::Replaced::kNone) printLine("STORE: compact: could not open new data file");
  if (replaced == Journal::Replaced::kInPart) printLine("STORE: compact write failed");
  return replaced;
}

int NewFiles::takeIdx() { return std::exchange(idxFd_, -1); }
int NewFiles::takeData() { return std::exchange(dataFd_, -1); }

}  // namespace kl

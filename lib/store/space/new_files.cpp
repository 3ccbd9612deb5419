// The pair of files that a compaction writes beside the old ones.
//
// Both are synced, then a record in the lock file says that they are whole, then they are renamed.  Without the record
// the old pair counts, with it the new one.  If there is no room for it, a new index that is left alone tells the same: the
// new data file is made before it, removed behind it, and renamed before it.

#include "store/space/new_files.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <utility>

#include "base/descriptor.h"
#include "base/file_io.h"
#include "store/journal/journal.h"
#include "store/report.h"

namespace kl {
namespace {

bool putInPlace(const std::string& basePath, const char* suffix) {
  const std::string name = basePath + suffix;
  return std::rename((name + ".new").c_str(), name.c_str()) == 0;
}

}  // namespace

NewFiles::~NewFiles() {
  if (idxFd_ >= 0) ::close(idxFd_);
  if (dataFd_ >= 0) ::close(dataFd_);
  if (!areInPlace_) removeLeftOvers(path_);
}

bool NewFiles::create() {
  dataFd_ = openFile(name(".dat.new").c_str(), O_RDWR | O_CREAT | O_TRUNC);
  if (dataFd_ < 0) {
    reportStore("STORE: compact: could not open new data file");
    return false;
  }
  idxFd_ = openFile(name(".idx.new").c_str(), O_RDWR | O_CREAT | O_TRUNC);
  if (idxFd_ < 0) reportStore("STORE: compact: could not open new index file");
  return idxFd_ >= 0;
}

bool NewFiles::commit(FileLock& lock, bool isSynced) {
  (void)::fsync(idxFd_);
  (void)::fsync(dataFd_);
  if (isSynced) syncFolder(path_);  // the new names, before anything relies on them
  if (lock.isHeld()) {
    const CommitBytes record = encodeCommit({inodeOf(idxFd_), inodeOf(dataFd_)});
    (void)writeAt(lock.fd(), {record.data(), record.size()}, static_cast<off_t>(lock.durableBytes()));
    if (isSynced) (void)::fsync(lock.fd());
  }
  areInPlace_ = putInPlace(path_, ".dat") && putInPlace(path_, ".idx");
  syncFolder(path_);
  if (lock.isHeld()) {
    lock.dropRecords(0);
    if (isSynced) (void)::fsync(lock.fd());
  }
  return areInPlace_;
}

void NewFiles::finishCommit(const std::string& basePath, const FileIds& ids) {
  if (inodeOfPath(basePath + ".dat.new") == ids.data) (void)putInPlace(basePath, ".dat");
  if (inodeOfPath(basePath + ".idx.new") == ids.idx) (void)putInPlace(basePath, ".idx");
  syncFolder(basePath);
}

void NewFiles::finishRenames(const std::string& basePath) {
  if (inodeOfPath(basePath + ".idx.new") == 0 || inodeOfPath(basePath + ".dat.new") != 0) return;
  if (!filesAgree(basePath + ".idx.new", basePath + ".dat")) return;
  (void)putInPlace(basePath, ".idx");
  syncFolder(basePath);
}

// The data file last, so that a new index is never left alone.
void NewFiles::removeLeftOvers(const std::string& basePath) {
  (void)::unlink((basePath + ".idx.new").c_str());
  (void)::unlink((basePath + ".dat.new").c_str());
}

void NewFiles::syncFolder(const std::string& basePath) {
  const std::size_t slash = basePath.rfind('/');
  const std::string folder = slash == std::string::npos ? "." : basePath.substr(0, slash + 1);
  const Descriptor opened(folder.c_str(), O_RDONLY | O_DIRECTORY);
  if (opened) (void)::fsync(opened.fd());
}

int NewFiles::takeIdx() { return std::exchange(idxFd_, -1); }
int NewFiles::takeData() { return std::exchange(dataFd_, -1); }

}  // namespace kl

// The pair of files that a compaction writes beside the old ones.

#include "store/new_files.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <utility>

#include "store/file_io.h"
#include "store/report.h"

namespace kl {

NewFiles::~NewFiles() {
  if (idxFd_ >= 0) ::close(idxFd_);
  if (dataFd_ >= 0) ::close(dataFd_);
  if (areInPlace_) return;
  (void)::unlink(name(".idx.new").c_str());
  (void)::unlink(name(".dat.new").c_str());
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

bool NewFiles::commit() {
  (void)::fsync(idxFd_);
  (void)::fsync(dataFd_);
  areInPlace_ = std::rename(name(".dat.new").c_str(), name(".dat").c_str()) == 0 &&
                std::rename(name(".idx.new").c_str(), name(".idx").c_str()) == 0;
  return areInPlace_;
}

int NewFiles::takeIdx() { return std::exchange(idxFd_, -1); }
int NewFiles::takeData() { return std::exchange(dataFd_, -1); }

}  // namespace kl

// The index and the data file of a store: opening and closing them, and one slot or blob at a time.
//
// SD1  the data file is used only with the index that it belongs to: it is held open from the moment at which the index
//      was read, and that one is taken if another file has its name when it is used
//
// Held by StoreProcesses.AStoreThatWasOpenedBeforeACompactionDoesNotSpoilTheNewFiles.

#include "store/files/store_files.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <utility>

#include "base/descriptor.h"
#include "base/held_output.h"
#include "base/report.h"
#include "store/files/blob.h"

namespace kl {
namespace {

constexpr std::size_t kLongestBlob = 0xFFFF;

void closeOnce(int& fd) {
  if (fd >= 0) ::close(fd);
  fd = -1;
}

[[gnu::cold]] bool openNow(int& fd, const std::string& basePath, const char* suffix,
                           unsigned long long& inode) {
  fd = openFile((basePath + suffix).c_str(), O_RDWR);
  if (fd >= 0) inode = inodeOf(fd);
  return fd >= 0;
}

bool openOnce(int& fd, const std::string& basePath, const char* suffix, unsigned long long& inode) {
  return fd >= 0 || openNow(fd, basePath, suffix, inode);
}

// Another file has the name of the one that is held.
bool isReplaced(int named, int held) {
  struct stat file;
  return ::fstat(named, &file) == 0 && S_ISREG(file.st_mode) && inodeOf(named) != inodeOf(held);
}

[[gnu::cold]] message unreadable(const char* failure) {
  printLine(failure);
  return message();
}

}  // namespace

StoreFiles::~StoreFiles() {
  closeIdx();
  closeData();
}

bool StoreFiles::openIdx() { return openOnce(idxFd_, path_, ".idx", ids_.idx); }

bool StoreFiles::openData() {
  const bool wasOpen = dataFd_ >= 0;
  if (!openOnce(dataFd_, path_, ".dat", ids_.data)) return false;
  if (!wasOpen && heldDataFd_ >= 0 && isReplaced(dataFd_, heldDataFd_)) {  // SD1
    std::swap(dataFd_, heldDataFd_);
    ids_.data = inodeOf(dataFd_);
  }
  dropHeldData();
  return true;
}

void StoreFiles::closeIdx() {
  dropHeldData();
  closeOnce(idxFd_);
}

void StoreFiles::closeData() { closeOnce(dataFd_); }

void StoreFiles::dropHeldData() { closeOnce(heldDataFd_); }

void StoreFiles::makeEmpty() {
  closeIdx();
  closeData();
  if (!createEmpty(".dat")) printLine("STORE: restart open .dat failed");
  else if (!createEmpty(".idx")) printLine("STORE: restart open .idx failed");
}

// A new, empty file.  Truncated in case the old one could not be removed.
bool StoreFiles::createEmpty(const char* suffix) const {
  const std::string name = path_ + suffix;
  (void)::unlink(name.c_str());
  const int fd = openFile(name.c_str(), O_RDWR | O_CREAT | O_TRUNC);
  if (fd >= 0) ::close(fd);
  return fd >= 0;
}

bool StoreFiles::holdData() {
  if (heldData() >= 0) return true;
  heldDataFd_ = openFile((path_ + ".dat").c_str(), O_RDWR);
  return heldDataFd_ >= 0;
}

long long StoreFiles::dataLength() const { return lengthOf(heldData()); }

bool StoreFiles::areNamed() const {
  return inodeOfPath(path_ + ".idx") == inodeOf(idxFd_) && inodeOfPath(path_ + ".dat") == inodeOf(heldData());
}

void StoreFiles::replace(int idx, int data) {
  closeIdx();
  closeData();
  idxFd_ = idx;
  dataFd_ = data;
  ids_ = {inodeOf(idxFd_), inodeOf(dataFd_)};
}

void StoreFiles::sync() const {
  heldOutput.write();
  (void)::fsync(idxFd_);
  (void)::fsync(heldData());
}

bool StoreFiles::syncIdx() const { return ::fsync(idxFd_) == 0; }

bool StoreFiles::setIdxLength(unsigned int slots) const {
  return ::ftruncate(idxFd_, offsetInIndex(slots)) == 0;
}

bool StoreFiles::setDataLength(unsigned long long bytes) const {
  return ::ftruncate(dataFd_, static_cast<off_t>(bytes)) == 0;
}

bool StoreFiles::writeSlot(unsigned int slot, const IndexSlot& content) const {
  const SlotBytes bytes = encodeSlot(content);
  const ssize_t written = writeAt(idxFd_, {bytes.data(), bytes.size()}, offsetInIndex(slot));
  if (hasWritten(written, bytes.size())) return true;
  if (written < 0 && isSeekError(errno)) printLine("STORE: writeIndexent lseek failed");
  else printLine("STORE: writeIndexent write failed");
  return false;
}

bool StoreFiles::tryWriteSlot(unsigned int slot, const IndexSlot& content) const {
  const SlotBytes bytes = encodeSlot(content);
  return hasWritten(writeAt(idxFd_, {bytes.data(), bytes.size()}, offsetInIndex(slot)), bytes.size());
}

bool StoreFiles::writeBlob(unsigned int offset, Bytes first, Bytes second) const {
  const ssize_t written = writeAt(dataFd_, first, second, static_cast<off_t>(offset));
  if (hasWritten(written, first.size + second.size)) return true;
  if (written < 0 && isSeekError(errno)) printLine("STORE: writeMsg lseek failed");
  else if (written < static_cast<ssize_t>(kLengthBytes)) printLine("STORE: writeMsg write header failed");
  else printLine("STORE: writeMsg write failed");
  return false;
}

bool StoreFiles::tryWriteBlob(unsigned int offset, Bytes blob) const {
  return hasWritten(writeAt(dataFd_, blob, static_cast<off_t>(offset)), blob.size);
}

message StoreFiles::readBlob(unsigned int offset, unsigned int expectedBytes) const {
  BlobBuffer blob;
  const std::size_t first = std::clamp<std::size_t>(expectedBytes, kLengthBytes, kLongestBlob);
  ssize_t got = readAt(dataFd_, blob.reserve(first, 0), first, static_cast<off_t>(offset));
  if (got < 0 && isSeekError(errno)) return unreadable("STORE: readMsg lseek failed");
  if (got < static_cast<ssize_t>(kLengthBytes)) return unreadable("STORE: readMsg read header failed");

  const unsigned int length = decodeLength(blob.bytes(), ByteOrder::kLittle);
  if (length < kLengthBytes) {
    printLine("STORE: readMsg invalid header: msg len ", length);
    return message();
  }
  if (length > first) {
    unsigned char* rest = blob.reserve(length, first) + first;
    got += std::max<ssize_t>(
        0, readAt(dataFd_, rest, length - first, static_cast<off_t>(offset) + static_cast<off_t>(first)));
  }
  if (got < static_cast<ssize_t>(length)) return unreadable("STORE: readMsg read failed");
  return message(blob.bytes() + kLengthBytes, length - static_cast<unsigned int>(kLengthBytes));
}

}  // namespace kl

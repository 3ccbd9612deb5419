// The two files of a store: opening them, and one record of each at a time.

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <utility>

#include "base/descriptor.h"
#include "base/file_io.h"
#include "kl/store.h"
#include "store/files/format.h"
#include "store/core.h"
#include "store/files/blob.h"
#include "store/report.h"

namespace kl {
namespace {

void closeOnce(int& fd) {
  if (fd >= 0) ::close(fd);
  fd = -1;
}

bool openOnce(int& fd, const std::string& basePath, const char* suffix, unsigned long long& inode) {
  if (fd >= 0) return true;
  fd = openFile((basePath + suffix).c_str(), O_RDWR);
  if (fd >= 0) inode = inodeOf(fd);
  return fd >= 0;
}

// Somebody has put another data file in the place of the one that is held.
bool isReplaced(int named, int held) {
  struct stat file;
  return ::fstat(named, &file) == 0 && S_ISREG(file.st_mode) && inodeOf(named) != inodeOf(held);
}

bool reportUnless(bool succeeded, const char* failure) {
  if (!succeeded) reportStore(failure);
  return succeeded;
}

constexpr std::size_t kLongestRecord = 0xFFFF;

message unreadable(const char* failure) {
  reportStore(failure);
  return message();
}

}  // namespace

message Store::readMsg(unsigned int offset) { return readRecord(offset, 0); }

bool Store::writeMsg(unsigned int offset, const std::vector<unsigned char>& bytes) {
  const LengthBytes length = encodeLength(bytes.size());
  return Internals::writeRecord(*this, offset, {length.data(), length.size()}, {bytes.data(), bytes.size()});
}

bool Store::Internals::writeRecord(Store& store, unsigned int offset, Bytes first, Bytes second) {
  const LockBracket bracket(store.internals_->lock);
  if (!store.openData()) return false;
  const ssize_t written = writeAt(store.dataFd_, first, second, static_cast<off_t>(offset));
  if (hasWritten(written, first.size + second.size)) {
    store.flush();
    return true;
  }
  if (written < 0 && isSeekError(errno)) reportStore("STORE: writeMsg lseek failed");
  else if (written < static_cast<ssize_t>(kLengthBytes)) reportStore("STORE: writeMsg write header failed");
  else reportStore("STORE: writeMsg write failed");
  return false;
}

bool Store::writeIndexent(unsigned int id, Entry& e) {
  const LockBracket bracket(internals_->lock);
  (void)openIdx();
  const bool wouldLeaveGap = idxFd_ >= 0 && internals_->isUnwritten(e.slot);
  if (wouldLeaveGap) return reportUnless(false, "STORE: writeIndexent write failed");
  const SlotBytes record = encodeSlot({id, e.size, e.lifetime});
  const off_t place = static_cast<off_t>(e.slot) * static_cast<off_t>(kSlotRecordBytes);
  const ssize_t written = writeAt(idxFd_, {record.data(), record.size()}, place);
  if (hasWritten(written, record.size())) {
    std::erase_if(internals_->unfreedSlots, [&e](const Entry& slot) { return slot.slot == e.slot; });
    flush();
    return true;
  }
  if (written < 0 && isSeekError(errno)) reportStore("STORE: writeIndexent lseek failed");
  else reportStore("STORE: writeIndexent write failed");
  return false;
}

bool Store::openIdx() { return reportUnless(Internals::openIdx(*this), "STORE: openIdx failed"); }
bool Store::openData() { return reportUnless(Internals::openData(*this), "STORE: openData failed"); }
void Store::closeIdx() {
  internals_->dropHeldData();
  closeOnce(idxFd_);
}
void Store::closeData() { closeOnce(dataFd_); }

bool Store::Internals::openIdx(Store& store) {
  return openOnce(store.idxFd_, store.path_, ".idx", store.internals_->ids.idx);
}

bool Store::Internals::openData(Store& store) {
  Internals& internals = *store.internals_;
  const bool wasOpen = store.dataFd_ >= 0;
  if (!openOnce(store.dataFd_, store.path_, ".dat", internals.ids.data)) return false;
  if (!wasOpen && internals.heldDataFd >= 0 && isReplaced(store.dataFd_, internals.heldDataFd)) {
    std::swap(store.dataFd_, internals.heldDataFd);
    internals.ids.data = inodeOf(store.dataFd_);
  }
  internals.dropHeldData();
  return true;
}

bool Store::Internals::holdData(Store& store) {
  if (heldData(store) >= 0) return true;
  int& fd = store.internals_->heldDataFd;
  fd = openFile((store.path_ + ".dat").c_str(), O_RDWR);
  return fd >= 0;
}

int Store::Internals::heldData(const Store& store) {
  return store.dataFd_ >= 0 ? store.dataFd_ : store.internals_->heldDataFd;
}

void Store::Internals::dropHeldData() { closeOnce(heldDataFd); }

// Reads `expectedBytes` at once and what the record has more, if any, with a second call.
message Store::readRecord(unsigned int offset, unsigned int expectedBytes) {
  (void)openData();
  RecordRoom record;
  const std::size_t first = std::clamp<std::size_t>(expectedBytes, kLengthBytes, kLongestRecord);
  ssize_t got = readAt(dataFd_, record.reserve(first, 0), first, static_cast<off_t>(offset));
  if (got < 0 && isSeekError(errno)) return unreadable("STORE: readMsg lseek failed");
  if (got < static_cast<ssize_t>(kLengthBytes)) return unreadable("STORE: readMsg read header failed");

  const unsigned int length = decodeLength(record.bytes(), ByteOrder::kLittle);
  if (length < kLengthBytes) {
    reportStore("STORE: readMsg invalid header: msg len ", length);
    return message();
  }
  if (length > first) {
    unsigned char* rest = record.reserve(length, first) + first;
    got += std::max<ssize_t>(
        0, readAt(dataFd_, rest, length - first, static_cast<off_t>(offset) + static_cast<off_t>(first)));
  }
  if (got < static_cast<ssize_t>(length)) return unreadable("STORE: readMsg read failed");
  return message(record.bytes() + kLengthBytes, length - static_cast<unsigned int>(kLengthBytes));
}

}  // namespace kl

// A store as a whole: loading it from its index, emptying it, removing its files.
//
// An index belongs to its data file if the sizes of its slots add up to that file's length.  If they do not,
// the index may be one of the older layout; if they do not in that layout either, it is unusable.
//
// A writer passes through states in which they do not.  So a store is first loaded without the lock and without a
// word; only if that fails, the lock is taken, what was left half done is finished, and the store is loaded again.

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "base/descriptor.h"
#include "base/file_io.h"
#include "kl/store.h"
#include "store/files/format.h"
#include "store/files/index_reader.h"
#include "store/core.h"
#include "store/journal/journal.h"
#include "store/report.h"
#include "store/space/new_files.h"

namespace kl {
namespace {

// Nothing is under way: the lock file is empty, and there are no files of a compaction.
bool isAtRest(const std::string& path) {
  struct stat file;
  return (::stat((path + ".lock").c_str(), &file) != 0 || file.st_size == 0) &&
         ::stat((path + ".dat.new").c_str(), &file) != 0 && ::stat((path + ".idx.new").c_str(), &file) != 0;
}

}  // namespace

bool Store::readIndex(bool convert) {
  const bool wasOpen = idxFd_ >= 0;
  if (!convert && Internals::looksWhole(*this)) return true;
  if (!wasOpen) closeIdx();  // it may have been replaced
  const LockHold hold(internals_->lock);
  if (!convert && internals_->lock.isHeld()) {
    const bool areOldFiles = recoverLengths(path_, internals_->lock.fd());
    internals_->lock.setDurableBytes(0);
    if (!areOldFiles) NewFiles::finishRenames(path_);
    NewFiles::removeLeftOvers(path_);
  }
  return loadIndex(convert);
}

bool Store::loadIndex(bool convert) {
  cleanup();
  if (!openIdx() || !decodeIndex(convert)) return false;
  struct stat data;
  if (::stat((path_ + ".dat").c_str(), &data) != 0) {
    reportStore("STORE: readIndex stat failed");
    return false;
  }
  if (Internals::fits(*this, data.st_size)) {
    internals_->isOlderLayout = convert;
    (void)Internals::holdData(*this);  // while nobody can replace it
    if (convert) compact(true);
    return true;
  }
  if (!convert) return loadIndex(true);
  reportStore("STORE: readIndex size mismatch");
  return false;
}

// Lengths that are noted in the lock file count for the old files, until the new ones have their names for good.
void Store::restart() {
  const LockBracket bracket(internals_->lock);
  const bool isSynced = internals_->durability == Durability::kPowerLoss;
  closeIdx();
  closeData();
  cleanup();
  if (!createEmpty(".dat")) reportStore("STORE: restart open .dat failed");
  else if (!createEmpty(".idx")) reportStore("STORE: restart open .idx failed");
  if (isSynced) NewFiles::syncFolder(path_);
  if (!internals_->lock.isHeld()) return;
  internals_->lock.dropRecords(0);
  if (isSynced) (void)::fsync(internals_->lock.fd());
}

void Store::deleteFiles() {
  const LockBracket bracket(internals_->lock);
  for (const char* suffix : {".idx", ".dat", ".lock"}) (void)::unlink((path_ + suffix).c_str());
}

bool Store::decodeIndex(bool convert) {
  const IndexReader::End end = Internals::readSlots(*this, convert ? ByteOrder::kBig : ByteOrder::kLittle);
  if (end == IndexReader::End::kSeekFailed) reportStore("STORE: readIndex lseek failed");
  if (end == IndexReader::End::kReadFailed) reportStore("STORE: readIndex read failed");
  return end == IndexReader::End::kReached;
}

IndexReader::End Store::Internals::readSlots(Store& store, ByteOrder order) {
  IndexReader index(store.idxFd_);
  while (const unsigned char* bytes = index.next()) {
    const SlotRecord record = decodeSlot(bytes, order);
    store.addSlot(record.id, record.size, record.lifetime);
  }
  return index.end();
}

// With nothing under way behind their opening, the files are a pair if both still have their names.
bool Store::Internals::looksWhole(Store& store) {
  store.cleanup();
  const auto isNamed = [&store](const char* suffix, int fd) {
    return inodeOfPath(store.path_ + suffix) == inodeOf(fd);
  };
  return isAtRest(store.path_) && openIdx(store) && holdData(store) &&
         readSlots(store, ByteOrder::kLittle) == IndexReader::End::kReached &&
         fits(store, lengthOf(heldData(store))) && isAtRest(store.path_) && isNamed(".idx", store.idxFd_) &&
         isNamed(".dat", heldData(store));
}

bool Store::Internals::fits(const Store& store, long long dataBytes) {
  return !store.internals_->exceedsFile && dataBytes == static_cast<long long>(store.dataSize_);
}

bool Store::Internals::isConverted(Store& store) {
  if (store.internals_->isOlderLayout) store.compact(true);
  return !store.internals_->isOlderLayout;
}

void Store::addSlot(unsigned int id, unsigned int size, unsigned int lifetime) {
  const Entry entry{dataSize_, size, slotCount_, lifetime};
  dataSize_ += size;
  if (dataSize_ < size) internals_->exceedsFile = true;
  ++slotCount_;
  if (id == kFreeId) {
    internals_->freeSlots.pushBack(entry, true);
    countFreed(entry);
  } else {
    // Kept on purpose: of two slots with one id the first one counts, the other one is neither free nor found.
    // Held by StoreIndex.TheFirstOfTwoSlotsWithOneIdCounts.
    const std::size_t before = entries_.size();
    entries_.try_emplace(entries_.end(), id, entry);
    if (entries_.size() > before) internals_->places.put({id, entry.offset, entry.size});
  }
}

// A new, empty file.  Truncated in case the old one could not be removed.
bool Store::createEmpty(const char* suffix) {
  const std::string name = path_ + suffix;
  (void)::unlink(name.c_str());
  const int fd = openFile(name.c_str(), O_RDWR | O_CREAT | O_TRUNC);
  if (fd >= 0) ::close(fd);
  return fd >= 0;
}

}  // namespace kl

// A store as a whole: opening it, loading it from its index, emptying it, removing its files.
//
// An index belongs to its data file if the sizes of its slots add up to that file's length.  If they do not,
// the index may be one of the older layout; if they do not in that layout either, it is unusable.
//
// A writer passes through states in which they do not.  So a store is first loaded without the lock and without a
// word; only if that fails, the lock is taken, what was left half done is finished, and the store is loaded again.
// Held by StoreProcesses.AThousandOpenersBesideABusyWriterNeverEmptyTheStore.

#include <sys/stat.h>
#include <unistd.h>

#include "base/report.h"
#include "store/core.h"
#include "store/files/index_reader.h"

namespace kl {
namespace {

constexpr mode_t kOwnersFolder = 0700;

void makeParentFolders(const std::string& path) {
  for (std::size_t slash = path.find('/', 1); slash != std::string::npos; slash = path.find('/', slash + 1))
    (void)::mkdir(path.substr(0, slash).c_str(), kOwnersFolder);
}

IndexReader::End readSlots(int idx, ByteOrder order, Slots& slots) {
  IndexReader index(idx);
  while (const unsigned char* bytes = index.next()) slots.append(decodeSlot(bytes, order));
  return index.end();
}

}  // namespace

Store::Core::Core(const std::string& path, unsigned int lifetime, Durability durability)
    : files_(path), journal_(path, durability == Durability::kPowerLoss), defaultLifetime_(lifetime) {
  makeParentFolders(path);
  if (!tryLoad()) {
    closeIdx();  // it may be replaced while this waits for the lock
    const QuietLockGuard guard(journal_.lock());
    journal_.recover(guard);
    if (!readIndex(false)) restart();
  }
  if (journal_.survivesPowerLoss()) files_.sync();
  checkForBloat();
}

Store::Core::~Core() { cancelTimers(); }

bool Store::Core::readIndex(bool convert) {
  const bool wasOpen = files_.idx() >= 0;
  if (!convert && tryLoad()) return true;
  if (!wasOpen) closeIdx();  // it may have been replaced
  const QuietLockGuard guard(journal_.lock());
  journal_.recover(guard);
  if (!convert && journal_.lock().isHeld()) journal_.recoverFiles();
  return load(convert);
}

// Loads the index without the lock and without a word.  False if anything is amiss.  With nothing under way behind
// their opening, the files are a pair if both still have their names.
bool Store::Core::tryLoad() {
  cleanup();
  return isAtRest() && files_.openIdx() && files_.holdData() &&
         readSlots(files_.idx(), ByteOrder::kLittle, slots_) == IndexReader::End::kReached &&
         slots_.addUpTo(files_.dataLength()) && isAtRest() && files_.areNamed();
}

// Nothing is under way: the lock file is empty, and there are no files of a compaction.
bool Store::Core::isAtRest() const {
  const std::string& path = files_.path();
  struct stat file;
  return (::stat((path + ".lock").c_str(), &file) != 0 || file.st_size == 0) &&
         ::stat((path + ".dat.new").c_str(), &file) != 0 && ::stat((path + ".idx.new").c_str(), &file) != 0;
}

// Needs: the lock.  Without `convert` both layouts are tried.
bool Store::Core::load(bool convert) {
  cleanup();
  if (!openIdx() || !decodeIndex(convert)) return false;
  struct stat data;
  if (::stat((files_.path() + ".dat").c_str(), &data) != 0) {
    printLine("STORE: readIndex stat failed");
    return false;
  }
  if (slots_.addUpTo(data.st_size)) {
    isOlderLayout_ = convert;
    (void)files_.holdData();  // while nobody can replace it
    if (convert) compact(true);
    return true;
  }
  if (!convert) return load(true);
  printLine("STORE: readIndex size mismatch");
  return false;
}

bool Store::Core::decodeIndex(bool convert) {
  const ByteOrder order = convert ? ByteOrder::kBig : ByteOrder::kLittle;
  const IndexReader::End end = readSlots(files_.idx(), order, slots_);
  if (end == IndexReader::End::kSeekFailed) printLine("STORE: readIndex lseek failed");
  if (end == IndexReader::End::kReadFailed) printLine("STORE: readIndex read failed");
  return end == IndexReader::End::kReached;
}

void Store::Core::cleanup() {
  slots_.clear();
  isOlderLayout_ = false;
}

// Durable lengths in the journal count for the old files, until the new ones have their names for good.
void Store::Core::restart() {
  const ReportingLockGuard guard(journal_.lock());
  journal_.recover(guard);
  files_.makeEmpty();
  cleanup();
  if (journal_.survivesPowerLoss()) journal_.syncFolder();
  journal_.clear();
}

void Store::Core::deleteFiles() {
  const ReportingLockGuard guard(journal_.lock());
  journal_.recover(guard);
  for (const char* suffix : {".idx", ".dat", ".lock"}) (void)::unlink((files_.path() + suffix).c_str());
}

}  // namespace kl

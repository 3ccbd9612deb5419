// The journal: what the lock file holds while something is under way.
//
//     a change        intent, or a marked end where there is no room for one      until it is complete
//     a compaction    commit                                                      until the files are renamed
//     new slots       durable lengths, in front of the others                     until the next flush
//
// SJ1  a change is noted before the first byte of it is written, and its note is dropped behind the last
// SJ2  lengths are noted only if both files were synced since they had them
// SJ3  the new data file is renamed first: a new index that is left alone belongs to the data file
//
// Held by StoreChange.IsNotedBeforeItsWritesAndWithdrawnBehindThem,
// StoreChange.DurableLengthsThatHadNoRoomAreMadeAnewBeforeTheNextSlot and
// StoreRecovery.ACommitIsFinishedFromWhereverItStopped.

#include "store/journal/journal.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <utility>
#include <vector>

#include "base/descriptor.h"
#include "base/file_io.h"

namespace kl {
namespace {

constexpr std::size_t kCopyBytes = 65536;

bool renameNew(const std::string& basePath, const char* suffix) {
  const std::string name = basePath + suffix;
  return std::rename((name + ".new").c_str(), name.c_str()) == 0;
}

// The index becomes shorter or stays as long as it was, so that this needs no room.
bool copyOver(const std::string& from, const std::string& to) {
  const Descriptor source(from.c_str(), O_RDONLY);
  const Descriptor target(to.c_str(), O_RDWR);
  if (!source || !target) return false;
  std::vector<unsigned char> buffer(kCopyBytes);
  off_t done = 0;
  for (;;) {
    const ssize_t got = readAt(source.fd(), buffer.data(), buffer.size(), done);
    if (got < 0) return false;
    if (got == 0) break;
    const auto part = static_cast<std::size_t>(got);
    if (!hasWritten(writeAt(target.fd(), {buffer.data(), part}, done), part)) return false;
    done += got;
  }
  return ::ftruncate(target.fd(), done) == 0 && ::fsync(target.fd()) == 0;
}

}  // namespace

bool Journal::note(Intent& intent) { return intent.write(lock_.fd(), lengthsBytes_); }

void Journal::markEnd(const FileLengths& before) {
  withdraw();
  (void)::ftruncate(lock_.fd(), static_cast<off_t>(lengthsBytes_ + endMarkBytes(before)));
}

// If there was no room for the lengths of the last flush, the files are synced before the next append tries again
// (SJ2).
void Journal::noteLengths(const StoreFiles& files, const FileLengths& lengths) {
  if (!survivesPowerLoss_ || lengthsBytes_ > 0) return;
  if (!std::exchange(areLengthsDurable_, false)) files.sync();
  const DurableBytes entry = encodeDurable(files.ids(), lengths);
  if (!hasWritten(writeAt(lock_.fd(), {entry.data(), entry.size()}, 0), entry.size())) return cutBackTo(0);
  lengthsBytes_ = entry.size();
  areLengthsDurable_ = true;
  (void)::fsync(lock_.fd());
}

// The entry goes when the files' lengths are durable themselves, before anybody appends again.
void Journal::dropLengths() {
  areLengthsDurable_ = true;
  clear();
}

Journal::Replaced Journal::replaceFiles(const FileIds& fresh) {
  if (survivesPowerLoss_) syncFolder();  // the new names, before anything relies on them
  if (lock_.isHeld()) {
    const CommitBytes entry = encodeCommit(fresh);
    (void)writeAt(lock_.fd(), {entry.data(), entry.size()}, static_cast<off_t>(lengthsBytes_));
    if (survivesPowerLoss_) (void)::fsync(lock_.fd());
  }
  const bool isDataReplaced = putDataInPlace(path_);
  const bool isIndexReplaced = isDataReplaced && putIndexInPlace(path_);  // SJ3
  syncFolder();
  cutDurablyBackTo(isDataReplaced ? 0 : lengthsBytes_);  // lengths that were noted are those of the old files
  if (!isDataReplaced) return Replaced::kNone;
  return isIndexReplaced ? Replaced::kBoth : Replaced::kInPart;
}

void Journal::clear() { cutDurablyBackTo(0); }

void Journal::syncFolder() const {
  const std::size_t slash = path_.rfind('/');
  const std::string folder = slash == std::string::npos ? "." : path_.substr(0, slash + 1);
  const Descriptor opened(folder.c_str(), O_RDONLY | O_DIRECTORY);
  if (opened) (void)::fsync(opened.fd());
}

void Journal::cutDurablyBackTo(std::size_t bytes) {
  if (!lock_.isHeld()) return;
  cutBackTo(bytes);
  if (survivesPowerLoss_) (void)::fsync(lock_.fd());
}

// An entry that cannot be cut off is spoilt: carried out later, it would undo what came after it.
void Journal::cutBackTo(std::size_t bytes) {
  lengthsBytes_ = bytes;
  if (::ftruncate(lock_.fd(), static_cast<off_t>(bytes)) != 0)
    (void)writeAt(lock_.fd(), {"\0\0\0\0", 4}, static_cast<off_t>(bytes));
}

bool putDataInPlace(const std::string& basePath) { return renameNew(basePath, ".dat"); }

bool putIndexInPlace(const std::string& basePath) {
  if (renameNew(basePath, ".idx")) return true;
  const std::string fresh = basePath + ".idx.new";
  return copyOver(fresh, basePath + ".idx") && ::unlink(fresh.c_str()) == 0;
}

// The data file last, so that a new index is never left alone.
void removeNewFiles(const std::string& basePath) {
  (void)::unlink((basePath + ".idx.new").c_str());
  (void)::unlink((basePath + ".dat.new").c_str());
}

}  // namespace kl

// Finishes what a process that was killed left half done.
//
//     the lock file holds        and that is what happens
//     nothing                    nothing
//     part of an entry           it is dropped: the files were not touched yet
//     a whole intent             its steps are carried out (again), then it is dropped
//     zeros                      what is behind so many slots is cut off if it is not whole
//     a whole commit             the new files that are still there are renamed over the old ones
//     durable lengths            stay, except when a store is opened: if the files disagree they are cut back
//
// SR1  a step that was done already may be done again: it writes the same bytes at the same offset
// SR2  a journal entry is void for files that took the names of those that it is about
// SR3  the old files stay both or go both
//
// Held by StoreKills.AKilledOpenerLeavesTheWorkToTheNext, StoreRecovery.AnIntentForFilesThatAreGoneIsDropped and
// StoreRecovery.ACommitWhoseDataFileStaysWhereItIsLeavesTheOldFiles.

#include "store/journal/journal.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <set>
#include <vector>

#include "base/descriptor.h"
#include "base/file_io.h"
#include "store/files/format.h"
#include "store/files/index_reader.h"

namespace kl {
namespace {

constexpr off_t kLongestFile = 0x8000000;

std::vector<unsigned char> contentOf(int fd) {
  struct stat file;
  if (::fstat(fd, &file) != 0 || file.st_size > kLongestFile) return {};
  std::vector<unsigned char> content(static_cast<std::size_t>(file.st_size));
  const ssize_t got = readAt(fd, content.data(), content.size(), 0);
  content.resize(got < 0 ? 0 : static_cast<std::size_t>(got));
  return content;
}

FileIds idsOf(int idx, int data) { return {inodeOf(idx), inodeOf(data)}; }

bool writeBytes(int fd, const Intent::Step& step) {
  return hasWritten(writeAt(fd, step.bytes, static_cast<off_t>(step.offset)), step.bytes.size);
}

bool extend(int data, unsigned long long length) {
  const long long now = lengthOf(data);
  return now >= static_cast<long long>(length) || ::ftruncate(data, static_cast<off_t>(length)) == 0;
}

bool carryOut(const Intent::Step& step, int idx, int data) {
  switch (step.kind) {
    case Intent::Kind::kWriteIdx: return writeBytes(idx, step);
    case Intent::Kind::kWriteData: return writeBytes(data, step);
    case Intent::Kind::kExtend: return extend(data, step.offset);
    case Intent::Kind::kRestore: break;
  }
  return true;
}

void cutTo(int fd, unsigned long long length) {
  if (lengthOf(fd) > static_cast<long long>(length)) (void)::ftruncate(fd, static_cast<off_t>(length));
}

// There was no room for the change: the files become what they were before it.
void takeBack(const IntentReader& intent, int idx, int data) {
  for (const Intent::Step& step : intent.steps())
    if (step.kind == Intent::Kind::kRestore) (void)writeBytes(idx, step);
  cutTo(idx, intent.before().idx);
  cutTo(data, intent.before().data);
}

// All steps or none.
bool redo(const IntentReader& intent, int idx, int data) {
  for (const Intent::Step& step : intent.steps())
    if (!carryOut(step, idx, data)) {
      takeBack(intent, idx, data);
      return false;
    }
  return true;
}

void redo(const IntentReader& intent, const std::string& basePath) {
  const Descriptor idx((basePath + ".idx").c_str(), O_RDWR);
  const Descriptor data((basePath + ".dat").c_str(), O_RDWR);
  if (idx && data && idsOf(idx.fd(), data.fd()) == intent.ids()) (void)redo(intent, idx.fd(), data.fd());
}

// The slots behind the first `count` stay if the files agree and no entry is there twice.
void cutBackToSlots(const std::string& basePath, unsigned long long count) {
  const Descriptor idx((basePath + ".idx").c_str(), O_RDWR);
  const Descriptor data((basePath + ".dat").c_str(), O_RDWR);
  std::set<unsigned int> ids;
  unsigned long long slots = 0;
  unsigned long long bytesBefore = 0;
  bool isWhole = filesAgree(basePath + ".idx", basePath + ".dat");
  IndexReader index(idx.fd());
  for (const unsigned char* bytes = index.next(); bytes != nullptr; bytes = index.next(), ++slots) {
    const IndexSlot slot = decodeSlot(bytes, ByteOrder::kLittle);
    if (slots < count) bytesBefore += slot.size;
    const bool isRepeated = !slot.isFree() && !ids.insert(slot.id).second;
    if (isRepeated && slots >= count) isWhole = false;
  }
  if (isWhole || slots < count) return;
  cutTo(idx.fd(), count * kSlotBytes);
  cutTo(data.fd(), bytesBefore);
}

// The index keeps its old file where the data file does (SR3).
void finishCommit(const std::string& basePath, const FileIds& fresh) {
  if (inodeOfPath(basePath + ".dat.new") == fresh.data && !putDataInPlace(basePath)) return;
  if (inodeOfPath(basePath + ".idx.new") == fresh.idx) (void)putIndexInPlace(basePath);
}

}  // namespace

[[gnu::cold]] bool Journal::carryOut(const Intent& intent, const StoreFiles& files) {
  if (survivesPowerLoss_) (void)::fsync(lock_.fd());
  IntentReader steps;
  const bool isDone =
      steps.read(static_cast<const unsigned char*>(intent.written().data), intent.written().size) &&
      redo(steps, files.idx(), files.data());
  if (survivesPowerLoss_) files.sync();
  if (isDone && survivesPowerLoss_) dropLengths();
  else cutDurablyBackTo(lengthsBytes_);
  return isDone;
}

void Journal::recover(const LockGuard& guard) {
  if (guard.isOutermost()) lengthsBytes_ = lock_.isHeld() ? recoverChange() : 0;
}

void Journal::recoverFiles() {
  const bool areOldFiles = recoverLengths();
  lengthsBytes_ = 0;
  if (!areOldFiles) finishRenames();
  removeNewFiles(path_);
}

// Counts the bytes that durable lengths take at the start of the lock file: nothing else is left in it.
std::size_t Journal::recoverChange() const {
  if (::lseek(lock_.fd(), 0, SEEK_END) <= 0) return 0;  // the cheapest look at a file's length

  const std::vector<unsigned char> content = contentOf(lock_.fd());
  FileIds ids;
  FileLengths lengths;
  const std::size_t durable = decodeDurable(content.data(), content.size(), ids, lengths) ? kDurableBytes : 0;
  const unsigned char* rest = content.data() + durable;
  const std::size_t restBytes = content.size() - durable;
  IntentReader intent;
  if (intent.read(rest, restBytes)) {
    redo(intent, path_);
  } else if (decodeCommit(rest, restBytes, ids)) {
    finishCommit(path_, ids);
    syncFolder();
  } else if (const long long slots = decodeEndMark(rest, restBytes); slots >= 0) {
    cutBackToSlots(path_, static_cast<unsigned long long>(slots));
  }
  if (restBytes > 0 || durable == 0) (void)::ftruncate(lock_.fd(), static_cast<off_t>(durable));
  return durable;
}

// Cuts both files back to the durable lengths if they disagree, makes them durable, and empties the lock file.  False
// if it has no lengths, or those of other files.
bool Journal::recoverLengths() const {
  const std::vector<unsigned char> content = contentOf(lock_.fd());
  FileIds ids;
  FileLengths lengths;
  if (!decodeDurable(content.data(), content.size(), ids, lengths)) return false;
  const Descriptor idx((path_ + ".idx").c_str(), O_RDWR);
  const Descriptor data((path_ + ".dat").c_str(), O_RDWR);
  const bool isOfThese = idx && data && idsOf(idx.fd(), data.fd()) == ids;
  if (isOfThese && !filesAgree(path_ + ".idx", path_ + ".dat")) {
    cutTo(idx.fd(), lengths.idx);
    cutTo(data.fd(), lengths.data);
  }
  (void)::fsync(idx.fd());
  (void)::fsync(data.fd());
  (void)::ftruncate(lock_.fd(), 0);
  (void)::fsync(lock_.fd());
  return isOfThese;
}

// Finishes a compaction that had no room for its commit: a new index that is alone and fits the data file (SJ3).
void Journal::finishRenames() const {
  if (inodeOfPath(path_ + ".idx.new") == 0 || inodeOfPath(path_ + ".dat.new") != 0) return;
  if (!filesAgree(path_ + ".idx.new", path_ + ".dat")) return;
  (void)putIndexInPlace(path_);
  syncFolder();
}

}  // namespace kl

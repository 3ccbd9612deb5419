// Finishes what a process that was killed left half done.
//
//     the lock file holds        and that is what happens
//     nothing                    nothing
//     part of a record           it is dropped: the files were not touched yet
//     a whole intent             its steps are carried out (again), then it is dropped
//     zeros                      what is behind so many slots is cut off if it is not whole
//     a whole commit             the new files that are still there take the old ones' places
//     a durable record           stays, except when a store is opened: if the files disagree they are cut back
//
// A step that was done already may be done again: it writes the same bytes at the same place.

#include "store/journal/journal.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <set>
#include <vector>

#include "base/descriptor.h"
#include "base/file_io.h"
#include "store/files/format.h"
#include "store/files/index_reader.h"
#include "store/journal/journal_entries.h"
#include "store/space/new_files.h"

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

bool writeBytes(int fd, const IntentReader::Item& item) {
  return hasWritten(writeAt(fd, item.bytes, static_cast<off_t>(item.place)), item.bytes.size);
}

bool extend(int data, unsigned long long length) {
  const long long now = lengthOf(data);
  return now >= static_cast<long long>(length) || ::ftruncate(data, static_cast<off_t>(length)) == 0;
}

bool carryOut(const IntentReader::Item& item, int idx, int data) {
  switch (item.step) {
    case Step::kWriteIdx: return writeBytes(idx, item);
    case Step::kWriteData: return writeBytes(data, item);
    case Step::kExtend: return extend(data, item.place);
    case Step::kRestore: break;
  }
  return true;
}

void cutTo(int fd, unsigned long long length) {
  if (lengthOf(fd) > static_cast<long long>(length)) (void)::ftruncate(fd, static_cast<off_t>(length));
}

// There was no room for the change: the files become what they were before it.
void takeBack(const IntentReader& intent, int idx, int data) {
  for (const IntentReader::Item& item : intent.items())
    if (item.step == Step::kRestore) (void)writeBytes(idx, item);
  cutTo(idx, intent.before().idx);
  cutTo(data, intent.before().data);
}

void redo(const IntentReader& intent, const std::string& basePath) {
  const Descriptor idx((basePath + ".idx").c_str(), O_RDWR);
  const Descriptor data((basePath + ".dat").c_str(), O_RDWR);
  if (!idx || !data || !(idsOf(idx.fd(), data.fd()) == intent.ids())) return;
  for (const IntentReader::Item& item : intent.items())
    if (!carryOut(item, idx.fd(), data.fd())) return takeBack(intent, idx.fd(), data.fd());
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
    const SlotRecord record = decodeSlot(bytes, ByteOrder::kLittle);
    if (slots < count) bytesBefore += record.size;
    const bool isRepeated = !record.isFree() && !ids.insert(record.id).second;
    if (isRepeated && slots >= count) isWhole = false;
  }
  if (isWhole || slots < count) return;
  cutTo(idx.fd(), count * kSlotRecordBytes);
  cutTo(data.fd(), bytesBefore);
}

}  // namespace

std::size_t recoverChange(const std::string& basePath, int lockFd) {
  if (::lseek(lockFd, 0, SEEK_END) <= 0) return 0;  // the cheapest look at a file's length

  const std::vector<unsigned char> content = contentOf(lockFd);
  FileIds ids;
  FileLengths lengths;
  const std::size_t durable = decodeDurable(content.data(), content.size(), ids, lengths) ? kDurableBytes : 0;
  const unsigned char* rest = content.data() + durable;
  const std::size_t restBytes = content.size() - durable;
  IntentReader intent;
  if (intent.read(rest, restBytes)) redo(intent, basePath);
  else if (decodeCommit(rest, restBytes, ids)) NewFiles::finishCommit(basePath, ids);
  else if (const long long slots = decodeEndMark(rest, restBytes); slots >= 0)
    cutBackToSlots(basePath, static_cast<unsigned long long>(slots));
  if (restBytes > 0 || durable == 0) (void)::ftruncate(lockFd, static_cast<off_t>(durable));
  return durable;
}

bool recoverLengths(const std::string& basePath, int lockFd) {
  const std::vector<unsigned char> content = contentOf(lockFd);
  FileIds ids;
  FileLengths lengths;
  if (!decodeDurable(content.data(), content.size(), ids, lengths)) return false;
  const Descriptor idx((basePath + ".idx").c_str(), O_RDWR);
  const Descriptor data((basePath + ".dat").c_str(), O_RDWR);
  const bool isOfThese = idx && data && idsOf(idx.fd(), data.fd()) == ids;
  if (isOfThese && !filesAgree(basePath + ".idx", basePath + ".dat")) {
    cutTo(idx.fd(), lengths.idx);
    cutTo(data.fd(), lengths.data);
  }
  (void)::fsync(idx.fd());
  (void)::fsync(data.fd());
  (void)::ftruncate(lockFd, 0);
  (void)::fsync(lockFd);
  return isOfThese;
}

bool filesAgree(const std::string& idxPath, const std::string& dataPath) {
  const Descriptor idx(idxPath.c_str(), O_RDONLY);
  struct stat data;
  if (!idx || ::stat(dataPath.c_str(), &data) != 0) return false;
  unsigned long long sum = 0;
  IndexReader index(idx.fd());
  while (const unsigned char* bytes = index.next()) {
    const unsigned int size = decodeSlot(bytes, ByteOrder::kLittle).size;
    if (size == 0) return false;  // a record that was lost and left a hole
    sum += size;
  }
  return index.end() == IndexReader::End::kReached && static_cast<unsigned long long>(data.st_size) == sum;
}

}  // namespace kl

#pragma once
// journal_entries.h: the entries that a journal may hold, as bytes.

#include <array>
#include <cstddef>
#include <vector>

#include "base/file_io.h"
#include "store/files/format.h"
#include "store/files/store_files.h"

namespace kl {

// Collects what one change is going to write, and writes that as one journal entry.
//
// Errors:    what cannot be written whole is no intent to a reader.
// Ownership: borrows the blob until write() has returned.
// Cost:      one system call to write it.
class Intent {
 public:
  enum class Kind : unsigned int {
    kWriteIdx = 0,   // write these bytes at this offset of the index
    kWriteData = 1,  // the same of the data file
    kExtend = 2,     // the data file is at least this long
    kRestore = 3,    // as kWriteIdx, only if the others cannot be done
  };
  struct Step {
    Kind kind;
    unsigned long long offset;  // in the file; of kExtend the length
    Bytes bytes;
  };

  explicit Intent(const FileIds& ids);

  // The files are cut back to these lengths if there is no room for the change.
  void setLengthsBefore(const FileLengths& before);

  void willWriteSlot(unsigned int slot, const IndexSlot& content) { addSlot(Kind::kWriteIdx, slot, content); }
  void willRestoreSlot(unsigned int slot, const IndexSlot& content) {
    addSlot(Kind::kRestore, slot, content);
  }
  void willExtendData(unsigned long long length);
  // The last step of an intent.
  void willWriteBlob(unsigned int offset, Bytes blob);
  // One step of several; the bytes are copied.
  void willWriteOneBlob(unsigned int offset, Bytes blob);

  // Writes the intent at `offset` of the lock file.
  bool write(int lockFd, std::size_t offset);
  // The bytes that were written, if it has no blob as its last step.
  Bytes written() const { return {head_.data(), head_.size()}; }

 private:
  void addSlot(Kind kind, unsigned int slot, const IndexSlot& content);
  void addStep(Kind kind, unsigned long long offset, std::size_t size);

  FileIds ids_;
  std::vector<unsigned char> head_;
  Bytes blob_ = {nullptr, 0};
};

// An intent as it was read back: a view into the bytes that it was read from.
class IntentReader {
 public:
  // True if the bytes begin with a whole intent.
  bool read(const unsigned char* bytes, std::size_t size);

  const FileIds& ids() const { return ids_; }
  const FileLengths& before() const { return before_; }
  const std::vector<Intent::Step>& steps() const { return steps_; }

 private:
  FileIds ids_;
  FileLengths before_;
  std::vector<Intent::Step> steps_;
};

// Without room for an intent, the bare length of the lock file, all of it zeros, stands for the number of slots
// before a change that adds some.  So many bytes:
constexpr std::size_t endMarkBytes(const FileLengths& before) {
  return static_cast<std::size_t>(before.idx / kSlotBytes) + 1;
}
// The number of slots; -1 if the bytes are no such mark.
long long decodeEndMark(const unsigned char* bytes, std::size_t size);

// The commit of a compaction that is complete: both new files are whole and about to be renamed over the old ones.
using CommitBytes = std::array<unsigned char, 28>;
CommitBytes encodeCommit(const FileIds& fresh);
bool decodeCommit(const unsigned char* bytes, std::size_t size, FileIds& fresh);

// The durable lengths, which both files are known to have on disk.
constexpr std::size_t kDurableBytes = 44;
using DurableBytes = std::array<unsigned char, kDurableBytes>;
DurableBytes encodeDurable(const FileIds& ids, const FileLengths& lengths);
bool decodeDurable(const unsigned char* bytes, std::size_t size, FileIds& ids, FileLengths& lengths);
// The length that such an entry at the start of a journal claims, whole or not; 0 if there is none.
std::size_t durableBytesClaimed(const unsigned char* bytes, std::size_t size);

}  // namespace kl

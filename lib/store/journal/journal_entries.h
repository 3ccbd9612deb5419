#pragma once
// journal_entries.h: the record in the lock file of what is about to be written.

#include <array>
#include <cstddef>
#include <vector>

#include "base/file_io.h"
#include "store/files/format.h"

namespace kl {

// Which of the two files, and which inode each had: a record is void for files that took their places.
struct FileIds {
  unsigned long long idx = 0;
  unsigned long long data = 0;

  friend bool operator==(const FileIds&, const FileIds&) = default;
};

// The two lengths in bytes.
struct FileLengths {
  unsigned long long idx = 0;
  unsigned long long data = 0;
};

// What an item of an intent record asks for.
enum class Step : unsigned int {
  kWriteIdx = 0,   // write these bytes at this place of the index
  kWriteData = 1,  // the same of the data file
  kExtend = 2,     // the data file is at least this long
  kRestore = 3,    // as kWriteIdx, only if the others cannot be done
};

// Collects the steps of one change and writes them as one record.
//
// Errors:    a record that cannot be written whole is taken back; the change goes on without.
// Ownership: borrows the record until write() has returned.
// Cost:      one system call to write it, one to take it back.
class Intent {
 public:
  explicit Intent(const FileIds& ids);

  // The files are cut back to these lengths if there is no room for the change.
  void cutBackTo(const FileLengths& before);

  void writeSlot(unsigned int slot, const SlotRecord& record) { addSlot(Step::kWriteIdx, slot, record); }
  void restoreSlot(unsigned int slot, const SlotRecord& record) { addSlot(Step::kRestore, slot, record); }
  void extendData(unsigned long long length);
  // The last step of an intent.
  void writeRecord(unsigned int offset, Bytes record);

  // Writes the record at `place` of the lock file.
  bool write(int lockFd, std::size_t place);

 private:
  void addSlot(Step step, unsigned int slot, const SlotRecord& record);
  void addStep(Step step, unsigned long long place, std::size_t size);

  FileIds ids_;
  std::vector<unsigned char> head_;
  Bytes record_ = {nullptr, 0};
};

// A record as it was read back: a view into the bytes that it was read from.
class IntentReader {
 public:
  struct Item {
    Step step;
    unsigned long long place;
    Bytes bytes;
  };

  // Says whether the bytes begin with a whole record.
  bool read(const unsigned char* bytes, std::size_t size);

  const FileIds& ids() const { return ids_; }
  const FileLengths& before() const { return before_; }
  const std::vector<Item>& items() const { return items_; }

 private:
  FileIds ids_;
  FileLengths before_;
  std::vector<Item> items_;
};

// Where there is no room for a record, the bare length of the lock file, all of it zeros, says how many slots there were
// before a change that adds some.  So many bytes:
constexpr std::size_t endMarkBytes(const FileLengths& before) {
  return static_cast<std::size_t>(before.idx / kSlotRecordBytes) + 1;
}
// The number of slots; -1 if the bytes are no such mark.
long long decodeEndMark(const unsigned char* bytes, std::size_t size);

// The record of a compaction that is complete: both new files are whole and about to take the old ones' places.
using CommitBytes = std::array<unsigned char, 28>;
CommitBytes encodeCommit(const FileIds& fresh);
bool decodeCommit(const unsigned char* bytes, std::size_t size, FileIds& fresh);

// The record of the lengths that both files are known to have on disk.
constexpr std::size_t kDurableBytes = 44;
using DurableBytes = std::array<unsigned char, kDurableBytes>;
DurableBytes encodeDurable(const FileIds& ids, const FileLengths& lengths);
bool decodeDurable(const unsigned char* bytes, std::size_t size, FileIds& ids, FileLengths& lengths);

}  // namespace kl

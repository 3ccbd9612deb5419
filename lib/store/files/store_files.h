#pragma once
// store_files.h: the index and the data file of a store, open or not.

#include <string>

#include "base/file_io.h"
#include "kl/message.h"
#include "store/files/format.h"

namespace kl {

// The identity of both files: the inode of each, so that others that took their names are recognised.
struct FileIds {
  unsigned long long idx = 0;
  unsigned long long data = 0;

  friend bool operator==(const FileIds&, const FileIds&) = default;
};

// The lengths of both in bytes.
struct FileLengths {
  unsigned long long idx = 0;
  unsigned long long data = 0;
};

// Both files are opened at their first use.  A caller that writes holds the lock of the store.
//
// Errors:    an operation that "prints" reports its failure in one line; the others only give false.
// Ownership: owns the descriptors, and closes them.
class StoreFiles {
 public:
  explicit StoreFiles(const std::string& basePath) : path_(basePath) {}
  StoreFiles(const StoreFiles&) = delete;
  StoreFiles& operator=(const StoreFiles&) = delete;
  ~StoreFiles();

  // P, in front of every suffix.
  const std::string& path() const { return path_; }

  // Open a file that exists, once.
  bool openIdx();
  bool openData();
  void closeIdx();
  void closeData();
  // Replaces empty ones for both files, and closes the old ones.  A failure prints.
  [[gnu::cold]] void makeEmpty();

  // Opens the data file that belongs to the open index, for the first use of it: when that comes, another process
  // may have replaced both.
  [[gnu::cold]] bool holdData();
  // The length of that data file, or of the open one; -1 if it is unknown.
  long long dataLength() const;
  // The open files still have their names.
  [[gnu::cold]] bool areNamed() const;

  // -1 while it is closed.
  int idx() const { return idxFd_; }
  int data() const { return dataFd_; }
  // The inodes of the files that were opened last.
  const FileIds& ids() const { return ids_; }
  // Goes on with other files.  Takes over the descriptors; -1 stands for a file that is opened when it is used.
  [[gnu::cold]] void replace(int idx, int data);

  // Makes the files that are open durable, or the index alone.
  void sync() const;
  bool syncIdx() const;
  // Cuts the open files to these lengths, or makes them longer.
  bool setIdxLength(unsigned int slots) const;
  bool setDataLength(unsigned long long bytes) const;

  // Writes one slot of the index; the first one prints.
  bool writeSlot(unsigned int slot, const IndexSlot& content) const;
  bool tryWriteSlot(unsigned int slot, const IndexSlot& content) const;

  // Writes one blob, given in two pieces; the first one prints.
  bool writeBlob(unsigned int offset, Bytes first, Bytes second) const;
  bool tryWriteBlob(unsigned int offset, Bytes blob) const;

  // The message of the blob at `offset`; prints and gives an empty one if it cannot be read.  Reads `expectedBytes` at
  // once, and with a second call what the blob has more.
  message readBlob(unsigned int offset, unsigned int expectedBytes) const;

 private:
  void dropHeldData();
  int heldData() const { return dataFd_ >= 0 ? dataFd_ : heldDataFd_; }
  [[gnu::cold]] bool createEmpty(const char* suffix) const;

  std::string path_;
  int idxFd_ = -1;
  int dataFd_ = -1;
  int heldDataFd_ = -1;  // of the data file, until it is used
  FileIds ids_;
};

}  // namespace kl

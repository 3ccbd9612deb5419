#pragma once
// files.h: the least that storing can cost, a folder to do it in, and what is stored.

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "kl/message.h"

namespace bench {

// A folder that goes with its contents.
class Folder {
 public:
  Folder() {
    char name[] = "/tmp/kl-bench-XXXXXX";
    if (::mkdtemp(name) == nullptr) std::abort();
    path_ = name;
  }
  ~Folder() { std::filesystem::remove_all(path_); }
  Folder(const Folder&) = delete;
  Folder& operator=(const Folder&) = delete;
  std::string file(const std::string& name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};

inline kl::message messageOf(unsigned int bytes) {
  kl::message m;
  m.insert_raw(0x30000001, std::vector<unsigned char>(bytes, 'x'));
  return m;
}

inline void require(bool works, const char* what) {
  if (works) return;
  std::perror(what);
  std::exit(1);
}

// Two files with records of one length, changed under a lock that is taken each time, as a store's are.
class BareFiles {
 public:
  BareFiles(const Folder& folder, unsigned int count, const std::vector<unsigned char>& value)
      : name_(folder.file("bare")), record_(value.size() + 2), count_(count) {
    open();
    for (unsigned int slot = 0; slot < count; ++slot) writeRecord(slot), writeSlot(slot);
  }
  ~BareFiles() { close(); }
  BareFiles(const BareFiles&) = delete;
  BareFiles& operator=(const BareFiles&) = delete;

  void set(unsigned int slot) {
    const int lock = takeLock();
    writeRecord(slot);
    writeSlot(slot);
    giveLockBack(lock);
  }
  void setAll(const std::vector<unsigned int>& slots) {
    const int lock = takeLock();
    for (const unsigned int slot : slots) writeRecord(slot), writeSlot(slot);
    giveLockBack(lock);
  }
  void remove(unsigned int slot) {
    const int lock = takeLock();
    writeSlot(slot);
    giveLockBack(lock);
  }
  // The same writes behind a record of them in the lock file, which is empty again when they are done.  A slot that is
  // there keeps its index record.
  void setWithIntent(unsigned int slot) {
    const int lock = takeLock();
    writeIntent(lock, record_.size() + (slot < count_ ? kIntentBytes : kIntentBytes + kSlotStepBytes));
    if (slot >= count_) writeSlot(slot);
    writeRecord(slot);
    require(::ftruncate(lock, 0) == 0, "ftruncate");
    giveLockBack(lock);
  }
  void removeWithIntent(unsigned int slot) {
    const int lock = takeLock();
    writeIntent(lock, kIntentBytes + kSlotStepBytes);
    writeSlot(slot);
    require(::ftruncate(lock, 0) == 0, "ftruncate");
    giveLockBack(lock);
  }
  void get(unsigned int slot) {
    require(::pread(data_, record_.data(), record_.size(), place(slot)) > 0, "pread");
  }
  // Everything that is asked for later is in the index.
  void reopen() {
    close();
    open();
    std::vector<unsigned char> index(std::size_t{12} * count_);
    require(::pread(index_, index.data(), index.size(), 0) > 0, "pread");
    get(0);
  }

 private:
  void open() {
    data_ = ::open((name_ + ".dat").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    index_ = ::open((name_ + ".idx").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    require(data_ >= 0 && index_ >= 0, "bare files");
  }
  void close() { ::close(data_), ::close(index_); }
  static bool change(int fd, short type) {
    struct flock whole {};
    whole.l_type = type;
    whole.l_whence = SEEK_SET;
    return ::fcntl(fd, F_SETLKW, &whole) == 0;
  }
  int takeLock() const {
    const int fd = ::open((name_ + ".lock").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    require(fd >= 0 && change(fd, F_WRLCK), "lock");
    return fd;
  }
  static void giveLockBack(int fd) {
    require(change(fd, F_UNLCK), "unlock");
    ::close(fd);
  }
  void writeIntent(int lock, std::size_t bytes) {
    require(::lseek(lock, 0, SEEK_END) == 0, "lseek");  // nobody was killed in the middle of a change
    intent_.resize(bytes);
    require(::pwrite(lock, intent_.data(), bytes, 0) > 0, "pwrite");
  }
  off_t place(unsigned int slot) const {
    return static_cast<off_t>(slot) * static_cast<off_t>(record_.size());
  }
  void writeRecord(unsigned int slot) {
    require(::pwrite(data_, record_.data(), record_.size(), place(slot)) > 0, "pwrite");
  }
  void writeSlot(unsigned int slot) {
    const unsigned char bytes[12] = {static_cast<unsigned char>(slot)};
    require(::pwrite(index_, bytes, sizeof bytes, static_cast<off_t>(slot) * 12) > 0, "pwrite");
  }

  static constexpr std::size_t kIntentBytes = 60;    // of a store's, beside the bytes that will be written
  static constexpr std::size_t kSlotStepBytes = 28;  // of one index record in it

  std::string name_;
  std::vector<unsigned char> record_;
  std::vector<unsigned char> intent_;
  unsigned int count_;
  int data_ = -1;
  int index_ = -1;
};

// The least that keeps such files safe against being killed in the middle of a change.
class BareFilesWithIntent {
 public:
  explicit BareFilesWithIntent(BareFiles& files) : files_(files) {}
  void set(unsigned int slot) { files_.setWithIntent(slot); }
  void remove(unsigned int slot) { files_.removeWithIntent(slot); }

 private:
  BareFiles& files_;
};

}  // namespace bench

#pragma once
// new_files.h: the pair of files that a compaction writes beside the old ones.

#include <string>

#include "store/journal/file_lock.h"
#include "store/journal/journal_entries.h"

namespace kl {

// P.dat.new and P.idx.new.  They are removed again unless they took the places of P.dat and P.idx.
class NewFiles {
 public:
  explicit NewFiles(const std::string& basePath) : path_(basePath) {}
  NewFiles(const NewFiles&) = delete;
  NewFiles& operator=(const NewFiles&) = delete;
  ~NewFiles();

  // False, with a line, if one of the two cannot be made.
  bool create();

  // Makes both durable and puts them in the places of the old files; killed half way through, whoever takes the
  // lock next finishes it.  `isSynced`: that holds for a loss of power, too.  False if a file stayed where it was.
  bool commit(FileLock& lock, bool isSynced);

  // Finishes a commit of these files.  Needs: the lock.
  static void finishCommit(const std::string& basePath, const FileIds& ids);
  // The same for a compaction that had no room to say that its files are whole: the names tell.  Needs: the lock.
  static void finishRenames(const std::string& basePath);
  // Removes what a compaction that was killed before its commit left.  Needs: the lock.
  static void removeLeftOvers(const std::string& basePath);
  // Makes the files' names durable.
  static void syncFolder(const std::string& basePath);

  // Descriptors that are the caller's from here on.
  int takeIdx();
  int takeData();

  int idxFd() const { return idxFd_; }
  int dataFd() const { return dataFd_; }

 private:
  std::string name(const char* suffix) const { return path_ + suffix; }

  std::string path_;
  int idxFd_ = -1;
  int dataFd_ = -1;
  bool areInPlace_ = false;
};

}  // namespace kl

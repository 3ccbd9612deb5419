#pragma once
// new_files.h: the pair of files that a compaction writes beside the old ones.

#include <string>

#include "store/files/store_files.h"
#include "store/journal/journal.h"

namespace kl {

// P.dat.new and P.idx.new.  They are removed again unless they took the names of P.dat and P.idx.
class NewFiles {
 public:
  explicit NewFiles(const std::string& basePath) : path_(basePath) {}
  NewFiles(const NewFiles&) = delete;
  NewFiles& operator=(const NewFiles&) = delete;
  ~NewFiles();

  // Makes both, with room for so many bytes.  False, with a line, if that cannot be had.
  bool create(const FileLengths& room);
  // Gives back what of the room was not needed.
  bool trim(const FileLengths& used) const;

  // Makes both durable and lets them take the old ones' names; after a kill half way through, the next one to take the
  // lock finishes it.  Prints a line unless both did.
  Journal::Replaced commit(Journal& journal);

  // Descriptors that are the caller's from here on; -1 of an index that was copied over the old one.
  int takeIdx();
  int takeData();

  int idxFd() const { return idxFd_; }
  int dataFd() const { return dataFd_; }

 private:
  std::string name(const char* suffix) const { return path_ + suffix; }

  std::string path_;
  int idxFd_ = -1;
  int dataFd_ = -1;
  FileLengths room_;
  bool areInPlace_ = false;
};

}  // namespace kl

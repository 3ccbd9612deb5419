#pragma once
// new_files.h: the pair of files that a compaction writes beside the old ones.

#include <string>

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

  // Make both durable and put them in the places of the old files.  False if a file stayed where it was.
  bool commit();

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

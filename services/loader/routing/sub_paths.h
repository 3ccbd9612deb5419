#pragma once
// sub_paths.h: the receivers of a frame that names several.

#include "kl/conventions.h"
#include "routing/envelope.h"

namespace loader {

// Walks the sub-paths of a PATH_MULTI path: a count and so many ids, over and over.
//
// Errors:    next() is false at the first sub-path that is not one; ok() distinguishes that from the end.
// Ownership: borrows the frame's bytes.
// Threads:   a value.
// Cost:      constant time for each sub-path.
class SubPaths {
 public:
  explicit SubPaths(Path path) : SubPaths(path, 1) {}
  // Those behind the first `from` elements.
  SubPaths(Path path, unsigned int from) : rest_(path.part(from, path.size() - from)) {}

  bool next(Path& path) {
    if (!ok_ || rest_.empty()) return false;
    const unsigned int count = rest_[0];
    ok_ = count > 0 && count <= kMaxPathLength && count < rest_.size() && !isSpecial(rest_[1]);
    if (!ok_) return false;
    path = rest_.part(1, count);
    rest_ = rest_.part(1 + count, rest_.size() - 1 - count);
    return true;
  }
  bool ok() const { return ok_; }
  // The elements that are left.
  unsigned int left() const { return rest_.size(); }

 private:
  static bool isSpecial(unsigned int hop) { return hop >= kl::PATH_ALL && hop <= kl::PATH_SELF; }

  Path rest_;
  bool ok_ = true;
};

}  // namespace loader

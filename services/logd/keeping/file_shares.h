#pragma once
// file_shares.h: which part of a file each user's lines take.

#include <map>

#include "keeping/line.h"

namespace logd {

// Shares out one file, from its beginning until it is replaced.  Three quarters of it are for users, and one user may
// have as much of them as is left for the others: alone a half of them, the next one a half of what is left, and so on.
// The last quarter is the system's, whose lines are not counted here: users alone never fill a file.
//
//     if (!shares.take(uid, line.size())) ...      // the line is left out
//
// Errors:    none.
// Ownership: a value.
// Threads:   as any value.
// Cost:      logarithmic in the number of users; beyond kMostUsers they share one part.
class FileShares {
 public:
  static constexpr std::size_t kMostUsers = 256;

  explicit FileShares(unsigned long long fileBytes) : most_(fileBytes - fileBytes / 4) {}

  // A file begins that has nothing of anybody.
  void begin(Nanoseconds now);
  // It has begun, and so long ago.
  bool isOlderThan(Nanoseconds age, Nanoseconds now) const { return hasBegun_ && now >= begun_ + age; }
  bool hasBegun() const { return hasBegun_; }

  bool hasRoomFor(unsigned int uid, unsigned long long bytes) {
    return partOf(uid).bytes + bytes <= most_ - used_;
  }
  // Takes so many bytes; false, and the line is counted as left out, where the user has had its part.
  bool take(unsigned int uid, unsigned long long bytes);
  // Is this the first line of the user that is left out?  It is so until the next call of take().
  bool isNews() const { return isNews_; }
  unsigned long long leftOut() const { return leftOut_; }  // lines, since the file began

 private:
  struct Part {
    unsigned long long bytes = 0;
    bool isFull = false;  // a line was left out
  };

  Part& partOf(unsigned int uid);

  unsigned long long most_;  // of all users
  unsigned long long used_ = 0;
  std::map<unsigned int, Part> parts_;
  Part others_;  // of those who came when there were kMostUsers
  unsigned long long leftOut_ = 0;
  bool isNews_ = false;
  bool hasBegun_ = false;
  Nanoseconds begun_ = 0;
};

}  // namespace logd

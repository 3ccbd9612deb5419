// A user's part grows while it is not bigger than what is left for the others, so that there is always something left.
//
// H1  used_ is the sum of all parts and less than most_

#include "keeping/file_shares.h"

#include <utility>

namespace logd {

void FileShares::begin(Nanoseconds now) {
  used_ = 0;
  parts_.clear();
  others_ = {};
  leftOut_ = 0;
  hasBegun_ = true;
  begun_ = now;
}

bool FileShares::take(unsigned int uid, unsigned long long bytes) {
  Part& part = partOf(uid);
  isNews_ = false;
  if (!hasRoomFor(uid, bytes)) {
    ++leftOut_;
    isNews_ = !std::exchange(part.isFull, true);
    return false;
  }
  part.bytes += bytes;
  used_ += bytes;  // H1
  return true;
}

FileShares::Part& FileShares::partOf(unsigned int uid) {
  if (parts_.size() < kMostUsers) return parts_[uid];
  const auto found = parts_.find(uid);
  return found == parts_.end() ? others_ : found->second;
}

}  // namespace logd

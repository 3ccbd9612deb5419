#pragma once
// limits.h: what processes may write.

namespace logd {

struct Limits {
  unsigned int clients = 256;          // at the same time
  unsigned int linesPerSecond = 2000;  // of one client; 0: as many as it likes
  unsigned int burst = 10000;          // that it may write at once
};

}  // namespace logd

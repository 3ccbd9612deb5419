#pragma once
// line.h: one line of the log and where it came from.

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

namespace logd {

using Topic = unsigned short;
using Topics = std::vector<Topic>;
using Nanoseconds = unsigned long long;  // since 1970, or of a clock that only goes forward

// The part that all lines of one source share.
struct Origin {
  std::string process;
  unsigned int pid = 0;
  unsigned int source = 0;  // its id in the process; 0: the log service itself
  Topics topics;
  unsigned int uid = 0;  // of the user that the process ran as when it connected
};

struct Line {
  Nanoseconds time = 0;  // when it came
  std::shared_ptr<const Origin> origin;
  std::string text;
};

inline bool haveOneInCommon(const Topics& a, const Topics& b) {
  return std::find_first_of(a.begin(), a.end(), b.begin(), b.end()) != a.end();
}

}  // namespace logd

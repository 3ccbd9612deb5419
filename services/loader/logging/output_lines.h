#pragma once
// output_lines.h: what a service writes, as lines of the log.

#include <cstddef>
#include <string>
#include <string_view>

#include "kl/runner.h"
#include "logging/log.h"
#include "quota/pace.h"
#include "services/common/timer.h"

namespace loader {

// Makes lines of one stream of a service and logs them behind the name of their process: "leases (300, pid 812): ...".
// A line goes when its end has come, when it is kMostLineBytes long, or when the process has ended; an empty one never.
// Control characters are shown by their pictures, a tab by a space.
//
// With the first line that comes too fast, or that the log does not take, a gap begins: lines are only counted until it
// is over, a second later, or longer while the log takes nothing.  Then one line in their place says how many there
// were.
//
//     OutputLines lines(loop, log, Stream::kOutput);
//     lines.setSpeaker("leases (300, pid 812)");
//     lines.take("one\ntw");
//     lines.end();                                  // logs "tw"
//
// Errors:    none; what is not logged is counted.
// Ownership: owns the beginning of a line; borrows the loop and the log.
// Threads:   that of the loop.
// Cost:      a walk over the bytes; a timer runs in a gap only.
class OutputLines {
 public:
  static constexpr std::size_t kMostLineBytes = 1024;
  static constexpr unsigned int kPerSecond = 100;
  static constexpr unsigned int kBurst = 1000;
  static constexpr unsigned int kShortestGapTicks = 100;
  static constexpr unsigned int kLongestGapTicks = 6400;

  OutputLines(kl::ThinRunner& runner, Log& log, Stream stream);

  // While the speaker has no name, nothing is logged.
  void setSpeaker(const std::string& speaker) { speaker_ = speaker; }
  void take(std::string_view bytes);
  // The process has ended.
  void end();

 private:
  std::size_t pieceOf(std::string_view bytes) const;
  void endLine();
  void cutLine();
  void logText(std::string_view text);
  void onGapOver();

  Log& log_;
  Stream stream_;
  std::string speaker_;
  std::string line_;  // its beginning, as far as it has come
  Pace pace_{kPerSecond, kBurst};
  unsigned long long missing_ = 0;  // in this gap; 0: there is none
  unsigned int gapTicks_ = kShortestGapTicks;
  common::Timer<&OutputLines::onGapOver> gap_;
};

}  // namespace loader

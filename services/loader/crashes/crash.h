#pragma once
// crash.h: the report of a crash, read.

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "crashes/program_file.h"

namespace loader {

// A place in a file that was mapped.
struct Frame {
  std::string file;  // empty: the address lies in none
  std::uint64_t offset = 0;
  bool isInProgram = false;

  std::string text() const;  // "leases +0x1b2f"
};

struct Crash {
  unsigned int signal = 0;
  std::vector<Frame> frames;  // the place of the crash first, then return addresses, each inside its call

  // The first place that is the program's own, else the first one of all; null without any.
  const Frame* place() const;
  // The part of a crash that is the same wherever the program was loaded.
  std::string key(const std::string& buildId) const;
};

// Whether two keys are those of one crash: one of a program at a place, with the same callers.  A stack is walked up to
// the end of the page in which the Runner was made, which is another one in each process, so either may lack the last
// callers; all but the first are not needed.
bool isSameCrash(const std::string& key, const std::string& other);

// Errors:  what a report does not say is missing in the result.
// Cost:    a walk over the text; at most kMostFrames places.
inline constexpr std::size_t kMostFrames = 32;
Crash readCrash(std::string_view report, const ProgramFile& program);

}  // namespace loader

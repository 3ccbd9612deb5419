#pragma once
// report_catcher.h: tells the report of a crash from everything else that a service writes.

#include <cstddef>
#include <string>
#include <string_view>

namespace loader {

// The output that a process has left behind.
struct Caught {
  std::string report;       // from the line of the program on; empty without one
  unsigned int signal = 0;  // that its report, or its last line, names; 0: none
  std::string rest;         // ordinary output that had to wait
};

// Reads what a process writes, in whatever pieces it comes.  A report begins with the line "--- signal=N ---..." and
// the line before it, which names the program, and ends with the process: what it quotes may look like the end of one.
// A report of SIGUSR2 is no crash and passes, as does the beginning of one that would be longer than kMostBytes.
//
//     ReportCatcher catcher;
//     sink.write(catcher.take(bytes));
//     const Caught caught = catcher.end();  // when the process has ended
//
// Errors:    none.
// Ownership: owns what it keeps.
// Threads:   belongs to one thread.
// Cost:      a walk over the lines; memory for a line or, after a crash, for a report.
class ReportCatcher {
 public:
  static constexpr std::size_t kMostBytes = 48 * 1024;

  // The ordinary output among these bytes and those that had to wait.
  std::string take(std::string_view bytes);
  // The process has ended.  The next bytes are another one's.
  Caught end();

 private:
  std::string takeReport(std::string_view bytes);
  void remember(std::string_view part);

  std::string waiting_;    // the last bytes: a line, or nothing, and what may be the line of a signal
  std::string lineSoFar_;  // the line that the last bytes passed on belong to, as far as it is known
  bool isAtLine_ = true;   // the next byte begins a line
  std::string report_;
  unsigned int signal_ = 0;
};

}  // namespace loader

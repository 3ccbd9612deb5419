#pragma once
// pace.h: how fast the connections of one account may come.

namespace loader {

// A token bucket for connections, and a count of those that came to nothing.  A process that connects only to be
// disconnected again takes the processor from everybody: after kMostFailures of an account in one tick its next ones
// wait for the tick to be over.
//
// Errors:    none.
// Ownership: a value.
// Threads:   belongs to one thread.
// Cost:      constant time, no clock of its own: callers give the time in ticks.
class Pace {
 public:
  static constexpr unsigned int kMostFailures = 5;  // in a tick
  static constexpr unsigned int kLineTicks = 1000;  // between two lines on the log

  Pace() = default;  // no rate, only the failures count
  Pace(unsigned int perSecond, unsigned int burst) : perSecond_(perSecond), burst_(burst) { fill(); }

  // Lets one more connection in, and counts it; false when it has to wait.
  bool admitOne(unsigned int now);
  // A connection came to nothing.  True when this is the one that makes the next ones wait.
  bool countFailure(unsigned int now);
  // Takes the right to write one line on the log; false while the last one is too recent.
  bool takeLogLine(unsigned int now);

  // True when nothing of its past matters any more.
  bool isRested(unsigned int now) const;

 private:
  static constexpr unsigned long long kTicksPerSecond = 100;

  void fill() { parts_ = burst_ * kTicksPerSecond; }
  void advance(unsigned int now);

  unsigned int perSecond_ = 0;
  unsigned int burst_ = 0;        // 0: without end
  unsigned long long parts_ = 0;  // hundredths of tokens
  unsigned int now_ = 0;          // the tick that the counts belong to
  unsigned int admitted_ = 0;     // in this tick
  unsigned int failures_ = 0;     // in this tick
  bool wasSlow_ = false;          // the last tick had too many failures
  bool hasLine_ = false;
  unsigned int lineAt_ = 0;
};

}  // namespace loader

#pragma once
// timeout.h: how long a reader may wait.

namespace kl {

// A time-out in ticks, as the operations of the message loop take it: -1 waits without limit, 0 does
// not wait.  It starts to count with the first wait, and reads the clock only where it counts: a request without limit
// costs no reading, one with a limit that is answered at once costs one.
class Timeout {
 public:
  explicit Timeout(int ticks) : ticks_(ticks) {}

  // False for 0: take what is there.
  bool waits() const { return ticks_ != 0; }

  // The milliseconds left, as poll(2) takes them; -1 for no limit.
  int milliseconds();

  // Has a limit above 0 passed?
  bool expired();

 private:
  unsigned int elapsed();

  int ticks_;
  bool started_ = false;
  unsigned int start_ = 0;  // the tick of the first wait
};

}  // namespace kl

#pragma once
// tests/support/calls/scripted_calls.h: time and poll(2) as inputs of a test.  A program that uses this defines
// times() and poll() itself; without a script they do what the kernel does.

#include <poll.h>

#include <functional>
#include <vector>

namespace kl::test {

// While it lives, kl::getJiffies() says what the test says.  At most one at a time.
class ScriptedClock {
 public:
  explicit ScriptedClock(unsigned int jiffies);
  ~ScriptedClock();
  ScriptedClock(const ScriptedClock&) = delete;
  ScriptedClock& operator=(const ScriptedClock&) = delete;

  void set(unsigned int jiffies);
  void advance(unsigned int ticks);
  void failWith(int errorNumber);  // times() answers -1 with this errno; set() ends it
  unsigned int now() const;
  unsigned int reads() const;  // how often times() was called
};

// While it lives, poll() calls `script` instead of waiting, and the time-outs it is given are kept.
class ScriptedPoll {
 public:
  using Script = std::function<int(std::vector<pollfd*> entries)>;

  explicit ScriptedPoll(Script script);
  ~ScriptedPoll();
  ScriptedPoll(const ScriptedPoll&) = delete;
  ScriptedPoll& operator=(const ScriptedPoll&) = delete;

  const std::vector<int>& timeouts() const;
};

}  // namespace kl::test

#pragma once
// calls.h: the calls of the system that are played for a service under test.

#include <poll.h>

#include <ctime>

namespace kl::test {

// Answers poll() and the clocks on the thread that gave it to play().
class CallsPlayer {
 public:
  virtual unsigned int now() const = 0;  // in ticks
  virtual timespec wallTime() const = 0;
  virtual int poll(pollfd* entries, nfds_t count, int timeoutMs) = 0;

 protected:
  ~CallsPlayer() = default;
};

// From now on on this thread; null gives the calls back to the system.
void play(CallsPlayer* player);

// poll() as the system has it.
int systemPoll(pollfd* entries, nfds_t count, int timeoutMs);

}  // namespace kl::test

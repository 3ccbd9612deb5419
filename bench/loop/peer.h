#pragma once
// peer.h: what another event loop does with the timers and sockets of loop_bench.  Each library that was found when the
// benchmark was configured adds itself before main() begins.

#include <random>
#include <string>
#include <vector>

#include "bench/support/paired.h"

namespace bench {

inline constexpr std::size_t kTimers = 1000;
inline constexpr unsigned int kLongestDelay = 1000;  // in ticks, of which a second has a hundred

// The same delays for everybody.
class Delays {
 public:
  Delays() : delays_(4096) {
    std::mt19937 random(4711);
    for (unsigned int& delay : delays_) delay = 1 + static_cast<unsigned int>(random() % kLongestDelay);
  }
  unsigned int next() { return delays_[at_++ % delays_.size()]; }

 private:
  std::vector<unsigned int> delays_;
  std::size_t at_ = 0;
};

// While one exists, the C library's clocks of seconds stand still where loopTicks says.
extern unsigned int loopTicks;
class StandingClock {
 public:
  StandingClock();
  ~StandingClock();
  StandingClock(const StandingClock&) = delete;
  StandingClock& operator=(const StandingClock&) = delete;
};

class LoopPeer {
 public:
  virtual ~LoopPeer() = default;
  virtual std::string name() const = 0;
  virtual std::string version() const = 0;
  // One of kTimers waiting timers is cancelled and started again.
  virtual Batch exchange() const = 0;
  // A tick passes: those of kTimers timers that are due fire, which `fired` counts, and start again; a socket is ready.
  virtual Batch tick(int ready, unsigned long long* fired) const = 0;
  // A pass over sockets; `calls` counts those that had something to read.
  virtual Batch pass(const std::vector<int>& fds, unsigned long long* calls) const = 0;
};

// Those that were added, in the order of their names.
std::vector<const LoopPeer*> loopPeers();

// Adds `peer`, which stays.  The result only gives the call a place.
bool addLoopPeer(const LoopPeer& peer);

}  // namespace bench

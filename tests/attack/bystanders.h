#pragma once
// bystanders.h: two processes that go on talking to each other, whatever others do.

#include "tests/support/process/child_process.h"

namespace attack {

inline constexpr unsigned int kAskerId = 900;
inline constexpr unsigned int kEchoId = 901;

// The one asks, the other answers, one request after the other; both look at everything that they get.
//
// Needs: a loader that takes connections.  Make them before any other peer: their processes inherit what is open.
class Bystanders {
 public:
  Bystanders();
  Bystanders(const Bystanders&) = delete;
  Bystanders& operator=(const Bystanders&) = delete;
  ~Bystanders();

  struct Figures {
    unsigned int roundTrips;
    unsigned int p50Us, p99Us, worstUs;
    unsigned int lost;   // requests without an answer
    unsigned int wrong;  // messages that were not for who got them
    unsigned int ends;   // of which they were told: those of others that they had nothing to do with
  };
  // The figures since the last call.
  Figures take();
  // The figures of so much time from now on, with this process asleep or at work all the time.
  Figures takeQuiet(int ms);
  Figures takeBeside(int ms);

 private:
  int control_[2];  // the asker's, the echo's
  kl::test::ChildProcess echo_, asker_;
};

}  // namespace attack

#pragma once
// peers.h: processes that attack at the same time.

#include <atomic>
#include <functional>

namespace attack {

// Fifty processes, and not one that plays fifty: each waits for the loader, and for a processor, on its own.
//
// Ownership: owns the memory in which they count, and waits for each of them.
class Peers {
 public:
  static constexpr unsigned int kCount = 50;

  // The deeds of all of them.
  struct Tally {
    std::atomic<unsigned int> sent;
    std::atomic<unsigned int> sentBytes;
    std::atomic<unsigned int> disconnected;
    std::atomic<unsigned int> refused;  // could not connect
  };

  Peers();
  Peers(const Peers&) = delete;
  Peers& operator=(const Peers&) = delete;
  ~Peers();

  // Each lives this life, with its number, under a scheduling policy; true when all came to its end.
  bool live(int policy, const std::function<void(unsigned int peer, Tally& tally)>& life);

  const Tally& tally() const { return *tally_; }

 private:
  Tally* tally_;  // shared by all
};

}  // namespace attack

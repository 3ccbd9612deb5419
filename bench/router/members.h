#pragma once
// members.h: how the members of a fan-out tell its sender that the last of them has the frame: a counter
// that they share, and a pipe that the last one writes to.

#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>

namespace bench {

class Arrivals {
 public:
  Arrivals(int memory, int lastArrived, unsigned int expected)
      : lastArrived_(lastArrived), expected_(expected) {
    void* shared = ::mmap(nullptr, sizeof(Counter), PROT_READ | PROT_WRITE, MAP_SHARED, memory, 0);
    if (shared == MAP_FAILED) std::abort();
    counter_ = static_cast<Counter*>(shared);
  }

  void arrived() {
    if (counter_->fetch_add(1) + 1 != expected_) return;
    counter_->store(0);
    const char last = 1;
    if (::write(lastArrived_, &last, 1) != 1) std::abort();
  }

 private:
  using Counter = std::atomic<unsigned int>;
  Counter* counter_;
  int lastArrived_;
  unsigned int expected_;
};

}  // namespace bench

#pragma once
// tests/lib/loop/probe.h: a look inside the loop, and its invariants.

#include <gtest/gtest.h>

#include <utility>
#include <vector>

#include "kl/runner.h"

namespace kl {

class ThinRunnerProbe {
 public:
  using Place = std::pair<void*, unsigned int>;  // a timer's context word and its expiry

  static std::vector<Place> heap(const ThinRunner& loop) {
    std::vector<Place> places;
    for (const auto& entry : loop.heap_) places.emplace_back(entry.timer->data, entry.expiry);
    return places;
  }

  static std::vector<int> pollOrder(const ThinRunner& loop) {
    std::vector<int> fds;
    for (const pollfd& entry : loop.polls_) fds.push_back(entry.fd);
    return fds;
  }

  static std::size_t delayedCount(const ThinRunner& loop) { return loop.delayed_.size(); }

  static std::size_t freeTimers(const ThinRunner& loop) {
    std::size_t count = 0;
    for (auto* t = loop.freeTimers_; t != nullptr; t = static_cast<ThinRunner::TimerInfo*>(t->data)) ++count;
    return count;
  }

  // T2 holds only as long as no timer passes the overdue window while it waits in the heap.
  static void checkHeap(const ThinRunner& loop, bool withOrder) {
    const unsigned int reference = loop.heapTime_ - 359999;
    for (std::size_t i = 0; i < loop.heap_.size(); ++i) {
      const auto& entry = loop.heap_[i];
      ASSERT_EQ(entry.timer->heapIndex, i) << "T1 broken";
      ASSERT_EQ(entry.timer->expiry, entry.expiry) << "T4 broken";
      if (i == 0 || !withOrder) continue;
      ASSERT_LE(loop.heap_[(i - 1) / 2].expiry - reference, entry.expiry - reference) << "T2 broken at " << i;
    }
  }

  static void checkSockets(const ThinRunner& loop) {
    ASSERT_EQ(loop.polls_.size(), loop.sockets_.size()) << "S1 broken";
    ASSERT_EQ(loop.polls_.size(), loop.pollSockets_.size()) << "S1 broken";
    std::size_t readAhead = 0;
    for (std::size_t i = 0; i < loop.polls_.size(); ++i) {
      ASSERT_EQ(loop.pollSockets_[i]->second.index, i) << "S1 broken";
      ASSERT_EQ(loop.pollSockets_[i]->second.fd, loop.polls_[i].fd) << "S1 broken";
      readAhead += loop.pollSockets_[i]->second.holdsBytes ? 1 : 0;
    }
    ASSERT_EQ(readAhead, loop.readAheadCount_) << "S5 broken";
  }
};

}  // namespace kl

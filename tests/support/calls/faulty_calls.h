#pragma once
// tests/support/calls/faulty_calls.h: the one call that is to be hit, between faults.cpp, which chooses it, and
// faulty_calls.cpp, whose functions stand in front of the C library's.

#include <sys/types.h>

namespace kl::test {

struct FaultPlan {
  const char* call = nullptr;  // null: none
  int outcome = 0;
  unsigned int n = 0;  // counted down; the call that makes it 0 is hit
  pid_t process = 0;   // only this one is hit, not those that it starts
  bool isExposed = false;
  bool hitsStreams = false;
  unsigned int calls = 0;
  bool* wasHit = nullptr;  // in memory that the test's process shares
  unsigned int haste = 1;  // how many times as fast time passes
};

extern FaultPlan faultPlan;

// A scenario that makes so many calls makes them without end; its process then ends with this status.
constexpr unsigned int kMostCalls = 200000;
constexpr int kEndlessStatus = 90;

}  // namespace kl::test

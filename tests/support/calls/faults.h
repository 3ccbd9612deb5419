#pragma once
// tests/support/calls/faults.h: makes the n-th system call of one kind fail or fall short, for n = 1, 2, ... until none does
// any more.
//
//     const unsigned int tried = forEachFault(everyFault(), [] {
//       Store store(path, 3);                 // the scenario, in a process of its own for each fault
//       exposed([&] { store.set(1, m); });    // what the faults may hit
//     }, [](const FaultRun& run) { EXPECT_EQ(run.child.out, ...); });
//
// A program that uses this defines those calls itself (faulty_calls.cpp); outside of exposed() they do what the kernel
// does.  A run that hangs, calls the system without end, leaves a descriptor open or fails an expectation inside the
// scenario is a failed test, whatever the check says.

#include <functional>
#include <string>
#include <vector>

#include "tests/support/process/child.h"

namespace kl::test {

// A call does this instead of its work: fail with an errno, or transfer half of the bytes that it was asked to.
constexpr int kFallsShort = -1;

struct FaultKind {
  const char* call;  // its name in the C library, without a 64 at the end
  int outcome;       // an errno, or kFallsShort
};

// Every call that can be made to fail, with every way in which it may; and those of them with one of these names.
std::vector<FaultKind> everyFault();
std::vector<FaultKind> faultsOf(const std::vector<std::string>& calls);
// Those that are left without these names.
std::vector<FaultKind> faultsWithout(const std::vector<std::string>& calls);

struct FaultRun {
  FaultKind kind;
  unsigned int n;     // the n-th exposed call of this name is the one that was hit
  ChildResult child;  // how the scenario's process ended and what it said

  bool is(const std::string& call, int outcome) const;
};

// Runs `body` with its calls counted, and one of them hit when its turn has come.  Calls on the standard streams are
// left alone: they are what a test reads.
void exposed(const std::function<void()>& body);
// Inside of it, what belongs to the test.
void spared(const std::function<void()>& body);
// As exposed(), with the standard streams.
void exposedWithStreams(const std::function<void()>& body);

// Time passes so many times as fast for this process: it sees more ticks, and its poll waits less.  Needs: nothing
// that looks at the time has been made yet.
void hurry(unsigned int times);

// Runs the scenario once without a fault, and then with each fault of each kind; `check` judges each run that was hit.
// The others must end as the one without a fault did.  Returns how many were hit, and says so in a line;
// only each kFaultStride-th call is hit, and stands for as many.
unsigned int forEachFault(const std::vector<FaultKind>& kinds, const std::function<void()>& scenario,
                          const std::function<void(const FaultRun&)>& check);

}  // namespace kl::test

#pragma once
// paired.h: measures the product and its limit in turns, so that what the machine does meanwhile
// meets both.

#include <functional>
#include <string>

namespace bench {

// Runs one operation `times` times, back to back.
using Batch = std::function<void(unsigned times)>;

template <class Operation>
Batch repeated(Operation operation) {
  return [operation](unsigned times) mutable {
    for (unsigned i = 0; i < times; ++i) operation();
  };
}

// Only `run` is measured.  The things that it needs, and those that it leaves behind, are the business of `before` and
// `after`, which are told the same number and are not measured.
struct Work {
  Batch run;
  Batch before = [](unsigned) {};
  Batch after = [](unsigned) {};
};

// Adds the case `name` to those that run() measures.  Its figures, as counters of the benchmark:
// product_ns and limit_ns (medians over the batches, for one operation), ratio, and what one
// operation of the product takes from the heap: allocations, heap_bytes.
void addPair(const std::string& name, Work product, Work limit);
void addPair(const std::string& name, Batch product, Batch limit);

// Tells the reader of the figures which version of a peer was measured.
void notePeer(const std::string& name, const std::string& version);

// The main program: `--instructions [REGEX]` runs each case, or those whose name matches, a few times for a simulator
// that counts (callgrind) and dumps the counts between the cases; everything else is Google Benchmark's.
int run(int argc, char** argv);

}  // namespace bench

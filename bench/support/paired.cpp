// A batch is long enough for the clock (kBatchNs) and short enough that the product's and the
// limit's are close together; which of the two goes first alternates.  The figure of a case is the
// median of its batches, so a disturbed batch counts for nothing.

#include "bench/support/paired.h"

#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <regex>
#include <utility>
#include <vector>

#include "bench/support/allocations.h"

#if __has_include(<valgrind/callgrind.h>)
#include <valgrind/callgrind.h>
#else
#define CALLGRIND_ZERO_STATS
#define CALLGRIND_DUMP_STATS_AT(name) static_cast<void>(name)
#endif

namespace bench {
namespace {

constexpr double kBatchNs = 20'000;
constexpr unsigned kLongestBatch = 1U << 16;
constexpr unsigned kCountedRuns = 4;

struct Pair {
  std::string name;
  Work product;
  Work limit;
};

std::vector<Pair>& pairs() {
  static std::vector<Pair> all;
  return all;
}

double nanoseconds(const Work& work, unsigned times) {
  work.before(times);
  const auto begin = std::chrono::steady_clock::now();
  work.run(times);
  const std::chrono::duration<double, std::nano> lasted = std::chrono::steady_clock::now() - begin;
  work.after(times);
  return lasted.count();
}

unsigned timesToFill(const Work& work) {
  unsigned times = 1;
  while (times < kLongestBatch && nanoseconds(work, times) < kBatchNs) times *= 2;
  return times;
}

double median(std::vector<double>& values) {
  const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
  std::nth_element(values.begin(), middle, values.end());
  return *middle;
}

Allocations allocationsOfOne(const Work& work) {
  nanoseconds(work, 3);  // whatever is made once is made
  work.before(1);
  restartAllocations();
  work.run(1);
  const Allocations taken = allocations();
  work.after(1);
  return taken;
}

void measure(benchmark::State& state, const Pair& pair) {
  const unsigned productTimes = timesToFill(pair.product);
  const unsigned limitTimes = timesToFill(pair.limit);
  std::vector<double> product;
  std::vector<double> limit;
  for ([[maybe_unused]] auto unused : state) {
    const bool limitFirst = product.size() % 2 == 1;
    if (limitFirst) limit.push_back(nanoseconds(pair.limit, limitTimes) / limitTimes);
    product.push_back(nanoseconds(pair.product, productTimes) / productTimes);
    if (!limitFirst) limit.push_back(nanoseconds(pair.limit, limitTimes) / limitTimes);
    state.SetIterationTime((product.back() * productTimes + limit.back() * limitTimes) * 1e-9);
  }
  const Allocations taken = allocationsOfOne(pair.product);
  state.counters["product_ns"] = median(product);
  state.counters["limit_ns"] = median(limit);
  state.counters["ratio"] = median(product) / median(limit);
  state.counters["allocations"] = static_cast<double>(taken.calls);
  state.counters["heap_bytes"] = static_cast<double>(taken.bytes);
}

// One dump for each case and side, named "CASE/product" or "CASE/limit", over kCountedRuns runs.
void countInstructions(const Work& work, const std::string& name) {
  nanoseconds(work, 2);
  work.before(kCountedRuns);
  CALLGRIND_ZERO_STATS;
  work.run(kCountedRuns);
  CALLGRIND_DUMP_STATS_AT(name.c_str());
  work.after(kCountedRuns);
}

}  // namespace

void addPair(const std::string& name, Work product, Work limit) {
  pairs().push_back({name, std::move(product), std::move(limit)});
}

void addPair(const std::string& name, Batch product, Batch limit) {
  addPair(name, Work{std::move(product)}, Work{std::move(limit)});
}

void notePeer(const std::string& name, const std::string& version) {
  benchmark::AddCustomContext("peer " + name, version);
}

int run(int argc, char** argv) {
  if (argc >= 2 && std::strcmp(argv[1], "--instructions") == 0) {
    const std::regex wanted(argc > 2 ? argv[2] : "");
    for (const Pair& pair : pairs()) {
      if (!std::regex_search(pair.name, wanted)) continue;
      countInstructions(pair.product, pair.name + "/product");
      countInstructions(pair.limit, pair.name + "/limit");
    }
    return 0;
  }
  for (const Pair& pair : pairs())
    benchmark::RegisterBenchmark(pair.name.c_str(), [&pair](benchmark::State& state) {
      measure(state, pair);
    })->UseManualTime();
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 2;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}

}  // namespace bench

// Runs the product and the limit in turns, all processes on one core: what a request costs is wake-ups,
// and spread over cores their price depends on the machine's mood.  Needs a root of its own
// (scripts/private-root), because the loader's socket has a fixed place.
//
// usage: router_bench [--benchmark_...]
//        router_bench --round-trips product|product-with-time-out|relay N    only that, for a counter of
//        router_bench --outstanding product|relay N                          system calls
//        router_bench --beside IDLE N                                        round trips beside idle services

#include <benchmark/benchmark.h>
#include <sched.h>
#include <sys/resource.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>
#include <string_view>
#include <vector>

#include "bench/router/systems.h"

namespace {

using bench::Answer;
using bench::Command;
using bench::FrameSizes;
using bench::System;
using bench::Task;

constexpr unsigned int kLargeBytes = 16 * 1024;
constexpr unsigned int kWindow = 64;
constexpr unsigned int kMembers = 100;
constexpr FrameSizes kSmallFrames{96, 96};  // where only the number of calls counts

enum class Figure { kTime, kRate };

struct Case {
  const char* name;
  Command batch;
  unsigned int members;
  Figure figure;
};

constexpr Case kCases[] = {
    {"round trip", {Task::kRoundTrip, 200, 0, 0}, 0, Figure::kTime},
    {"round trip, with a time-out", {Task::kRoundTripWithTimeout, 200, 0, 0}, 0, Figure::kTime},
    {"round trip, posted", {Task::kOutstanding, 200, 1, 0}, 0, Figure::kTime},
    {"round trip, 16 KiB", {Task::kRoundTrip, 100, 0, kLargeBytes}, 0, Figure::kTime},
    {"64 outstanding", {Task::kOutstanding, 1'000, kWindow, 0}, 0, Figure::kRate},
    {"fan-out to 100", {Task::kFanOut, 10, 0, 0}, kMembers, Figure::kTime},
    {"fan-out to everybody", {Task::kFanOutToAll, 10, 0, 0}, kMembers, Figure::kTime},
};
constexpr Command kConnects{Task::kConnect, 20, 0, 0};
constexpr Command kRoundTrips{Task::kRoundTrip, 200, 0, 0};
constexpr unsigned int kIdle[] = {10, 100, 1'000, 5'000};
constexpr rlim_t kDescriptors = 6'000;

void useOneCore() {
  cpu_set_t allowed;
  if (::sched_getaffinity(0, sizeof(allowed), &allowed) != 0) return;
  for (int cpu = CPU_SETSIZE - 1; cpu >= 0; --cpu) {
    if (!CPU_ISSET(cpu, &allowed)) continue;
    CPU_ZERO(&allowed);
    CPU_SET(cpu, &allowed);
    ::sched_setaffinity(0, sizeof(allowed), &allowed);
    return;
  }
}

double quantile(std::vector<double> values, double part) {
  std::sort(values.begin(), values.end());
  return values[static_cast<std::size_t>(part * static_cast<double>(values.size() - 1))];
}

double nanosecondsOfOne(const System& system, const Command& command) {
  return system.run(command).nanoseconds / command.times;
}

void compare(benchmark::State& state, const System& product, const System& limit, const Command& command,
             Figure figure) {
  nanosecondsOfOne(product, command);
  nanosecondsOfOne(limit, command);
  std::vector<double> products, limits, ratios;
  for ([[maybe_unused]] auto unused : state) {
    products.push_back(nanosecondsOfOne(product, command));
    limits.push_back(nanosecondsOfOne(limit, command));
    ratios.push_back(products.back() / limits.back());
    state.SetIterationTime((products.back() + limits.back()) * command.times * 1e-9);
  }
  const auto shown = [figure](double value) { return figure == Figure::kRate ? 1 / value : value; };
  const auto perSecond = [figure](double ns) { return figure == Figure::kRate ? 1e9 / ns : ns; };
  state.counters["product"] = perSecond(quantile(products, 0.5));
  state.counters["limit"] = perSecond(quantile(limits, 0.5));
  state.counters["ratio"] = shown(quantile(products, 0.5) / quantile(limits, 0.5));
  state.counters["low"] = shown(quantile(ratios, figure == Figure::kRate ? 0.9 : 0.1));
  state.counters["high"] = shown(quantile(ratios, figure == Figure::kRate ? 0.1 : 0.9));
}

// One batch of the product tells how large its frames are.
FrameSizes frameSizes(const System& product, const Command& batch) {
  Command asking = batch;
  if (batch.task == Task::kOutstanding) asking.task = Task::kRoundTrip;
  asking.times = 1;
  const Answer answer = product.run(asking);
  return {answer.requestBytes, answer.replyBytes};
}

void measureCase(benchmark::State& state, const Case& what) {
  const auto product = bench::startProduct(what.members);
  const auto limit = bench::startRelay(what.members, frameSizes(*product, what.batch));
  compare(state, *product, *limit, what.batch, what.figure);
}

// Each idle service is a descriptor of the loader's and one of the process that has them all.
bool takesManyDescriptors() {
  rlimit limit{};
  if (::getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_max < kDescriptors) return false;
  limit.rlim_cur = std::max(limit.rlim_cur, kDescriptors);
  return ::setrlimit(RLIMIT_NOFILE, &limit) == 0;
}

// The time for which a process has run, in the kernel and outside.
double cpuNanoseconds(pid_t pid) {
  std::ifstream in("/proc/" + std::to_string(pid) + "/schedstat");
  double nanoseconds = 0;
  in >> nanoseconds;
  return nanoseconds;
}

void measureBesideIdle(benchmark::State& state, unsigned int idle) {
  if (!takesManyDescriptors()) return state.SkipWithError("too few descriptors are allowed");
  const auto product = bench::startProduct(0, idle);
  const auto limit = bench::startRelay(0, frameSizes(*product, kRoundTrips));
  compare(state, *product, *limit, kRoundTrips, Figure::kTime);
  const double before = cpuNanoseconds(product->middle());
  product->run(kRoundTrips);
  state.counters["loader_ns"] = (cpuNanoseconds(product->middle()) - before) / kRoundTrips.times;
}

void measureConnecting(benchmark::State& state) {
  const auto product = bench::startProductToConnectTo();
  const auto limit = bench::startGreeter();
  compare(state, *product, *limit, kConnects, Figure::kTime);
}

// --- what a process holds for itself

double privateKiB(pid_t pid) {
  std::ifstream in("/proc/" + std::to_string(pid) + "/smaps_rollup");
  double sum = 0;
  for (std::string line; std::getline(in, line);)
    if (line.starts_with("Private_")) sum += std::atof(line.c_str() + line.find(':') + 1);
  return sum;
}

void measureMemory(benchmark::State& state) {
  const auto product = bench::startProduct(0);
  const auto limit = bench::startRelay(0, kSmallFrames);
  product->run({Task::kRoundTrip, 10, 0, 0});
  limit->run({Task::kRoundTrip, 10, 0, 0});
  for ([[maybe_unused]] auto unused : state) state.SetIterationTime(1);
  state.counters["product"] = state.counters["value"] = privateKiB(product->idleProcess());
  state.counters["limit"] = privateKiB(limit->idleProcess());
}

// --- system calls, by two runs of different length under strace

double callsOf(const std::string& task, const std::string& system, unsigned int times) {
  char summary[] = "/tmp/kl-calls-XXXXXX";
  const int fd = ::mkstemp(summary);
  if (fd < 0) return -1;
  ::close(fd);
  const std::string command = "strace -f -qq -c -U calls,name -o " + std::string(summary) + " " +
                              bench::programFolder() + "router_bench --" + task + " " + system + " " +
                              std::to_string(times);
  double calls = -1;
  if (std::system(command.c_str()) == 0) {
    std::ifstream in(summary);
    for (std::string line; std::getline(in, line);)
      if (line.ends_with("total")) calls = std::atof(line.c_str());
  }
  std::remove(summary);
  return calls;
}

double callsARequest(const std::string& task, const std::string& system) {
  const double few = callsOf(task, system, 100);
  const double many = callsOf(task, system, 1'100);
  return few < 0 || many < 0 ? -1 : (many - few) / 1'000;
}

void measureCalls(benchmark::State& state, const std::string& task, const std::string& system) {
  if (std::system("strace -V >/dev/null 2>&1") != 0) return state.SkipWithError("strace is missing");
  for ([[maybe_unused]] auto unused : state) state.SetIterationTime(1);
  const double product = callsARequest(task, system);
  const double limit = callsARequest(task, "relay");
  if (product < 0 || limit < 0) return state.SkipWithError("strace failed");
  state.counters["product"] = state.counters["value"] = product;
  state.counters["limit"] = limit;
}

int onlyBeside(unsigned int idle, unsigned int times) {
  if (!takesManyDescriptors()) return 1;
  bench::startProduct(0, idle)->run({Task::kRoundTrip, times, 0, 0});
  return 0;
}

int onlyOne(const std::string_view task, const std::string_view system, unsigned int times) {
  const auto started = system == "relay" ? bench::startRelay(0, kSmallFrames) : bench::startProduct(0);
  const bool limited = system == "product-with-time-out";
  if (task == "--outstanding") started->run({Task::kOutstanding, times, kWindow, 0});
  else started->run({limited ? Task::kRoundTripWithTimeout : Task::kRoundTrip, times, 0, 0});
  return 0;
}

void registerOnce(const char* name, void (*measure)(benchmark::State&)) {
  benchmark::RegisterBenchmark(name, measure)->UseManualTime()->Iterations(1);
}

}  // namespace

int main(int argc, char** argv) {
  useOneCore();
  const std::string_view task = argc == 4 ? argv[1] : "";
  if (task == "--round-trips" || task == "--outstanding")
    return onlyOne(task, argv[2], static_cast<unsigned int>(std::atoi(argv[3])));
  if (task == "--beside")
    return onlyBeside(static_cast<unsigned int>(std::atoi(argv[2])),
                      static_cast<unsigned int>(std::atoi(argv[3])));

  for (const Case& what : kCases)
    benchmark::RegisterBenchmark(what.name, [&what](benchmark::State& state) {
      measureCase(state, what);
    })->UseManualTime();
  for (const unsigned int idle : kIdle)
    benchmark::RegisterBenchmark(("round trip beside " + std::to_string(idle) + " idle services").c_str(),
                                 [idle](benchmark::State& state) { measureBesideIdle(state, idle); })
        ->UseManualTime();
  benchmark::RegisterBenchmark("connect and register", measureConnecting)->UseManualTime();
  registerOnce("idle service, private KiB", measureMemory);
  registerOnce("system calls a round trip",
               [](benchmark::State& state) { measureCalls(state, "round-trips", "product"); });
  registerOnce("system calls a round trip, with a time-out",
               [](benchmark::State& state) { measureCalls(state, "round-trips", "product-with-time-out"); });
  registerOnce("system calls a request, 64 outstanding",
               [](benchmark::State& state) { measureCalls(state, "outstanding", "product"); });
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 2;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}

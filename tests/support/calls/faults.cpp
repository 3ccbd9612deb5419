#include "tests/support/calls/faults.h"

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <iostream>

#include "tests/support/build/effort.h"
#include "tests/support/calls/faulty_calls.h"
#include "tests/support/process/descriptors.h"

namespace kl::test {
namespace {

constexpr unsigned int kPatienceSeconds = 20;
constexpr unsigned int kStep = kFaultStride;  // from one call that is hit to the next
constexpr int kLeakStatus = 91;
constexpr int kExpectationStatus = 92;

constexpr FaultKind kKinds[] = {
    {"read", EINTR},
    {"read", EAGAIN},
    {"read", EIO},
    {"read", ECONNRESET},
    {"read", kFallsShort},
    {"write", EINTR},
    {"write", EAGAIN},
    {"write", ENOSPC},
    {"write", EIO},
    {"write", EPIPE},
    {"write", kFallsShort},
    {"writev", EINTR},
    {"writev", EAGAIN},
    {"writev", EPIPE},
    {"writev", kFallsShort},
    {"pread", EINTR},
    {"pread", EIO},
    {"pread", kFallsShort},
    {"pwrite", EINTR},
    {"pwrite", ENOSPC},
    {"pwrite", EIO},
    {"pwrite", kFallsShort},
    {"pwritev", EINTR},
    {"pwritev", ENOSPC},
    {"pwritev", EIO},
    {"pwritev", kFallsShort},
    {"recv", EINTR},
    {"recv", EAGAIN},
    {"recv", ECONNRESET},
    {"recv", kFallsShort},
    {"send", EINTR},
    {"send", EAGAIN},
    {"send", ECONNRESET},
    {"send", EPIPE},
    {"send", kFallsShort},
    {"sendto", EAGAIN},
    {"sendto", ECONNREFUSED},
    {"sendto", ENOBUFS},
    {"poll", EINTR},
    {"poll", ENOMEM},
    {"socket", EMFILE},
    {"socketpair", EMFILE},
    {"bind", EADDRINUSE},
    {"listen", EADDRINUSE},
    {"connect", EINTR},
    {"connect", EAGAIN},
    {"connect", ECONNREFUSED},
    {"accept4", EINTR},
    {"accept4", EAGAIN},
    {"accept4", ECONNABORTED},
    {"accept4", EMFILE},
    {"accept4", ENOMEM},
    {"fcntl", EINTR},
    {"fcntl", ENOLCK},
    {"open", EMFILE},
    {"open", ENOSPC},
    {"open", EIO},
    {"fopen", EMFILE},
    {"close", EIO},
    {"fsync", EIO},
    {"fdatasync", EIO},
    {"ftruncate", EIO},
    {"rename", EIO},
    {"unlink", EIO},
    {"mkdir", ENOSPC},
    {"chmod", EIO},
    {"stat", EIO},
    {"fstat", EIO},
    {"readlink", EIO},
    {"mmap", ENOMEM},
    {"pipe2", EMFILE},
    {"sigaction", EINVAL},
    {"fork", EAGAIN},
    {"timerfd_create", EMFILE},
    {"inotify_init1", EMFILE},
    {"inotify_add_watch", ENOSPC},
};

bool names(const std::vector<std::string>& calls, const FaultKind& kind) {
  return std::find(calls.begin(), calls.end(), kind.call) != calls.end();
}

std::string describe(const FaultKind& kind, unsigned int n) {
  const std::string how = kind.outcome == kFallsShort ? "falls short" : std::strerror(kind.outcome);
  return "call " + std::to_string(n) + " of " + kind.call + ": " + how;
}

int failedParts() {
  return testing::UnitTest::GetInstance()->current_test_info()->result()->total_part_count();
}

void expose(const std::function<void()>& body, bool streams) {
  faultPlan.hitsStreams = streams;
  faultPlan.isExposed = true;
  body();
  faultPlan.isExposed = false;
}

// Whether a run was hit, told by its process.
class Report {
 public:
  Report()
      : hit_(static_cast<bool*>(
            ::mmap(nullptr, sizeof(bool), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0))) {}
  ~Report() { ::munmap(hit_, sizeof(bool)); }
  Report(const Report&) = delete;
  Report& operator=(const Report&) = delete;

  bool* hit() { return hit_; }

 private:
  bool* hit_;
};

std::string text(const std::vector<int>& numbers) {
  std::string list;
  for (const int number : numbers) list += std::to_string(number) + " ";
  return list;
}

void play(const std::function<void()>& scenario) {
  const int failedBefore = failedParts();
  (void)::close_range(STDERR_FILENO + 1, ~0U, 0);  // a scenario may want any of them
  const std::vector<int> before = openDescriptors();
  (void)::signal(SIGALRM, SIG_DFL);
  ::alarm(kPatienceSeconds);
  scenario();
  ::alarm(0);
  const std::vector<int> after = openDescriptors();
  std::cout.flush();
  std::fflush(nullptr);
  if (failedParts() > failedBefore) ::_exit(kExpectationStatus);
  if (after == before) return;
  std::fprintf(stderr, "descriptors before: %s, after: %s\n", text(before).c_str(), text(after).c_str());
  ::_exit(kLeakStatus);
}

FaultRun runOnce(const FaultKind& kind, unsigned int n, const std::function<void()>& scenario, bool* wasHit) {
  *wasHit = false;
  FaultRun run{kind, n, {}};
  run.child = runInChild([&] {
    faultPlan = {kind.call, kind.outcome, n, ::getpid(), false, false, 0, wasHit, 1};
    play(scenario);
  });
  return run;
}

void judge(const FaultRun& run) {
  const std::string said = run.child.out + run.child.err;
  if (run.child.signal == SIGALRM) ADD_FAILURE() << "it hangs\n" << said;
  if (run.child.exitStatus == kEndlessStatus) ADD_FAILURE() << "it calls the system without end\n" << said;
  if (run.child.exitStatus == kLeakStatus) ADD_FAILURE() << "a descriptor is left open\n" << said;
  if (run.child.exitStatus == kExpectationStatus) ADD_FAILURE() << said;
}

}  // namespace

std::vector<FaultKind> everyFault() { return {std::begin(kKinds), std::end(kKinds)}; }

std::vector<FaultKind> faultsOf(const std::vector<std::string>& calls) {
  std::vector<FaultKind> kinds = everyFault();
  std::erase_if(kinds, [&](const FaultKind& kind) { return !names(calls, kind); });
  return kinds;
}

std::vector<FaultKind> faultsWithout(const std::vector<std::string>& calls) {
  std::vector<FaultKind> kinds = everyFault();
  std::erase_if(kinds, [&](const FaultKind& kind) { return names(calls, kind); });
  return kinds;
}

bool FaultRun::is(const std::string& call, int outcome) const {
  return call == kind.call && outcome == kind.outcome;
}

void exposed(const std::function<void()>& body) { expose(body, false); }
void spared(const std::function<void()>& body) {
  const bool was = faultPlan.isExposed;
  faultPlan.isExposed = false;
  body();
  faultPlan.isExposed = was;
}
void exposedWithStreams(const std::function<void()>& body) { expose(body, true); }

void hurry(unsigned int times) { faultPlan.haste = times; }

unsigned int forEachFault(const std::vector<FaultKind>& kinds, const std::function<void()>& scenario,
                          const std::function<void(const FaultRun&)>& check) {
  Report report;
  unsigned int tried = 0;
  const FaultRun whole = runOnce({"", 0}, 0, scenario, report.hit());
  judge(whole);
  for (const FaultKind& kind : kinds)
    for (unsigned int n = 1;; n += kStep) {
      const FaultRun run = runOnce(kind, n, scenario, report.hit());
      if (!*report.hit()) {
        EXPECT_EQ(run.child.exitStatus, whole.child.exitStatus) << run.child.out << run.child.err;
        break;
      }
      ++tried;
      const testing::ScopedTrace trace(__FILE__, __LINE__, describe(kind, n));
      const int failedBefore = failedParts();
      judge(run);
      check(run);
      if (failedParts() > failedBefore) break;  // the next ones of this kind mostly fail for the same reason
    }
  testing::Test::RecordProperty("faults", static_cast<int>(tried));
  std::cout << "[  FAULTS  ] " << tried << std::endl;
  return tried * kStep;
}

}  // namespace kl::test

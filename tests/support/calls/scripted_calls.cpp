#include "tests/support/calls/scripted_calls.h"

#include <sys/syscall.h>
#include <sys/times.h>
#include <unistd.h>

#include <cerrno>
#include <ctime>
#include <utility>

namespace {

constexpr unsigned int kTicksBeforeBoot = 30000;

struct Clock {
  bool scripted = false;
  unsigned int jiffies = 0;
  int errorNumber = 0;
  unsigned int reads = 0;
};

struct Poll {
  kl::test::ScriptedPoll::Script script;
  std::vector<int> timeouts;
};

Clock clockState;
Poll pollState;

}  // namespace

extern "C" clock_t times(struct tms* buffer) noexcept {
  if (!clockState.scripted) return static_cast<clock_t>(::syscall(SYS_times, buffer));
  ++clockState.reads;
  if (clockState.errorNumber != 0) {
    errno = clockState.errorNumber;
    return static_cast<clock_t>(-1);
  }
  return static_cast<clock_t>(clockState.jiffies - kTicksBeforeBoot);
}

extern "C" int poll(struct pollfd* fds, nfds_t count, int timeoutMs) {
  if (pollState.script) {
    pollState.timeouts.push_back(timeoutMs);
    std::vector<pollfd*> entries;
    for (nfds_t i = 0; i < count; ++i) entries.push_back(&fds[i]);
    return pollState.script(std::move(entries));
  }
  const timespec limit{timeoutMs / 1000, timeoutMs % 1000 * 1000000L};
  return ::ppoll(fds, count, timeoutMs < 0 ? nullptr : &limit, nullptr);
}

namespace kl::test {

ScriptedClock::ScriptedClock(unsigned int jiffies) { clockState = {true, jiffies, 0, 0}; }
ScriptedClock::~ScriptedClock() { clockState = {}; }
void ScriptedClock::set(unsigned int jiffies) {
  clockState.jiffies = jiffies;
  clockState.errorNumber = 0;
}
void ScriptedClock::advance(unsigned int ticks) { clockState.jiffies += ticks; }
void ScriptedClock::failWith(int errorNumber) { clockState.errorNumber = errorNumber; }
unsigned int ScriptedClock::now() const { return clockState.jiffies; }
unsigned int ScriptedClock::reads() const { return clockState.reads; }

ScriptedPoll::ScriptedPoll(Script script) { pollState = {std::move(script), {}}; }
ScriptedPoll::~ScriptedPoll() { pollState = {}; }
const std::vector<int>& ScriptedPoll::timeouts() const { return pollState.timeouts; }

}  // namespace kl::test

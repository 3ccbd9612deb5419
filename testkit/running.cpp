// When the service runs, and when time passes.
//
// The loop of the service is stopped where it would sleep: in poll(), which is played here.  Its next run goes on there.
// Where something else of it waits (an exchange, a full socket), the test cannot go on before that is over, so time
// passes as far as it must.
//
//     poll: pump --> something is ready -----------------> back to the service
//             ^  '-> nothing may happen before the moment -> the loop stops, or the process waits for ever
//             '----- the next timer, delayed byte or moment <-- time passes up to there

#include <algorithm>
#include <chrono>
#include <limits>
#include <utility>

#include "kl/conventions.h"
#include "testkit/bus.h"
#include "testkit/failures.h"
#include "testkit/member.h"

namespace kl::test {
namespace {

constexpr Moment kForever = std::numeric_limits<Moment>::max();
constexpr unsigned int kMostPasses = 100000;  // between two ticks: a loop that does not rest is a fault
constexpr int kMsPerTick = 10;

// The flag that ends a loop is for classes derived from it alone.
struct StopFlag : ThinRunner {
  static bool& of(ThinRunner& loop) { return loop.*(&StopFlag::stop_); }
};

bool watches(const pollfd* entries, nfds_t count, int fd) {
  return std::any_of(entries, entries + count, [fd](const pollfd& entry) { return entry.fd == fd; });
}

}  // namespace

timespec Bus::wallTime() const {
  const auto ticks = static_cast<long long>(elapsed_);
  timespec time{};
  time.tv_sec = wallClock_ + static_cast<std::time_t>(ticks / 100);
  time.tv_nsec = static_cast<long>(ticks % 100) * 10'000'000L;
  return time;
}

void Bus::setWallClock(std::time_t seconds) {
  wallClock_ = seconds - static_cast<std::time_t>(elapsed_ / 100);
}

int Bus::poll(pollfd* entries, nfds_t count, int timeoutMs) {
  const bool isLoop = watches(entries, count, marker_);
  if (!isLoop && (!wire.isOpen() || !watches(entries, count, CONNECTION_DESCRIPTOR)))
    return systemPoll(entries, count, timeoutMs);
  if (isPumping_) giveUp("a script waits for a reply, while the service waits for the script");
  Moment left = timeoutMs < 0 ? kForever : static_cast<Moment>((timeoutMs + kMsPerTick - 1) / kMsPerTick);
  while (true) {
    pump();
    const int ready = systemPoll(entries, count, 0);
    if (ready != 0 || left == 0) {
      countPass();
      return ready;
    }
    if (wire.isDue(elapsed_)) continue;
    Moment step = std::min(left, nextDelivery().value_or(kForever) - elapsed_);
    if (isLoop && isAtRest(step)) {
      const int late = realWaitMs_ > 0 ? systemPoll(entries, count, realWaitMs_) : 0;
      isStopped_ = StopFlag::of(*getLooper()) = true;
      return late;
    }
    if (step > kForever / 2) giveUp("the service waits without limit, and nobody sends it anything");
    elapsed_ += step;
    passes_ = 0;
    if (left != kForever) left -= step;
  }
}

// True when the loop is to stop where it is; else as much time as `step` says then may pass.
bool Bus::isAtRest(Moment& step) {
  if (!isStepping_) {
    if (step <= kForever / 2) return false;
    complain("run() of the service would never end: nothing is on its way, and no timer waits");
    return true;
  }
  if (condition_ != nullptr && *condition_ && (*condition_)()) return true;
  if (elapsed_ >= deadline_) return true;
  step = std::min(step, deadline_ - elapsed_);
  return false;
}

std::optional<Moment> Bus::nextDelivery() const {
  std::optional<Moment> next = wire.nextDue();
  if (!later_.empty() && (!next || later_.begin()->first < *next)) next = later_.begin()->first;
  return next;
}

void Bus::countPass() {
  if (++passes_ < kMostPasses) return;
  passes_ = 0;
  complain("the service does not come to rest: it never waits");
  if (Looper* const looper = getLooper()) isStopped_ = StopFlag::of(*looper) = true;
}

bool Bus::isServiceRunning() const {
  return getLooper() != nullptr && !hasEnded_ && service_ != nullptr && service_->isConnected();
}

void Bus::run(Moment until, const Condition& condition) {
  if (isRunning_ || isPumping_) return complain("a script or the service itself has asked the bus to run");
  isRunning_ = true;
  passes_ = 0;
  deadline_ = until;
  condition_ = &condition;
  pump();
  if (isServiceRunning()) runService();
  if (!isServiceRunning()) runAlone();
  condition_ = nullptr;
  isRunning_ = false;
  raise();
}

// The first run is that of the service, with what it does before its loop; the next ones go on with the loop.
void Bus::runService() {
  Looper& looper = *getLooper();
  isStepping_ = true;
  isStopped_ = false;
  if (std::exchange(hasBegun_, true)) looper.ThinRunner::run();
  else looper.run();
  isStepping_ = false;
  if (isStopped_) {
    StopFlag::of(looper) = false;
    return;
  }
  hasEnded_ = true;
  pump();
  onServiceEnd();
}

// Nobody but members is there.
void Bus::runAlone() {
  while (true) {
    pump();
    if (condition_ != nullptr && *condition_ && (*condition_)()) return;
    const auto next = nextDelivery();
    if (!next || *next > deadline_) break;
    elapsed_ = std::max(elapsed_, *next);
  }
  elapsed_ = std::max(elapsed_, deadline_);
}

bool Bus::runInRealTime(const Condition& condition, int deadlineMs) {
  using Clock = std::chrono::steady_clock;
  const auto end = Clock::now() + std::chrono::milliseconds(deadlineMs);
  while (true) {
    run(elapsed_);
    if (condition()) return true;
    if (Clock::now() >= end) return false;
    realWaitMs_ = kMsPerTick;
    run(elapsed_);
    realWaitMs_ = 0;
  }
}

}  // namespace kl::test

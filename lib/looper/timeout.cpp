// How long a reader may wait.

#include "looper/timeout.h"

#include <limits>

#include "kl/runner.h"

namespace kl {
namespace {

constexpr int kMillisecondsPerTick = 10;
constexpr unsigned int kLongestPollTicks = std::numeric_limits<int>::max() / kMillisecondsPerTick;

}  // namespace

int Timeout::milliseconds() {
  if (ticks_ <= 0) return ticks_ < 0 ? -1 : 0;
  const auto limit = static_cast<unsigned int>(ticks_);
  const unsigned int gone = elapsed();
  if (gone >= limit) return 0;
  // A poll that ends early is repeated with what is left then.
  const unsigned int left = limit - gone < kLongestPollTicks ? limit - gone : kLongestPollTicks;
  return static_cast<int>(left) * kMillisecondsPerTick;
}

bool Timeout::expired() { return ticks_ > 0 && elapsed() >= static_cast<unsigned int>(ticks_); }

unsigned int Timeout::elapsed() {
  if (started_) return getJiffies() - start_;
  started_ = true;
  start_ = getJiffies();
  return 0;
}

}  // namespace kl

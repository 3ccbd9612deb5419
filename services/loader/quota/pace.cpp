// Time passes when somebody asks: the bucket gets what it has missed, and the counts of an earlier tick end.

#include "quota/pace.h"

#include <algorithm>

namespace loader {

bool Pace::admitOne(unsigned int now) {
  advance(now);
  if (failures_ >= kMostFailures) return false;
  if (wasSlow_ && admitted_ >= kMostFailures) return false;
  if (burst_ != 0 && parts_ < kTicksPerSecond) return false;
  if (burst_ != 0) parts_ -= kTicksPerSecond;
  ++admitted_;
  return true;
}

bool Pace::countFailure(unsigned int now) {
  advance(now);
  return ++failures_ == kMostFailures;
}

bool Pace::takeLogLine(unsigned int now) {
  if (hasLine_ && now - lineAt_ < kLineTicks) return false;
  hasLine_ = true;
  lineAt_ = now;
  return true;
}

bool Pace::isRested(unsigned int now) const {
  const unsigned long long gained = static_cast<unsigned long long>(now - now_) * perSecond_;
  return parts_ + gained >= burst_ * kTicksPerSecond && now - now_ > 2 &&
         (!hasLine_ || now - lineAt_ >= kLineTicks);
}

void Pace::advance(unsigned int now) {
  if (now == now_) return;
  const unsigned int ticks = now - now_;
  wasSlow_ = ticks == 1 && failures_ >= kMostFailures;
  failures_ = admitted_ = 0;
  parts_ = std::min(parts_ + static_cast<unsigned long long>(ticks) * perSecond_, burst_ * kTicksPerSecond);
  now_ = now;
}

}  // namespace loader

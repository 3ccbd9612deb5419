// R1  bytes_ is the sum of weightOf over the lines and over the keys of origins_, and at most mostBytes_
// R2  line n stands at lines_[n - first_]

#include "keeping/ring.h"

namespace logd {
namespace {

constexpr std::size_t kOriginExtra = 96;  // its entry among the origins, and what shares it
constexpr std::size_t kAllocationExtra = 16;

std::size_t weightOf(const Line& line) { return sizeof line + line.text.capacity() + kAllocationExtra; }

std::size_t weightOf(const Origin& origin) {
  return sizeof origin + kOriginExtra + origin.process.capacity() + origin.topics.capacity() * sizeof(Topic);
}

}  // namespace

void Ring::add(Line line) {
  line.text.shrink_to_fit();
  bytes_ += weightOf(line);
  if (++origins_[line.origin.get()] == 1) bytes_ += weightOf(*line.origin);
  lines_.push_back(std::move(line));
  while (bytes_ > mostBytes_) dropOldest();
}

Ring::Number Ring::from(unsigned int id) const {
  const Number ahead = (id + 2 * kIds - 1 - first_ % kIds) % kIds;
  if (ahead <= lines_.size()) return first_ + ahead;
  return ahead > kIds / 2 ? first_ : end();
}

std::optional<Ring::Number> Ring::find(unsigned int id) const {
  const Number n = from(id);
  if (n == end() || idOf(n) != id) return {};
  return n;
}

void Ring::dropOldest() {
  const Line& oldest = lines_.front();
  bytes_ -= weightOf(oldest);
  const auto origin = origins_.find(oldest.origin.get());
  if (--origin->second == 0) {
    bytes_ -= weightOf(*oldest.origin);
    origins_.erase(origin);
  }
  lines_.pop_front();
  ++first_;
}

}  // namespace logd

// Runs are added behind and shortened at the front; a sender whose last run is gone has no entry.

#include "routing/shares.h"

#include <algorithm>
#include <limits>

namespace loader {

void Shares::update(std::size_t waiting) {
  if (!counts_) return;
  if (waiting == 0) return clear();
  if (waiting < counts_->waiting) dropFront(counts_->waiting - waiting);
  counts_->waiting = waiting;
}

std::size_t Shares::of(unsigned int sender) const {
  if (!counts_) return 0;
  const auto found = counts_->bytes.find(sender);
  return found == counts_->bytes.end() ? 0 : found->second;
}

void Shares::count(unsigned int sender, std::size_t bytes, std::size_t before) {
  update(before);
  if (!counts_) {
    counts_ = std::make_unique<Counts>();
    counts_->waiting = counts_->nobodys = before;
  }
  counts_->waiting += bytes;
  counts_->bytes[sender] += bytes;
  std::deque<Run>& runs = counts_->runs;
  const auto added = static_cast<unsigned int>(bytes);
  const bool fits = !runs.empty() && runs.back().sender == sender &&
                    runs.back().bytes <= std::numeric_limits<unsigned int>::max() - added;
  if (fits) runs.back().bytes += added;
  else runs.push_back({sender, added});
  charge_.set(charged());
}

void Shares::dropFront(std::size_t bytes) {
  const std::size_t nobodys = std::min(bytes, counts_->nobodys);
  counts_->nobodys -= nobodys;
  bytes -= nobodys;
  std::deque<Run>& runs = counts_->runs;
  while (bytes > 0 && !runs.empty()) {
    const auto dropped = static_cast<unsigned int>(std::min<std::size_t>(bytes, runs.front().bytes));
    dropFrom(runs.front(), dropped);
    if (runs.front().bytes == 0) runs.pop_front();
    bytes -= dropped;
  }
  charge_.set(charged());
}

void Shares::dropFrom(Run& run, unsigned int bytes) {
  run.bytes -= bytes;
  const auto entry = counts_->bytes.find(run.sender);
  entry->second -= bytes;
  if (entry->second == 0) counts_->bytes.erase(entry);
}

}  // namespace loader

// The defaults come from the table; descriptors are dealt out from the top: first the loader's own files, then half of
// the rest at most as the reserve, and what is left is for ordinary users.

#include "quota/limits.h"

#include <algorithm>

namespace loader {
namespace {

// Standard streams, signals, the socket, the log, stores, and a few that are open only for a moment.
constexpr std::size_t kOwnDescriptors = 32;

}  // namespace

Limits::Limits() {
  for (const ResourceRow& row : kResourceRows) {
    user[row.resource] = row.user;
    all[row.resource] = row.all;
    reserve[row.resource] = row.reserve;
  }
}

std::size_t Limits::memory() const {
  std::size_t sum = 0;
  for (const ResourceRow& row : kResourceRows)
    sum += row.memory * (all[row.resource] + reserve[row.resource]);
  return sum;
}

void Limits::fitDescriptors(std::size_t descriptors) {
  const std::size_t rest = descriptors - std::min(descriptors, kOwnDescriptors);
  const std::size_t kept = std::min(reserve[Resource::kConnections], rest / 2);
  all[Resource::kConnections] = std::min(all[Resource::kConnections], rest - kept);
  user[Resource::kConnections] = std::min(user[Resource::kConnections], all[Resource::kConnections]);
}

}  // namespace loader

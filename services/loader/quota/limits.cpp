// The defaults come from the table; descriptors are dealt out from the top: first the loader's own files, then half of
// the rest at most as the reserve, and what is left is for ordinary users, of whom each keeps his part of it.

#include "quota/limits.h"

#include <algorithm>

namespace loader {
namespace {

// Standard streams, signals, the socket, the log, stores, and a few that are open only for a moment.
constexpr std::size_t kOwnDescriptors = 32;

// amount * to / from, rounded up.
std::size_t partOf(std::size_t amount, unsigned long long to, std::size_t from) {
  return static_cast<std::size_t>((amount * to + from - 1) / from);
}

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
  std::size_t& ofAll = all[Resource::kConnections];
  std::size_t& ofUser = user[Resource::kConnections];
  const std::size_t fitting = std::min(ofAll, rest - kept);
  if (fitting < ofAll) ofUser = partOf(ofUser, fitting, ofAll);
  ofAll = fitting;
}

}  // namespace loader

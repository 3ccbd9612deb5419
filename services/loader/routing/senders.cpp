// The figures lie in the order of the ids.  They move when one comes or goes, and the one of the last time is looked for
// anew then.

#include "routing/senders.h"

#include <algorithm>

namespace loader {
namespace {

bool isBefore(const Senders::Sent& one, unsigned int sender) { return one.sender < sender; }

}  // namespace

void Senders::forget(unsigned int sender) {
  const auto place = std::lower_bound(all_.begin(), all_.end(), sender, isBefore);
  if (place == all_.end() || place->sender != sender) return;
  others_.messages += place->messages;
  others_.bytes += place->bytes;
  all_.erase(place);
  last_ = &others_;
}

Senders::Sent& Senders::placeOf(unsigned int sender) {
  const auto place = std::lower_bound(all_.begin(), all_.end(), sender, isBefore);
  if (place != all_.end() && place->sender == sender) return *place;
  return all_.size() < kMost ? *all_.insert(place, Sent{sender}) : others_;
}

}  // namespace loader

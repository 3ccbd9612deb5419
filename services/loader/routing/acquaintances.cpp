// The ids lie in order: few enough are kept that moving them is cheap, and those who come in order, as the copies of a
// message to all do, are put at the end.

#include "routing/acquaintances.h"

#include <algorithm>

namespace loader {

void Acquaintances::addOther(unsigned int id) {
  last_ = id;
  const auto place = std::lower_bound(ids_.begin(), ids_.end(), id);
  if (place != ids_.end() && *place == id) return;
  isEverybody_ = ids_.size() == kMost;
  if (isEverybody_) std::vector<unsigned int>().swap(ids_);
  else ids_.insert(place, id);
}

void Acquaintances::forget(unsigned int id) {
  if (id == last_) last_ = 0;
  const auto place = std::lower_bound(ids_.begin(), ids_.end(), id);
  if (place != ids_.end() && *place == id) ids_.erase(place);
}

}  // namespace loader

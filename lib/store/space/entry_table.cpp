// Where the record of each entry lies: a hash table without lists.
//
// P1  an id lies at its home or behind it, with no empty place between the two
// P2  at least a third of the places is empty
//
// Held by StoreRecordPlacesSteps.AgreeWithAMap.

#include "store/space/entry_table.h"

#include <utility>

namespace kl {
namespace {

constexpr std::size_t kFirstPlaces = 16;

// Every bit of an id counts for every bit of its home: ids are often numbers in a row, or addresses.
unsigned int scattered(unsigned int id) {
  id = (id ^ id >> 16) * 0x85ebca6b;
  id = (id ^ id >> 13) * 0xc2b2ae35;
  return id ^ id >> 16;
}

bool isUsed(const RecordPlaces::Place& place) { return place.id != kFreeId; }

}  // namespace

void RecordPlaces::put(const Place& place) {
  if (3 * (used_ + 1) > 2 * places_.size()) grow();
  Place& found = places_[indexOf(place.id)];
  if (!isUsed(found)) ++used_;
  found = place;
}

// What lies behind the gap moves up where P1 wants it.
void RecordPlaces::erase(unsigned int id) {
  if (find(id) == nullptr) return;
  std::size_t gap = indexOf(id);
  const std::size_t mask = places_.size() - 1;
  for (std::size_t at = behind(gap); isUsed(places_[at]); at = behind(at)) {
    const std::size_t fromHome = (at - homeOf(places_[at].id)) & mask;
    if (fromHome < ((at - gap) & mask)) continue;  // its home lies behind the gap
    places_[gap] = places_[at];
    gap = at;
  }
  places_[gap] = Place();
  --used_;
}

const RecordPlaces::Place* RecordPlaces::find(unsigned int id) const {
  if (places_.empty()) return nullptr;
  const Place& found = places_[indexOf(id)];
  return isUsed(found) ? &found : nullptr;
}

void RecordPlaces::clear() {
  places_.clear();
  used_ = 0;
}

std::size_t RecordPlaces::homeOf(unsigned int id) const { return scattered(id) & (places_.size() - 1); }

// Where the id is, or else where it would be put.  P2 ends the search.
std::size_t RecordPlaces::indexOf(unsigned int id) const {
  std::size_t at = homeOf(id);
  while (isUsed(places_[at]) && places_[at].id != id) at = behind(at);
  return at;
}

void RecordPlaces::grow() {
  const std::vector<Place> before =
      std::exchange(places_, std::vector<Place>(places_.empty() ? kFirstPlaces : 2 * places_.size()));
  for (const Place& place : before)
    if (isUsed(place)) places_[indexOf(place.id)] = place;
}

}  // namespace kl

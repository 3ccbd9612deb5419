// Identifiers: which are free, and in which order they are handed out.
//
// The free identifiers are disjoint ranges in ascending order, and one of them is the current one.  Two ranges
// may be adjacent: nothing is ever joined to the low end of the current range, so that what was freed there
// waits until the allocator has come around.  The tree finds a range and keeps the current one current while
// others come and go (range_tree.h); the rules are here.

#include "kl/allocator.h"

#include <cstdlib>
#include <iostream>

#include "store/range_tree.h"

namespace kl {

using ranges::Place;

// What taking and giving back does to the ranges.
class FreeRanges : public ranges::RangeTree {
 public:
  void take(Place place, unsigned int id);
  void extendUp(Place below, Place above);
  void extendDown(Place place);
  void insertAlone(Place above, unsigned int id, bool nothingIsCounted);
};

namespace {

[[noreturn]] void misuse(const char* line) {
  std::cout << line << std::endl;
  std::abort();
}

}  // namespace

Allocator::Allocator(unsigned int first, unsigned int last)
    : lowest_(first), highest_(last), freeCount_(last - first + 1), ranges_(new FreeRanges) {
  if (first > last) misuse("allocator: start beyond end");
  if (freeCount_ == 0) misuse("Loud Error: Allocator created with 0 free items, max range specified");
  ranges_->insert(ranges_->lowest(), first, last);
}

// Kept on purpose: a range that is adjacent to the one above it extends that one downwards without being
// counted, and the checks go on comparing with the one above.
// Held by Allocator.AdjacentRangesBecomeOneOfWhichTheHighestPartCounts.
Allocator::Allocator(const std::vector<unsigned int>& ranges)
    : lowest_(0), highest_(0), freeCount_(0), ranges_(new FreeRanges) {
  if (ranges.empty()) misuse("allocator: empty initialisator");
  if (ranges.size() % 2 != 0) misuse("allocator: odd length initialisator");
  unsigned int firstAbove = 0xFFFFFFFF;
  for (std::size_t end = ranges.size(); end > 0; end -= 2) {
    const unsigned int first = ranges[end - 2];
    const unsigned int last = ranges[end - 1];
    if (last >= firstAbove) misuse("allocator: overlapping ranges");
    if (last == firstAbove - 1 && !ranges_->isEmpty()) {
      ranges_->setFirst(ranges_->lowest(), first);
      continue;
    }
    if (first > last) misuse("allocator: start beyond end");
    freeCount_ += last - first + 1;
    if (freeCount_ == 0) misuse("Loud Error: Allocator collected with 0 free items, max range specified");
    firstAbove = first;
    ranges_->setCurrent(ranges_->insert(ranges_->lowest(), first, last));
  }
  lowest_ = ranges_->lowest().first();
  highest_ = ranges.back();
}

Allocator::~Allocator() { delete ranges_; }

unsigned int Allocator::allocate() {
  if (freeCount_ == 0) misuse("allocator: no free ids");
  const Place current = ranges_->current();
  const unsigned int id = current.first();
  if (id == current.last()) ranges_->erase(current);
  else ++current.leaf->value[current.at];
  --freeCount_;
  return id;
}

unsigned int Allocator::allocate(unsigned int id) {
  if (freeCount_ == 0) misuse("allocator: no free ids (spec)");
  const Place place = ranges_->find(id);
  if (!place.isRange()) misuse("allocator: spec alloc for already allocated 2");
  if (id < place.first()) misuse("allocator: spec alloc for already allocated");
  const bool wasCurrent = place == ranges_->current();
  ranges_->take(place, id);
  --freeCount_;
  if (wasCurrent) spin();
  return id;
}

void Allocator::free(unsigned int id) {
  const Place above = ranges_->find(id);
  if (above.isRange() && above.first() <= id) misuse("allocator: free already free id");
  Place below = above;
  const bool hasBelow = FreeRanges::stepBack(below);
  if (hasBelow && below.last() + 1 == id) ranges_->extendUp(below, above);
  else if (above.isRange() && above.first() - 1 == id) ranges_->extendDown(above);
  else ranges_->insertAlone(above, id, freeCount_ == 0);
  ++freeCount_;
}

bool Allocator::isAllocated(unsigned int id) const {
  const Place place = ranges_->find(id);
  return !place.isRange() || id < place.first();
}

void Allocator::spin() {
  if (!ranges_->isEmpty()) ranges_->setCurrent(ranges_->findWidest());
}

void Allocator::dump(const std::string& title) const {
  std::cout << title << ":" << std::endl;
  for (Place place = ranges_->lowest(); place.isRange(); place = FreeRanges::next(place))
    std::cout << "  " << place.first() << " - " << place.last() << (place == ranges_->current() ? " *" : "")
              << std::endl;
  std::cout << "------" << std::endl;
}

void FreeRanges::take(Place place, unsigned int id) {
  const unsigned int first = place.first();
  if (first == place.last()) return erase(place);
  if (id == place.last()) return setLast(place, id - 1);
  setFirst(place, id + 1);
  if (id != first) insert(place, first, id - 1);
}

// A gap that closes makes one range of two, unless the upper one is the current one.
void FreeRanges::extendUp(Place below, Place above) {
  const unsigned int id = below.last() + 1;
  if (!above.isRange() || above.first() - id != 1 || above == current()) return setLast(below, id);
  setFirst(above, below.first());
  if (below == current()) setCurrent(above);
  erase(below);
}

void FreeRanges::extendDown(Place place) {
  const unsigned int id = place.first() - 1;
  if (place == current()) insert(place, id, id);
  else setFirst(place, id);
}

// Kept on purpose: where nothing is counted as free, a new lowest range takes the place of a lowest range that
// is the current one.  Held by Allocator.WithNothingCountedANewLowestRangeIsCurrent.
void FreeRanges::insertAlone(Place above, unsigned int id, bool nothingIsCounted) {
  const bool replacesCurrent = nothingIsCounted && above == lowest() && current() == above;
  const Place place = insert(above, id, id);
  if (replacesCurrent) setCurrent(place);
}

}  // namespace kl

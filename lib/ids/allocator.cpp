// Identifiers: which are free, and in which order they are handed out.
//
// The free identifiers are disjoint ranges in ascending order, and one of them is the current one.  Two ranges may
// touch: nothing is ever joined to the low end of the current range, so that what was freed there waits until the
// allocator has come around.  The ranges themselves are kept in free_ranges.cpp; the counts, the checks for misuse
// and the choice of the largest range are here.

#include "kl/allocator.h"

#include <cstdlib>
#include <iostream>

#include "base/report.h"
#include "ids/free_ranges.h"

namespace kl {
namespace {

[[noreturn]] void misuse(const char* line) {
  printLine(line);
  std::abort();
}

}  // namespace

Allocator::Allocator(unsigned int first, unsigned int last)
    : lowest_(first), highest_(last), freeCount_(last - first + 1), ranges_(new FreeRanges) {
  if (first > last) misuse("allocator: start beyond end");
  if (freeCount_ == 0) misuse("Loud Error: Allocator created with 0 free items, max range specified");
  ranges_->insertLowest({first, last});
  ranges_->setCurrent(first);
}

// Kept on purpose: a range that is adjacent to the one above it extends that one downwards without being
// counted, and the checks go on comparing with the one above.
// Held by Allocator.AdjacentRangesBecomeOneOfWhichTheHighestPartCounts.
[[gnu::cold]] Allocator::Allocator(const std::vector<unsigned int>& ranges)
    : lowest_(0), highest_(0), freeCount_(0), ranges_(new FreeRanges) {
  if (ranges.empty()) misuse("allocator: empty initialisator");
  if (ranges.size() % 2 != 0) misuse("allocator: odd length initialisator");
  unsigned int firstAbove = 0xFFFFFFFF;
  FreeRanges::Range lowest{1, 0};  // of those so far, and not yet put among the others
  for (std::size_t end = ranges.size(); end > 0; end -= 2) {
    const unsigned int first = ranges[end - 2];
    const unsigned int last = ranges[end - 1];
    if (last >= firstAbove) misuse("allocator: overlapping ranges");
    if (first > last) misuse("allocator: start beyond end");
    const bool isHighest = end == ranges.size();
    if (last == firstAbove - 1 && !isHighest) {
      lowest.first = first;
      continue;
    }
    freeCount_ += last - first + 1;
    if (freeCount_ == 0) misuse("Loud Error: Allocator collected with 0 free items, max range specified");
    firstAbove = first;
    if (!isHighest) ranges_->insertLowest(lowest);
    lowest = {first, last};
  }
  ranges_->insertLowest(lowest);
  ranges_->setCurrent(lowest.first);
  lowest_ = lowest.first;
  highest_ = ranges.back();
}

Allocator::~Allocator() { delete ranges_; }

unsigned int Allocator::allocate() {
  if (freeCount_ == 0) misuse("allocator: no free ids");
  --freeCount_;
  return ranges_->takeNext();
}

unsigned int Allocator::allocate(unsigned int id) {
  if (freeCount_ == 0) misuse("allocator: no free ids (spec)");
  const FreeRanges::Taken taken = ranges_->take(id);
  if (taken == FreeRanges::Taken::kNothing) {
    FreeRanges::Range above{};
    misuse(ranges_->findFrom(id, above) ? "allocator: spec alloc for already allocated"
                                        : "allocator: spec alloc for already allocated 2");
  }
  --freeCount_;
  if (taken == FreeRanges::Taken::kOfCurrent) spin();
  return id;
}

// Kept on purpose: where nothing is counted as free, a new lowest range takes the place of a lowest range that
// is the current one.  Held by Allocator.WithNothingCountedANewLowestRangeIsCurrent.
void Allocator::free(unsigned int id) {
  const bool isNext = freeCount_ == 0 && ranges_->isAheadOfCurrent(id);
  if (!ranges_->giveBack(id)) misuse("allocator: free already free id");
  if (isNext) ranges_->setCurrent(id);
  ++freeCount_;
}

bool Allocator::isAllocated(unsigned int id) const { return !ranges_->contains(id); }

void Allocator::spin() {
  if (!ranges_->isEmpty()) ranges_->makeLargestCurrent();
}

[[gnu::cold]] void Allocator::dump(const std::string& title) const {
  std::cout << title << ":" << std::endl;
  FreeRanges::Range range{0, 0};
  for (unsigned int from = 0; ranges_->findFrom(from, range); from = range.first + 1) {
    std::cout << "  " << range.first << " - " << range.last << (range.first == ranges_->current() ? " *" : "")
              << std::endl;
    if (range.first == 0xFFFFFFFF) break;
  }
  std::cout << "------" << std::endl;
}

}  // namespace kl

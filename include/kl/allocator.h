#pragma once
// kl/allocator.h: hands out numeric identifiers and takes them back.

#include <string>
#include <vector>

#include "kl/export.h"

namespace kl {

class FreeRanges;  // the ordered ranges, of which one is the current one

// Hands out 32-bit identifiers from one or more inclusive ranges, in ascending order.  A freed identifier waits
// its turn, so a fresh one is rarely a recent one:
//
//     kl::Allocator ids(1, 10);
//     ids.allocate();     // 1, and once more: 2
//     ids.free(1);
//     ids.allocate();     // 3, not 1
//
// It knows the free ranges, in ascending order, and which of them is the current one.  New identifiers come from
// the low end of the current range; once it is used up the next one is current, and after the highest the
// lowest.  An identifier freed beside the current range is never joined to its low end.
//
// Errors:    misuse is a bug of the caller: one line on standard output, then abort().
// Ownership: owns its ranges; a resource, not a value, so it is not copied.
// Threads:   belongs to one thread; nothing here is async-signal-safe.
// Cost:      memory grows with the free ranges, not with the identifiers: of many, 1 to 2 bytes for each where they lie
//            close together, 20 to 60 where they lie far apart; 740 for the first.  allocate() takes constant time;
//            free(), isAllocated() and, but for spin(), allocate(id) take time logarithmic in the number of free
//            ranges; spin() looks at the neighbourhood of what has changed since the last time.
class KL_API Allocator {
 public:
  // One range of free identifiers, both ends included.
  struct FreeRange {
    unsigned int first;
    unsigned int last;
  };

  // Offers first..last.  Needs: first <= last, and not the whole 32-bit space.
  Allocator(unsigned int first, unsigned int last);

  // Offers several ranges: element 2k is the first identifier of range k, element 2k + 1 its last.
  // Needs: at least one pair; ascending, disjoint; the last range ends below 0xFFFFFFFF.
  // Adjacent ranges become one, of which only the highest part is counted: once as many identifiers as were
  // counted are taken, allocate() finds none.
  explicit Allocator(const std::vector<unsigned int>& ranges);

  ~Allocator();
  Allocator(const Allocator&) = delete;
  Allocator& operator=(const Allocator&) = delete;

  // Takes the next identifier of the current range.  Needs: one is free.
  unsigned int allocate();

  // Takes this one, and returns it.  If it came out of the current range, the largest range is current
  // afterwards.  Needs: it is free.
  unsigned int allocate(unsigned int id);

  // Gives one back.  One outside the span becomes free as well.  Needs: it is not free.
  void free(unsigned int id);

  // False only inside a free range; whatever lies outside the span counts as taken.
  bool isAllocated(unsigned int id) const;

  // Makes the largest range the current one, of several the lowest.
  void spin();

  // The span: the lowest and the highest identifier that the allocator was made with.
  unsigned int lowest() const { return lowest_; }
  unsigned int highest() const { return highest_; }

  // Prints `title`, then a line for each free range, with a star behind the current one:
  //
  //     ids:
  //       1 - 1
  //       3 - 10 *
  //     ------
  void dump(const std::string& title) const;

 private:
  unsigned int lowest_;
  unsigned int highest_;
  unsigned int freeCount_;
  FreeRanges* ranges_;
};

}  // namespace kl

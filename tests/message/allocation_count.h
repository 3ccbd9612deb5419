#pragma once
// allocation_count.h: how often the heap was asked in between.

namespace kl::test {

class AllocationCount {
 public:
  AllocationCount();
  // Allocations by operator new, in any thread, since this was made.
  unsigned long since() const;

 private:
  unsigned long before_;
};

}  // namespace kl::test

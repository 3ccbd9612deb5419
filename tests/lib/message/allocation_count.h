#pragma once
// allocation_count.h: how often the heap was asked in between, and what happens meanwhile.

#include <functional>

namespace kl::test {

class AllocationCount {
 public:
  AllocationCount();
  // Allocations by operator new, in any thread, since this was made.
  unsigned long since() const;

 private:
  unsigned long before_;
};

// Does something once, in the midst of this thread's next allocation by operator new.
class AtNextAllocation {
 public:
  explicit AtNextAllocation(std::function<void()> what);
  ~AtNextAllocation();
  AtNextAllocation(const AtNextAllocation&) = delete;
  AtNextAllocation& operator=(const AtNextAllocation&) = delete;

 private:
  std::function<void()> what_;
};

}  // namespace kl::test

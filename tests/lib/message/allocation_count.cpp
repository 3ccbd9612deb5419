#include "tests/lib/message/allocation_count.h"

#include <atomic>
#include <cstdlib>
#include <new>
#include <utility>

namespace {

constinit std::atomic<unsigned long> allocations{0};
constinit thread_local std::function<void()>* atNext = nullptr;

void* counted(std::size_t bytes) {
  allocations.fetch_add(1, std::memory_order_relaxed);
  if (auto* const what = std::exchange(atNext, nullptr)) (*what)();
  void* memory = std::malloc(bytes);
  if (memory == nullptr) std::abort();
  return memory;
}

}  // namespace

// The program's own operators win over the standard library's.
void* operator new(std::size_t bytes) { return counted(bytes); }
void* operator new[](std::size_t bytes) { return counted(bytes); }
void operator delete(void* memory) noexcept { std::free(memory); }
void operator delete[](void* memory) noexcept { std::free(memory); }
void operator delete(void* memory, std::size_t) noexcept { std::free(memory); }
void operator delete[](void* memory, std::size_t) noexcept { std::free(memory); }

namespace kl::test {

AllocationCount::AllocationCount() : before_(allocations.load()) {}

unsigned long AllocationCount::since() const { return allocations.load() - before_; }

AtNextAllocation::AtNextAllocation(std::function<void()> what) : what_(std::move(what)) { atNext = &what_; }
AtNextAllocation::~AtNextAllocation() { atNext = nullptr; }

}  // namespace kl::test

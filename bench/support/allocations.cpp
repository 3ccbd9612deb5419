// The C library lets a program put its own malloc in place of the built-in one and still reach the
// latter by its inner name.  operator new ends here as well.  Counting is two additions: it does not
// show in the times.

#include "bench/support/allocations.h"

#include <cerrno>

namespace {

bench::Allocations taken{};

void note(std::size_t bytes) {
  if (taken.calls++ == 0) taken.firstBytes = bytes;
  taken.bytes += bytes;
}

}  // namespace

extern "C" {

void* __libc_malloc(std::size_t bytes);
void* __libc_calloc(std::size_t count, std::size_t bytes);
void* __libc_realloc(void* old, std::size_t bytes);
void* __libc_memalign(std::size_t alignment, std::size_t bytes);

void* malloc(std::size_t bytes) {
  note(bytes);
  return __libc_malloc(bytes);
}

void* calloc(std::size_t count, std::size_t bytes) {
  note(count * bytes);
  return __libc_calloc(count, bytes);
}

void* realloc(void* old, std::size_t bytes) {
  note(bytes);
  return __libc_realloc(old, bytes);
}

void* aligned_alloc(std::size_t alignment, std::size_t bytes) {
  note(bytes);
  return __libc_memalign(alignment, bytes);
}

int posix_memalign(void** result, std::size_t alignment, std::size_t bytes) {
  note(bytes);
  *result = __libc_memalign(alignment, bytes);
  return *result == nullptr ? ENOMEM : 0;
}

}  // extern "C"

namespace bench {

void restartAllocations() { taken = {}; }

Allocations allocations() { return taken; }

}  // namespace bench

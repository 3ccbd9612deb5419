#pragma once
// allocations.h: counts what the program takes from the heap, the libraries that it links included.

#include <cstddef>

namespace bench {

struct Allocations {
  unsigned long long calls;  // malloc, calloc, realloc and the aligned forms
  unsigned long long bytes;  // as asked for, freed ones included
  std::size_t firstBytes;    // size of the first one since restart()
};

// Starts counting from nothing.
void restartAllocations();

// The memory taken since the last restart.
Allocations allocations();

}  // namespace bench

#pragma once
// lib/loop/safe_memory.h: reads memory of which it is not known whether it is there.

#include <cstddef>
#include <cstdint>

namespace kl {

// Reads through a pipe: the kernel returns an error for an address at which a plain read would fault.  Without a pipe
// (no descriptors left) nothing can be read.
//
// Async-signal-safe: pipe2, write, read and close.
class SafeMemory {
 public:
  SafeMemory();
  ~SafeMemory();
  SafeMemory(const SafeMemory&) = delete;
  SafeMemory& operator=(const SafeMemory&) = delete;

  // Copies `size` bytes; false, with `into` untouched or partly filled, if not all of them are there.
  // Needs: size is at most PIPE_BUF.
  [[nodiscard]] bool read(std::uintptr_t address, void* into, std::size_t size) const;

  template <class T>
  [[nodiscard]] bool read(std::uintptr_t address, T& into) const {
    return read(address, &into, sizeof into);
  }

 private:
  int ends_[2] = {-1, -1};
};

}  // namespace kl

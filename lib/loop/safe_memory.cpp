// Memory read through a pipe.

#include "loop/safe_memory.h"

#include <fcntl.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace kl {

// Async-signal-safe: pipe2(2).
SafeMemory::SafeMemory() {
  if (::pipe2(ends_, O_CLOEXEC | O_NONBLOCK) != 0) ends_[0] = ends_[1] = -1;
}

// Async-signal-safe: close(2).
SafeMemory::~SafeMemory() {
  if (ends_[0] < 0) return;
  ::close(ends_[0]);
  ::close(ends_[1]);
}

// Async-signal-safe: write(2) and read(2).  The pipe is always emptied again.  The system call is made
// directly because a sanitizer looks at what the C library's write() is given, and this may be anything.
bool SafeMemory::read(std::uintptr_t address, void* into, std::size_t size) const {
  if (ends_[0] < 0) return false;
  const auto sent = ::syscall(SYS_write, ends_[1], address, size);
  if (sent <= 0) return false;
  return ::read(ends_[0], into, static_cast<std::size_t>(sent)) == static_cast<ssize_t>(size);
}

}  // namespace kl

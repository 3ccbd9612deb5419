#pragma once
// file_io.h: reads and writes at a place of a file, without moving its position.

#include <sys/types.h>

#include <cstddef>

namespace kl {

// Bytes that somebody else owns, for the length of a call.
struct Bytes {
  const void* data;
  std::size_t size;
};

// Reads up to `size` bytes; fewer only at the end of the file or after a fault that came midway.  -1 with errno
// if nothing could be read.
ssize_t readAt(int fd, void* to, std::size_t size, off_t offset);

// Writes the two pieces one after the other, with one system call unless the system takes less.  The number of
// bytes written; -1 with errno if that is none.
ssize_t writeAt(int fd, Bytes first, Bytes second, off_t offset);
inline ssize_t writeAt(int fd, Bytes bytes, off_t offset) { return writeAt(fd, bytes, {nullptr, 0}, offset); }

inline bool hasWritten(ssize_t written, std::size_t expected) {
  return written >= 0 && static_cast<std::size_t>(written) == expected;
}

// Whether the errno of a failed transfer says that this file has no places, or no such place.
bool isSeekError(int errorNumber);

// open(2), closed on exec.
int openFile(const char* path, int flags);

}  // namespace kl

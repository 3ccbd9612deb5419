#pragma once
// file_io.h: reads and writes at a place of a file, without moving its position, and facts about files.

#include <sys/types.h>

#include <cstddef>
#include <string>

#include "base/descriptor.h"

namespace kl {

// Borrowed bytes, for the length of a call.
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

// Does the errno of a failed transfer mean that this file has no places, or no such place?
bool isSeekError(int errorNumber);

// The inode of an open file; 0, which no file has, if it is unknown.
unsigned long long inodeOf(int fd);
// The inode of the file that a path leads to.
unsigned long long inodeOfPath(const std::string& path);

// The length of an open file in bytes; -1 if it is unknown.
long long lengthOf(int fd);

}  // namespace kl

// Reads and writes at a place of a file, and facts about files.
//
// A transfer that the system cuts short is taken up where it stopped, so that a signal or a disk that has just
// enough space is no fault.

#include "base/file_io.h"

#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

namespace kl {
namespace {

iovec piece(Bytes bytes, std::size_t skip) {
  const std::size_t skipped = std::min(skip, bytes.size);
  const auto* start = static_cast<const unsigned char*>(bytes.data) + skipped;
  return {const_cast<unsigned char*>(start), bytes.size - skipped};
}

// For a single piece the shorter call is the cheaper one.
ssize_t writeOnce(int fd, const iovec (&pieces)[2], off_t offset) {
  if (pieces[1].iov_len == 0) return ::pwrite(fd, pieces[0].iov_base, pieces[0].iov_len, offset);
  return ::pwritev(fd, pieces, 2, offset);
}

}  // namespace

ssize_t readAt(int fd, void* to, std::size_t size, off_t offset) {
  std::size_t done = 0;
  while (done < size) {
    const ssize_t got =
        ::pread(fd, static_cast<unsigned char*>(to) + done, size - done, offset + static_cast<off_t>(done));
    if (got < 0 && errno == EINTR) continue;
    if (got < 0 && done == 0) return -1;
    if (got <= 0) break;
    done += static_cast<std::size_t>(got);
  }
  return static_cast<ssize_t>(done);
}

ssize_t writeAt(int fd, Bytes first, Bytes second, off_t offset) {
  const std::size_t size = first.size + second.size;
  std::size_t done = 0;
  while (done < size) {
    const std::size_t ofSecond = done > first.size ? done - first.size : 0;
    const iovec pieces[] = {piece(first, done), piece(second, ofSecond)};
    const ssize_t put = writeOnce(fd, pieces, offset + static_cast<off_t>(done));
    if (put < 0 && errno == EINTR) continue;
    if (put < 0 && done == 0) return -1;
    if (put <= 0) break;
    done += static_cast<std::size_t>(put);
  }
  return static_cast<ssize_t>(done);
}

bool isSeekError(int errorNumber) { return errorNumber == ESPIPE || errorNumber == EBADF; }

unsigned long long inodeOf(int fd) {
  struct stat file;
  return ::fstat(fd, &file) == 0 ? static_cast<unsigned long long>(file.st_ino) : 0;
}

unsigned long long inodeOfPath(const std::string& path) {
  struct stat file;
  return ::stat(path.c_str(), &file) == 0 ? static_cast<unsigned long long>(file.st_ino) : 0;
}

long long lengthOf(int fd) {
  struct stat file;
  return ::fstat(fd, &file) == 0 ? static_cast<long long>(file.st_size) : -1;
}

}  // namespace kl

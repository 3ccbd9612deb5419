// The calls that a test may make fail.  Each counts itself while it is exposed and does what the C library does, unless
// its turn has come.  Where the C library has a second name for large files, both are one call.

#include "tests/support/calls/faulty_calls.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/inotify.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/timerfd.h>
#include <sys/times.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <vector>

#include "tests/support/calls/faults.h"
#include "tests/support/calls/real_calls.h"

namespace kl::test {

FaultPlan faultPlan;

}  // namespace kl::test

namespace {

using kl::test::faultPlan;
using kl::test::kFallsShort;
using kl::test::realCall;

constexpr unsigned int kMsInATick = 10;

bool isCounted(int fd) {
  if (!faultPlan.isExposed || ::getpid() != faultPlan.process) return false;
  return faultPlan.hitsStreams || fd < STDIN_FILENO || fd > STDERR_FILENO;
}

// True when this call is the one; what it then does is faultPlan.outcome.
bool isHit(const char* call, int fd) {
  if (!isCounted(fd)) return false;
  if (++faultPlan.calls > kl::test::kMostCalls) ::_exit(kl::test::kEndlessStatus);
  if (faultPlan.n == 0 || std::strcmp(call, faultPlan.call) != 0 || --faultPlan.n > 0) return false;
  *faultPlan.wasHit = true;
  return true;
}

// True when this call, which cannot fall short, is to fail.
bool mustFail(const char* call, int fd = -1) {
  if (!isHit(call, fd)) return false;
  errno = faultPlan.outcome;
  return true;
}

unsigned int hasteOfProcess() { return ::getpid() == faultPlan.process ? faultPlan.haste : 1; }

// A call that moves bytes; `body` is given how many.
template <class Body>
ssize_t transfer(const char* call, int fd, size_t size, Body body) {
  if (!isHit(call, fd)) return body(size);
  if (faultPlan.outcome == kFallsShort) return body(std::min(size, std::max<size_t>(1, size / 2)));
  errno = faultPlan.outcome;
  return -1;
}

// The same with pieces.
template <class Body>
ssize_t transferPieces(const char* call, int fd, const iovec* pieces, int count, Body body) {
  size_t size = 0;
  for (int i = 0; i < count; ++i) size += pieces[i].iov_len;
  return transfer(call, fd, size, [&](size_t part) {
    if (part == size) return body(pieces, count);
    std::vector<iovec> cut(pieces, pieces + count);
    for (iovec& piece : cut) {
      piece.iov_len = std::min(piece.iov_len, part);
      part -= piece.iov_len;
    }
    return body(cut.data(), count);
  });
}

bool isPipe(int fd) {
  struct stat status {};
  static auto* const next = realCall<int(int, struct stat*)>("fstat");
  return isCounted(fd) && next(fd, &status) == 0 && S_ISFIFO(status.st_mode);
}

mode_t modeOf(int flags, std::va_list more) {
  return (flags & (O_CREAT | O_TMPFILE)) != 0 ? static_cast<mode_t>(va_arg(more, unsigned int)) : 0;
}

}  // namespace

extern "C" {

// A pipe gives whole what was put into it whole, so that is never cut.
ssize_t read(int fd, void* to, size_t size) {
  static auto* const next = realCall<ssize_t(int, void*, size_t)>("read");
  if (faultPlan.outcome == kFallsShort && isPipe(fd)) return next(fd, to, size);
  return transfer("read", fd, size, [&](size_t part) { return next(fd, to, part); });
}

ssize_t write(int fd, const void* from, size_t size) {
  static auto* const next = realCall<ssize_t(int, const void*, size_t)>("write");
  return transfer("write", fd, size, [&](size_t part) { return next(fd, from, part); });
}

ssize_t writev(int fd, const iovec* pieces, int count) {
  static auto* const next = realCall<ssize_t(int, const iovec*, int)>("writev");
  return transferPieces("writev", fd, pieces, count, [&](const iovec* p, int n) { return next(fd, p, n); });
}

ssize_t pread(int fd, void* to, size_t size, off_t place) {
  static auto* const next = realCall<ssize_t(int, void*, size_t, off_t)>("pread");
  return transfer("pread", fd, size, [&](size_t part) { return next(fd, to, part, place); });
}

ssize_t pread64(int fd, void* to, size_t size, off64_t place) {
  static auto* const next = realCall<ssize_t(int, void*, size_t, off64_t)>("pread64");
  return transfer("pread", fd, size, [&](size_t part) { return next(fd, to, part, place); });
}

ssize_t pwrite(int fd, const void* from, size_t size, off_t place) {
  static auto* const next = realCall<ssize_t(int, const void*, size_t, off_t)>("pwrite");
  return transfer("pwrite", fd, size, [&](size_t part) { return next(fd, from, part, place); });
}

ssize_t pwrite64(int fd, const void* from, size_t size, off64_t place) {
  static auto* const next = realCall<ssize_t(int, const void*, size_t, off64_t)>("pwrite64");
  return transfer("pwrite", fd, size, [&](size_t part) { return next(fd, from, part, place); });
}

ssize_t pwritev(int fd, const iovec* pieces, int count, off_t place) {
  static auto* const next = realCall<ssize_t(int, const iovec*, int, off_t)>("pwritev");
  return transferPieces("pwritev", fd, pieces, count,
                        [&](const iovec* p, int n) { return next(fd, p, n, place); });
}

ssize_t pwritev64(int fd, const iovec* pieces, int count, off64_t place) {
  static auto* const next = realCall<ssize_t(int, const iovec*, int, off64_t)>("pwritev64");
  return transferPieces("pwritev", fd, pieces, count,
                        [&](const iovec* p, int n) { return next(fd, p, n, place); });
}

ssize_t send(int fd, const void* from, size_t size, int flags) {
  static auto* const next = realCall<ssize_t(int, const void*, size_t, int)>("send");
  return transfer("send", fd, size, [&](size_t part) { return next(fd, from, part, flags); });
}

ssize_t recv(int fd, void* to, size_t size, int flags) {
  static auto* const next = realCall<ssize_t(int, void*, size_t, int)>("recv");
  return transfer("recv", fd, size, [&](size_t part) { return next(fd, to, part, flags); });
}

ssize_t sendto(int fd, const void* from, size_t size, int flags, const sockaddr* to, socklen_t toSize) {
  static auto* const next =
      realCall<ssize_t(int, const void*, size_t, int, const sockaddr*, socklen_t)>("sendto");
  return mustFail("sendto", fd) ? -1 : next(fd, from, size, flags, to, toSize);
}

int poll(pollfd* entries, nfds_t count, int timeoutMs) {
  static auto* const next = realCall<int(pollfd*, nfds_t, int)>("poll");
  const auto haste = static_cast<int>(hasteOfProcess());
  return mustFail("poll") ? -1 : next(entries, count, timeoutMs > 0 ? 1 + timeoutMs / haste : timeoutMs);
}

// In a hurry, the kernel's ticks would be steps of many.
clock_t times(tms* spent) noexcept {
  static auto* const next = realCall<clock_t(tms*)>("times");
  const clock_t now = next(spent);
  if (hasteOfProcess() == 1) return now;
  timespec since{};
  (void)::clock_gettime(CLOCK_MONOTONIC, &since);
  const auto ms =
      static_cast<unsigned long>(since.tv_sec) * 1000 + static_cast<unsigned long>(since.tv_nsec) / 1000000;
  return static_cast<clock_t>(ms * hasteOfProcess() / kMsInATick);
}

int socket(int domain, int type, int protocol) noexcept {
  static auto* const next = realCall<int(int, int, int)>("socket");
  return mustFail("socket") ? -1 : next(domain, type, protocol);
}

int socketpair(int domain, int type, int protocol, int* ends) noexcept {
  static auto* const next = realCall<int(int, int, int, int*)>("socketpair");
  return mustFail("socketpair") ? -1 : next(domain, type, protocol, ends);
}

int bind(int fd, const sockaddr* address, socklen_t size) noexcept {
  static auto* const next = realCall<int(int, const sockaddr*, socklen_t)>("bind");
  return mustFail("bind") ? -1 : next(fd, address, size);
}

int listen(int fd, int backlog) noexcept {
  static auto* const next = realCall<int(int, int)>("listen");
  return mustFail("listen") ? -1 : next(fd, backlog);
}

int connect(int fd, const sockaddr* address, socklen_t size) {
  static auto* const next = realCall<int(int, const sockaddr*, socklen_t)>("connect");
  return mustFail("connect") ? -1 : next(fd, address, size);
}

int accept4(int fd, sockaddr* address, socklen_t* size, int flags) {
  static auto* const next = realCall<int(int, sockaddr*, socklen_t*, int)>("accept4");
  return mustFail("accept4") ? -1 : next(fd, address, size, flags);
}

int fcntl(int fd, int command, ...) {
  static auto* const next = realCall<int(int, int, void*)>("fcntl");
  std::va_list more;
  va_start(more, command);
  void* const argument = va_arg(more, void*);
  va_end(more);
  return mustFail("fcntl") ? -1 : next(fd, command, argument);
}

int fcntl64(int fd, int command, ...) {
  static auto* const next = realCall<int(int, int, void*)>("fcntl64");
  std::va_list more;
  va_start(more, command);
  void* const argument = va_arg(more, void*);
  va_end(more);
  return mustFail("fcntl") ? -1 : next(fd, command, argument);
}

int open(const char* path, int flags, ...) {
  static auto* const next = realCall<int(const char*, int, ...)>("open");
  std::va_list more;
  va_start(more, flags);
  const mode_t mode = modeOf(flags, more);
  va_end(more);
  return mustFail("open") ? -1 : next(path, flags, mode);
}

int open64(const char* path, int flags, ...) {
  static auto* const next = realCall<int(const char*, int, ...)>("open64");
  std::va_list more;
  va_start(more, flags);
  const mode_t mode = modeOf(flags, more);
  va_end(more);
  return mustFail("open") ? -1 : next(path, flags, mode);
}

std::FILE* fopen(const char* path, const char* mode) {
  static auto* const next = realCall<std::FILE*(const char*, const char*)>("fopen");
  return mustFail("fopen") ? nullptr : next(path, mode);
}

std::FILE* fopen64(const char* path, const char* mode) {
  static auto* const next = realCall<std::FILE*(const char*, const char*)>("fopen64");
  return mustFail("fopen") ? nullptr : next(path, mode);
}

// The descriptor is gone, whatever the result says.
int close(int fd) {
  static auto* const next = realCall<int(int)>("close");
  const int result = next(fd);
  return mustFail("close") ? -1 : result;
}

int fsync(int fd) {
  static auto* const next = realCall<int(int)>("fsync");
  return mustFail("fsync") ? -1 : next(fd);
}

int fdatasync(int fd) {
  static auto* const next = realCall<int(int)>("fdatasync");
  return mustFail("fdatasync") ? -1 : next(fd);
}

int ftruncate(int fd, off_t length) noexcept {
  static auto* const next = realCall<int(int, off_t)>("ftruncate");
  return mustFail("ftruncate") ? -1 : next(fd, length);
}

int ftruncate64(int fd, off64_t length) noexcept {
  static auto* const next = realCall<int(int, off64_t)>("ftruncate64");
  return mustFail("ftruncate") ? -1 : next(fd, length);
}

int rename(const char* from, const char* to) noexcept {
  static auto* const next = realCall<int(const char*, const char*)>("rename");
  return mustFail("rename") ? -1 : next(from, to);
}

int unlink(const char* path) noexcept {
  static auto* const next = realCall<int(const char*)>("unlink");
  return mustFail("unlink") ? -1 : next(path);
}

int mkdir(const char* path, mode_t mode) noexcept {
  static auto* const next = realCall<int(const char*, mode_t)>("mkdir");
  return mustFail("mkdir") ? -1 : next(path, mode);
}

int chmod(const char* path, mode_t mode) noexcept {
  static auto* const next = realCall<int(const char*, mode_t)>("chmod");
  return mustFail("chmod") ? -1 : next(path, mode);
}

int stat(const char* path, struct stat* status) noexcept {
  static auto* const next = realCall<int(const char*, struct stat*)>("stat");
  return mustFail("stat") ? -1 : next(path, status);
}

int stat64(const char* path, struct stat64* status) noexcept {
  static auto* const next = realCall<int(const char*, struct stat64*)>("stat64");
  return mustFail("stat") ? -1 : next(path, status);
}

int fstat(int fd, struct stat* status) noexcept {
  static auto* const next = realCall<int(int, struct stat*)>("fstat");
  return mustFail("fstat") ? -1 : next(fd, status);
}

int fstat64(int fd, struct stat64* status) noexcept {
  static auto* const next = realCall<int(int, struct stat64*)>("fstat64");
  return mustFail("fstat") ? -1 : next(fd, status);
}

#if __SIZEOF_POINTER__ == 4
// The name of fstat() where times have 64 bits on a 32-bit processor, as the log service's have.
int __fstat64_time64(int fd, void* status) noexcept {
  static auto* const next = realCall<int(int, void*)>("__fstat64_time64");
  return mustFail("fstat") ? -1 : next(fd, status);
}
#endif

ssize_t readlink(const char* path, char* to, size_t size) noexcept {
  static auto* const next = realCall<ssize_t(const char*, char*, size_t)>("readlink");
  return mustFail("readlink") ? -1 : next(path, to, size);
}

void* mmap(void* at, size_t size, int protection, int flags, int fd, off_t place) noexcept {
  static auto* const next = realCall<void*(void*, size_t, int, int, int, off_t)>("mmap");
  return mustFail("mmap") ? MAP_FAILED : next(at, size, protection, flags, fd, place);
}

int pipe2(int* ends, int flags) noexcept {
  static auto* const next = realCall<int(int*, int)>("pipe2");
  return mustFail("pipe2") ? -1 : next(ends, flags);
}

int sigaction(int sig, const struct sigaction* wanted, struct sigaction* old) noexcept {
  static auto* const next = realCall<int(int, const struct sigaction*, struct sigaction*)>("sigaction");
  return mustFail("sigaction") ? -1 : next(sig, wanted, old);
}

pid_t fork() noexcept {
  static auto* const next = realCall<pid_t()>("fork");
  return mustFail("fork") ? -1 : next();
}

int timerfd_create(int clock, int flags) noexcept {
  static auto* const next = realCall<int(int, int)>("timerfd_create");
  return mustFail("timerfd_create") ? -1 : next(clock, flags);
}

int inotify_init1(int flags) noexcept {
  static auto* const next = realCall<int(int)>("inotify_init1");
  return mustFail("inotify_init1") ? -1 : next(flags);
}

int inotify_add_watch(int fd, const char* path, uint32_t events) noexcept {
  static auto* const next = realCall<int(int, const char*, uint32_t)>("inotify_add_watch");
  return mustFail("inotify_add_watch") ? -1 : next(fd, path, events);
}

// A pause of what is exposed takes no time.
int usleep(useconds_t microseconds) {
  static auto* const next = realCall<int(useconds_t)>("usleep");
  return isCounted(-1) ? 0 : next(microseconds);
}

}  // extern "C"

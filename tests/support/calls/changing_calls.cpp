#include "tests/support/calls/changing_calls.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <utility>

#include "tests/support/calls/real_calls.h"

namespace {

using kl::test::ChangingCalls;
using kl::test::FileCall;
using kl::test::When;

struct Script {
  bool isRunning = false;
  unsigned int calls = 0;
  unsigned int endAt = 0;
  When when = When::kBefore;
  unsigned int writes = 0;
  unsigned int failEvery = 0;
  unsigned int failFirst = ~0U;
  unsigned int failLast = 0;
  unsigned int fullFrom = ~0U;
  int errorNumber = 0;
  unsigned int failed = 0;
  std::function<void()> listener;
  std::function<void(const FileCall&)> watcher;
};

Script script;

#if defined(_FILE_OFFSET_BITS) && _FILE_OFFSET_BITS == 64
#define KL_REAL(name) #name "64"
#else
#define KL_REAL(name) #name
#endif

bool isTurn(When when) { return script.isRunning && script.calls == script.endAt && script.when == when; }

void endIf(When when) {
  if (isTurn(when)) ::_exit(ChangingCalls::kEndStatus);
}

void begin() {
  if (!script.isRunning) return;
  ++script.calls;
  endIf(When::kBefore);
}

bool isLonger(int fd, unsigned long long end) {
  struct stat file;
  return ::fstat(fd, &file) == 0 && end > static_cast<unsigned long long>(file.st_size);
}

bool isFailing(unsigned int write, int fd, unsigned long long end) {
  return (write >= script.fullFrom && isLonger(fd, end)) ||
         (script.failEvery > 0 && write % script.failEvery == 0) ||
         (script.failFirst <= write && write <= script.failLast);
}

bool mustFail(int fd, unsigned long long end) {
  if (!script.isRunning || !isFailing(++script.writes, fd, end)) return false;
  ++script.failed;
  if (script.listener) script.listener();
  errno = script.errorNumber;
  return true;
}

unsigned long long inodeOf(int fd) {
  struct stat file;
  return ::fstat(fd, &file) == 0 ? static_cast<unsigned long long>(file.st_ino) : 0;
}

unsigned long long inodeOf(const char* path) {
  struct stat file;
  return ::stat(path, &file) == 0 ? static_cast<unsigned long long>(file.st_ino) : 0;
}

template <class Result>
Result finish(Result result, FileCall call) {
  const int errorNumber = errno;
  if (script.isRunning && script.watcher && result >= 0) script.watcher(call);
  endIf(When::kAfter);
  errno = errorNumber;
  return result;
}

// A call that cannot be cut in two.
template <class Result, class Body>
Result whole(FileCall call, Body body) {
  begin();
  endIf(When::kInside);
  const Result result = body();
  return finish(result, std::move(call));
}

std::vector<unsigned char> joined(const iovec* pieces, int count) {
  std::vector<unsigned char> bytes;
  for (int i = 0; i < count; ++i) {
    const auto* start = static_cast<const unsigned char*>(pieces[i].iov_base);
    bytes.insert(bytes.end(), start, start + pieces[i].iov_len);
  }
  return bytes;
}

using PWrite = ssize_t(int, const void*, size_t, off_t);

ssize_t writeBytes(int fd, std::vector<unsigned char> bytes, off_t place) {
  static PWrite* const realWrite = kl::test::realCall<PWrite>(KL_REAL(pwrite));
  begin();
  if (mustFail(fd, static_cast<unsigned long long>(place) + bytes.size())) {
    endIf(When::kInside);
    return finish<ssize_t>(-1, {});
  }
  if (isTurn(When::kInside)) {
    (void)!realWrite(fd, bytes.data(), bytes.size() / 2, place);
    ::_exit(ChangingCalls::kEndStatus);
  }
  const ssize_t written = realWrite(fd, bytes.data(), bytes.size(), place);
  return finish(written, {FileCall::kWrite, inodeOf(fd), static_cast<unsigned long long>(place),
                          std::move(bytes), "", ""});
}

}  // namespace

extern "C" ssize_t pwritev(int fd, const iovec* pieces, int count, off_t place) {
  return writeBytes(fd, joined(pieces, count), place);
}

extern "C" ssize_t pwrite(int fd, const void* data, size_t size, off_t place) {
  const auto* bytes = static_cast<const unsigned char*>(data);
  return writeBytes(fd, {bytes, bytes + size}, place);
}

extern "C" int ftruncate(int fd, off_t length) noexcept {
  static auto* const realTruncate = kl::test::realCall<int(int, off_t)>(KL_REAL(ftruncate));
  return whole<int>({FileCall::kTruncate, inodeOf(fd), static_cast<unsigned long long>(length), {}, "", ""},
                    [&] { return realTruncate(fd, length); });
}

extern "C" int fsync(int fd) {
  static auto* const realSync = kl::test::realCall<int(int)>("fsync");
  return whole<int>({FileCall::kSync, inodeOf(fd), 0, {}, "", ""}, [&] { return realSync(fd); });
}

extern "C" int rename(const char* from, const char* to) noexcept {
  static auto* const realRename = kl::test::realCall<int(const char*, const char*)>("rename");
  return whole<int>({FileCall::kRename, inodeOf(from), 0, {}, from, to},
                    [&] { return realRename(from, to); });
}

extern "C" int unlink(const char* path) noexcept {
  static auto* const realUnlink = kl::test::realCall<int(const char*)>("unlink");
  return whole<int>({FileCall::kUnlink, 0, 0, {}, path, ""}, [&] { return realUnlink(path); });
}

extern "C" int open(const char* path, int flags, ...) {
  static auto* const realOpen = kl::test::realCall<int(const char*, int, ...)>(KL_REAL(open));
  va_list more;
  va_start(more, flags);
  const mode_t mode = (flags & (O_CREAT | O_TMPFILE)) != 0 ? va_arg(more, mode_t) : 0;
  va_end(more);
  if ((flags & (O_CREAT | O_TRUNC)) == 0) return realOpen(path, flags, mode);
  begin();
  endIf(When::kInside);
  const int fd = realOpen(path, flags, mode);
  return finish(fd, {FileCall::kCreate, inodeOf(fd), 0, {}, path, ""});
}

namespace kl::test {

ChangingCalls::ChangingCalls() {
  script = Script();
  script.isRunning = true;
}
ChangingCalls::~ChangingCalls() { script = Script(); }

void ChangingCalls::endAt(unsigned int n, When when) {
  script.endAt = n;
  script.when = when;
}

void ChangingCalls::failEveryWrite(unsigned int n, int errorNumber) {
  script.failEvery = n;
  script.errorNumber = errorNumber;
}

void ChangingCalls::failWrite(unsigned int n, int errorNumber) {
  script.failFirst = script.failLast = n;
  script.errorNumber = errorNumber;
}

void ChangingCalls::failWritesFrom(unsigned int n, int errorNumber) {
  script.failFirst = n;
  script.failLast = ~0U;
  script.errorNumber = errorNumber;
}

void ChangingCalls::fillDiskAt(unsigned int n) {
  script.fullFrom = n;
  script.errorNumber = ENOSPC;
}

void ChangingCalls::whenOneFails(std::function<void()> listener) { script.listener = std::move(listener); }

void ChangingCalls::watch(std::function<void(const FileCall&)> watcher) {
  script.watcher = std::move(watcher);
}

unsigned int ChangingCalls::calls() const { return script.calls; }
unsigned int ChangingCalls::failed() const { return script.failed; }

}  // namespace kl::test

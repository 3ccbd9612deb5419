#include "tests/lib/log/scripted_socket.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdint>
#include <ctime>

namespace {

struct State {
  bool scripted = false;
  std::deque<int> results;
  int socketError = 0;
  int flagsError = 0;
  std::vector<std::size_t> writes;
  std::vector<unsigned int> pauses;
  std::uintptr_t deepest = UINTPTR_MAX;
};

State state;

bool isScripted(int fd) {
  struct stat what {};
  return state.scripted && ::fstat(fd, &what) == 0 && S_ISSOCK(what.st_mode);
}

ssize_t failWith(int errorNumber) {
  errno = errorNumber;
  return -1;
}

ssize_t realWritev(int fd, const iovec* pieces, int count) {
  return ::syscall(SYS_writev, fd, pieces, count);
}

// The first `bytes` of what the pieces hold.
ssize_t writeSome(int fd, const iovec* pieces, int count, std::size_t bytes) {
  std::vector<iovec> some(pieces, pieces + count);
  for (iovec& piece : some) {
    piece.iov_len = std::min(piece.iov_len, bytes);
    bytes -= piece.iov_len;
  }
  return realWritev(fd, some.data(), count);
}

ssize_t scriptedWrite(int fd, const iovec* pieces, int count) {
  if (!isScripted(fd)) return realWritev(fd, pieces, count);
  std::size_t asked = 0;
  for (int i = 0; i < count; ++i) asked += pieces[i].iov_len;
  state.writes.push_back(asked);
  state.deepest = std::min(state.deepest, reinterpret_cast<std::uintptr_t>(__builtin_frame_address(0)));
  if (state.results.empty()) return realWritev(fd, pieces, count);
  const int result = state.results.front();
  state.results.pop_front();
  return result < 0 ? failWith(-result) : writeSome(fd, pieces, count, static_cast<std::size_t>(result));
}

}  // namespace

extern "C" ssize_t write(int fd, const void* bytes, size_t count) {
  const iovec piece{const_cast<void*>(bytes), count};
  return scriptedWrite(fd, &piece, 1);
}

extern "C" ssize_t writev(int fd, const iovec* pieces, int count) { return scriptedWrite(fd, pieces, count); }

extern "C" int usleep(useconds_t microseconds) {
  if (state.scripted) {
    state.pauses.push_back(microseconds);
    return 0;
  }
  const timespec time{static_cast<time_t>(microseconds / 1000000),
                      static_cast<long>(microseconds % 1000000 * 1000)};
  return ::nanosleep(&time, nullptr);
}

extern "C" int socket(int domain, int type, int protocol) noexcept {
  if (state.socketError != 0) return static_cast<int>(failWith(state.socketError));
  return static_cast<int>(::syscall(SYS_socket, domain, type, protocol));
}

extern "C" int fcntl(int fd, int command, ...) {
#ifdef SYS_fcntl64
  constexpr long kCall = SYS_fcntl64;
#else
  constexpr long kCall = SYS_fcntl;
#endif
  std::va_list rest;
  va_start(rest, command);
  void* argument = va_arg(rest, void*);
  va_end(rest);
  if (command == F_SETFL && state.flagsError != 0) return static_cast<int>(failWith(state.flagsError));
  return static_cast<int>(::syscall(kCall, fd, command, argument));
}

namespace kl::test {

ScriptedSocket::ScriptedSocket() {
  state = {};
  state.scripted = true;
}
ScriptedSocket::~ScriptedSocket() { state = {}; }
void ScriptedSocket::nextWrites(std::deque<int> results) { state.results = std::move(results); }
void ScriptedSocket::failSocket(int errorNumber) { state.socketError = errorNumber; }
void ScriptedSocket::failToSetFlags(int errorNumber) { state.flagsError = errorNumber; }
std::vector<std::size_t> ScriptedSocket::writes() const { return state.writes; }
const std::vector<unsigned int>& ScriptedSocket::pauses() const { return state.pauses; }
std::size_t ScriptedSocket::stackBelow(const void* frame) const {
  return reinterpret_cast<std::uintptr_t>(frame) - state.deepest;
}

}  // namespace kl::test

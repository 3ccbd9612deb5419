// A function in a process beside the test.
//
// Waits use ppoll(), since some tests put a script in the place of poll().

#include "tests/support/process/child_process.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <ctime>
#include <utility>

namespace kl::test {
namespace {

// A signal that the test handles begins the wait anew.
bool isReadable(int fd, int deadlineMs) {
  const timespec deadline{deadlineMs / 1000, deadlineMs % 1000 * 1000000L};
  pollfd watched{fd, POLLIN, 0};
  int ready = -1;
  do {
    ready = ::ppoll(&watched, 1, &deadline, nullptr);
  } while (ready < 0 && errno == EINTR);
  return ready == 1;
}

int statusOf(pid_t pid) {
  int status = 0;
  while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) continue;
  return status;
}

bool isOver(pid_t pid) {
  siginfo_t info{};
  return ::waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOHANG | WNOWAIT) == 0 &&
         info.si_pid == pid;
}

// For a kernel that has no descriptors for processes.
bool isOverWithin(pid_t pid, int deadlineMs) {
  const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(deadlineMs);
  while (!isOver(pid)) {
    if (std::chrono::steady_clock::now() >= end) return false;
    ::usleep(2000);
  }
  return true;
}

bool endsWithin(pid_t pid, int deadlineMs) {
  const int fd = static_cast<int>(::syscall(SYS_pidfd_open, pid, 0));
  if (fd < 0) return isOverWithin(pid, deadlineMs);
  const bool ends = isReadable(fd, deadlineMs);
  ::close(fd);
  return ends;
}

// An exception ends the child here: it must not go on with the test.  The parent may have ended before the signal of its
// end was asked for.
[[noreturn]] void run(const std::function<void()>& body, pid_t parent) noexcept {
  (void)::prctl(PR_SET_PDEATHSIG, SIGKILL);
  if (::getppid() != parent) ::_exit(1);
  body();
  ::_exit(testing::Test::HasFailure() ? 1 : 0);
}

}  // namespace

ChildProcess::ChildProcess(const std::function<void()>& body) {
  const pid_t parent = ::getpid();
  pid_ = ::fork();
  if (pid_ == 0) run(body, parent);
  EXPECT_GT(pid_, 0);
}

ChildProcess::ChildProcess(ChildProcess&& other) noexcept : pid_(std::exchange(other.pid_, -1)) {}

ChildProcess::~ChildProcess() {
  if (pid_ > 0) (void)end(SIGKILL);
}

void ChildProcess::signal(int number) const {
  if (pid_ > 0) (void)::kill(pid_, number);
}

bool ChildProcess::hasEnded() const { return pid_ <= 0 || isOver(pid_); }

bool ChildProcess::stops() const {
  siginfo_t info{};
  return ::waitid(P_PID, static_cast<id_t>(pid_), &info, WSTOPPED | WEXITED | WNOWAIT) == 0 &&
         info.si_code == CLD_STOPPED;
}

int ChildProcess::waitForEnd(int deadlineMs) {
  if (pid_ <= 0 || !endsWithin(pid_, deadlineMs)) return -1;
  const int status = statusOf(std::exchange(pid_, -1));
  return WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
}

int ChildProcess::end(int number) {
  signal(number);
  return waitForEnd();
}

Pipe::Pipe() : ends_{-1, -1} { EXPECT_EQ(::pipe2(ends_.data(), O_CLOEXEC), 0); }

Pipe::~Pipe() {
  for (const int end : ends_)
    if (end >= 0) ::close(end);
}

void Pipe::write(const void* bytes, std::size_t count) const { (void)!::write(ends_[1], bytes, count); }

// Without the own end for writing the other's end is seen.
bool Pipe::read(void* bytes, std::size_t count, int deadlineMs) {
  if (ends_[1] >= 0) ::close(std::exchange(ends_[1], -1));
  return isReadable(ends_[0], deadlineMs) && ::read(ends_[0], bytes, count) == static_cast<ssize_t>(count);
}

bool holdsAs(uid_t user, const std::function<bool()>& part) {
  ChildProcess child([&] { ::_exit(::setuid(user) == 0 && part() ? 0 : 1); });
  return child.waitForEnd() == 0;
}

}  // namespace kl::test

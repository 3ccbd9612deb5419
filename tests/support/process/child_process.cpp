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

#include <csignal>
#include <ctime>
#include <utility>

namespace kl::test {
namespace {

bool isReadable(int fd, int deadlineMs) {
  const timespec deadline{deadlineMs / 1000, deadlineMs % 1000 * 1000000L};
  pollfd watched{fd, POLLIN, 0};
  return ::ppoll(&watched, 1, &deadline, nullptr) == 1;
}

// A kernel that has no descriptors for processes gives no bound either.
bool endsWithin(pid_t pid, int deadlineMs) {
  const int fd = static_cast<int>(::syscall(SYS_pidfd_open, pid, 0));
  const bool ends = fd < 0 || isReadable(fd, deadlineMs);
  if (fd >= 0) ::close(fd);
  return ends;
}

// An exception ends the child here: it must not go on with the test.
[[noreturn]] void run(const std::function<void()>& body) noexcept {
  (void)::prctl(PR_SET_PDEATHSIG, SIGKILL);
  body();
  ::_exit(testing::Test::HasFailure() ? 1 : 0);
}

}  // namespace

ChildProcess::ChildProcess(const std::function<void()>& body) : pid_(::fork()) {
  if (pid_ == 0) run(body);
  EXPECT_GT(pid_, 0);
}

ChildProcess::ChildProcess(ChildProcess&& other) noexcept : pid_(std::exchange(other.pid_, -1)) {}

ChildProcess::~ChildProcess() {
  if (pid_ > 0) (void)end(SIGKILL);
}

void ChildProcess::signal(int number) const {
  if (pid_ > 0) (void)::kill(pid_, number);
}

bool ChildProcess::hasEnded() const {
  siginfo_t info{};
  return ::waitid(P_PID, static_cast<id_t>(pid_), &info, WEXITED | WNOHANG | WNOWAIT) == 0 &&
         info.si_pid == pid_;
}

bool ChildProcess::stops() const {
  siginfo_t info{};
  return ::waitid(P_PID, static_cast<id_t>(pid_), &info, WSTOPPED | WEXITED | WNOWAIT) == 0 &&
         info.si_code == CLD_STOPPED;
}

int ChildProcess::waitForEnd(int deadlineMs) {
  int status = 0;
  if (pid_ <= 0 || !endsWithin(pid_, deadlineMs) || ::waitpid(pid_, &status, 0) != pid_) return -1;
  pid_ = -1;
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

#include "tests/support/process/child.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <iostream>

namespace kl::test {
namespace {

using Ends = std::array<int, 2>;

Ends makePipe() {
  Ends ends{};
  if (::pipe2(ends.data(), O_CLOEXEC) != 0) {
    std::perror("pipe2");
    std::abort();
  }
  return ends;
}

// Appends what there is; false at the end of the stream.
bool drain(int fd, std::string& text) {
  std::array<char, 4096> chunk;
  const ssize_t count = ::read(fd, chunk.data(), chunk.size());
  if (count > 0) text.append(chunk.data(), static_cast<std::size_t>(count));
  return count > 0 || (count < 0 && errno == EINTR);
}

void readBoth(int outFd, int errFd, ChildResult& result) {
  bool outOpen = true;
  bool errOpen = true;
  while (outOpen || errOpen) {
    std::array<pollfd, 2> entries{pollfd{outOpen ? outFd : -1, POLLIN, 0},
                                  pollfd{errOpen ? errFd : -1, POLLIN, 0}};
    if (::ppoll(entries.data(), entries.size(), nullptr, nullptr) < 0) continue;
    if (entries[0].revents != 0) outOpen = drain(outFd, result.out);
    if (entries[1].revents != 0) errOpen = drain(errFd, result.err);
  }
}

[[noreturn]] void becomeChild(const std::function<void()>& body, int outFd, int errFd) {
  ::dup2(outFd, 1);
  ::dup2(errFd, 2);
  body();
  std::cout.flush();
  std::fflush(nullptr);
  ::_exit(0);
}

// An emulator adds a line of its own when a signal ends the program.
void removeEmulatorsLine(std::string& text) {
  const auto begin = text.find("qemu: uncaught target signal ");
  if (begin == std::string::npos) return;
  text.erase(begin, text.find('\n', begin) + 1 - begin);
}

}  // namespace

ChildResult runInChild(const std::function<void()>& body) {
  std::cout.flush();
  std::fflush(nullptr);
  const Ends out = makePipe();
  const Ends err = makePipe();
  const pid_t pid = ::fork();
  if (pid == 0) becomeChild(body, out[1], err[1]);
  ::close(out[1]);
  ::close(err[1]);
  ChildResult result;
  readBoth(out[0], err[0], result);
  ::close(out[0]);
  ::close(err[0]);
  int status = 0;
  while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
  }
  if (WIFEXITED(status)) result.exitStatus = WEXITSTATUS(status);
  if (WIFSIGNALED(status)) result.signal = WTERMSIG(status);
  removeEmulatorsLine(result.err);
  return result;
}

ChildResult runProgram(const std::vector<std::string>& words) {
  return runInChild([&words] { become(words); });
}

void become(const std::vector<std::string>& words) {
  std::vector<char*> arguments;
  for (const std::string& word : words) arguments.push_back(const_cast<char*>(word.c_str()));
  arguments.push_back(nullptr);
  ::execv(arguments.front(), arguments.data());
  ::_exit(127);
}

}  // namespace kl::test

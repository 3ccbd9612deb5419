#include "bench/router/child.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <utility>

namespace bench {
namespace {

[[noreturn]] void die(const char* what) {
  std::perror(what);
  std::exit(1);
}

// Async-signal-safe: runs between fork and exec.
[[noreturn]] void becomeProgram(char* const* arguments, int in, int out, const std::vector<int>& inherited) {
  ::dup2(in, STDIN_FILENO);
  ::dup2(out, STDOUT_FILENO);
  for (const int fd : inherited) ::fcntl(fd, F_SETFD, 0);
  ::execv(arguments[0], arguments);
  ::_exit(127);
}

}  // namespace

Descriptor& Descriptor::operator=(Descriptor&& other) noexcept {
  std::swap(fd_, other.fd_);
  return *this;
}

Descriptor::~Descriptor() { close(); }

void Descriptor::close() {
  if (fd_ >= 0) ::close(std::exchange(fd_, -1));
}

Pair makePipe() {
  int fds[2];
  if (::pipe2(fds, O_CLOEXEC) != 0) die("pipe");
  return {Descriptor(fds[0]), Descriptor(fds[1])};
}

Pair makeSocketPair() {
  int fds[2];
  if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds) != 0) die("socketpair");
  return {Descriptor(fds[0]), Descriptor(fds[1])};
}

Child::Child(const std::string& program, const std::vector<std::string>& arguments,
             const std::vector<int>& inherited) {
  Pair toChild = makePipe();
  Pair fromChild = makePipe();
  std::vector<std::string> words{programFolder() + program};
  words.insert(words.end(), arguments.begin(), arguments.end());
  std::vector<char*> pointers;
  for (std::string& word : words) pointers.push_back(word.data());
  pointers.push_back(nullptr);

  pid_ = ::fork();
  if (pid_ < 0) die("fork");
  if (pid_ == 0) becomeProgram(pointers.data(), toChild.first.get(), fromChild.second.get(), inherited);
  in_ = std::move(toChild.second);
  out_ = std::move(fromChild.first);
}

Child::Child(Child&& other) noexcept
    : pid_(std::exchange(other.pid_, -1)), in_(std::move(other.in_)), out_(std::move(other.out_)) {}

Child& Child::operator=(Child&& other) noexcept {
  std::swap(pid_, other.pid_);
  std::swap(in_, other.in_);
  std::swap(out_, other.out_);
  return *this;
}

Child::~Child() {
  if (pid_ < 0) return;
  ::kill(pid_, SIGTERM);
  ::waitpid(pid_, nullptr, 0);
}

std::string Child::readLine() const {
  std::string line;
  for (char c = 0; ::read(out(), &c, 1) == 1 && c != '\n';) line += c;
  return line;
}

std::string programFolder() {
  char path[4096];
  const ssize_t size = ::readlink("/proc/self/exe", path, sizeof(path));
  if (size < 0) die("/proc/self/exe");
  const std::string self(path, static_cast<std::size_t>(size));
  return self.substr(0, self.rfind('/') + 1);
}

}  // namespace bench

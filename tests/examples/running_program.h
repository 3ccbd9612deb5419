#pragma once
// running_program.h: a program that runs beside a test, which waits for what it prints.

#include <fcntl.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <string>

// Ended by the destructor.
class RunningProgram {
 public:
  explicit RunningProgram(const std::string& program) {
    int ends[2];
    if (::pipe2(ends, O_CLOEXEC) != 0) return;
    out_ = ends[0];
    pid_ = ::fork();
    if (pid_ == 0) {
      ::dup2(ends[1], STDOUT_FILENO);
      ::execl(program.c_str(), program.c_str(), nullptr);
      ::_exit(127);
    }
    ::close(ends[1]);
  }
  ~RunningProgram() {
    (void)end(SIGKILL);
    ::close(out_);
  }
  RunningProgram(const RunningProgram&) = delete;
  RunningProgram& operator=(const RunningProgram&) = delete;

  // Waits until it prints this text, behind what was waited for before; false when it ends or 20 s pass.
  bool prints(const std::string& text) {
    for (;;) {
      const auto found = unread_.find(text);
      if (found != std::string::npos) {
        unread_.erase(0, found + text.size());
        return true;
      }
      if (!readMore()) return false;
    }
  }

  // Sends a signal and gives back the exit status, -1 when a signal ended it.
  int end(int signal) {
    if (pid_ <= 0) return -1;
    int status = 0;
    (void)::kill(pid_, signal);
    (void)::waitpid(pid_, &status, 0);
    pid_ = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }

 private:
  bool readMore() {
    pollfd entry{out_, POLLIN, 0};
    char bytes[4096];
    if (::poll(&entry, 1, 20000) <= 0) return false;
    const ssize_t count = ::read(out_, bytes, sizeof bytes);
    if (count > 0) unread_.append(bytes, static_cast<std::size_t>(count));
    return count > 0;
  }

  int out_ = -1;
  pid_t pid_ = -1;
  std::string unread_;
};

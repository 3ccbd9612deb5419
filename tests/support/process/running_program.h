#pragma once
// tests/support/process/running_program.h: a program that runs beside a test, which waits for what it writes.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <unistd.h>

#include <csignal>
#include <string>
#include <vector>

#include "tests/support/process/child.h"
#include "tests/support/process/child_process.h"

namespace kl::test {

// Killed by the destructor unless it was ended.
//
//     RunningProgram watch({KL_BIN_DIR "/klctl", "watch", "netif"});
//     EXPECT_TRUE(watch.says("lo "));
//     EXPECT_EQ(watch.end(SIGINT), 0);
class RunningProgram {
 public:
  static constexpr int kPatienceMs = 20000;  // without one more byte

  explicit RunningProgram(const std::vector<std::string>& words)
      : process_([&] {
          ::dup2(out_.writeEnd, STDOUT_FILENO);
          ::dup2(err_.writeEnd, STDERR_FILENO);
          become(words);
        }) {
    ::close(out_.writeEnd);
    ::close(err_.writeEnd);
  }

  // Waits until the program has written the text to its standard output, or standard error stream, and forgets everything
  // up to its end.  False, and a failed test, when that does not come.
  bool says(const std::string& text) { return awaits(out_, text); }
  bool remarks(const std::string& text) { return awaits(err_, text); }

  // The next whole line of results; empty when none comes.
  std::string line() {
    std::size_t end;
    while ((end = out_.text.find('\n')) == std::string::npos)
      if (!readSome(out_)) return {};
    const std::string text = out_.text.substr(0, end);
    out_.text.erase(0, end + 1);
    return text;
  }

  // Sends the signal and waits for the end: the exit status, or 128 and the signal's number.
  int end(int signal) { return process_.end(signal); }

 private:
  struct Stream {
    Stream() {
      int ends[2] = {-1, -1};
      EXPECT_EQ(::pipe2(ends, O_CLOEXEC), 0);
      fd = ends[0];
      writeEnd = ends[1];
    }
    Stream(const Stream&) = delete;
    Stream& operator=(const Stream&) = delete;
    ~Stream() { ::close(fd); }

    int fd;
    int writeEnd;  // the program's
    std::string text;
  };

  static bool awaits(Stream& stream, const std::string& text) {
    std::size_t at;
    while ((at = stream.text.find(text)) == std::string::npos)
      if (!readSome(stream)) return ADD_FAILURE() << "only this came: " << stream.text, false;
    stream.text.erase(0, at + text.size());
    return true;
  }

  static bool readSome(Stream& stream) {
    pollfd watched{stream.fd, POLLIN, 0};
    char bytes[4096];
    if (::poll(&watched, 1, kPatienceMs) != 1) return false;
    const ssize_t got = ::read(stream.fd, bytes, sizeof bytes);
    if (got > 0) stream.text.append(bytes, static_cast<std::size_t>(got));
    return got > 0;
  }

  Stream out_;
  Stream err_;
  ChildProcess process_;
};

}  // namespace kl::test

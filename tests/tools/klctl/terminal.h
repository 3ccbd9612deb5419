#pragma once
// terminal.h: a terminal of the test's own.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <stdlib.h>
#include <unistd.h>

#include <string>

namespace klctl {

// A terminal, and what was written to it.
class Terminal {
 public:
  Terminal() : master_(::posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC)) {
    EXPECT_EQ(::grantpt(master_), 0);
    EXPECT_EQ(::unlockpt(master_), 0);
    char name[64];
    EXPECT_EQ(::ptsname_r(master_, name, sizeof name), 0);
    slave_ = ::open(name, O_RDWR | O_NOCTTY | O_CLOEXEC);
  }
  ~Terminal() {
    ::close(master_);
    ::close(slave_);
  }
  int fd() const { return slave_; }
  // The text that has been written and not been read.
  std::string text() const {
    std::string text;
    pollfd watched{master_, POLLIN, 0};
    char bytes[256];
    while (::poll(&watched, 1, 0) == 1) {
      const ssize_t got = ::read(master_, bytes, sizeof bytes);
      if (got <= 0) break;
      text.append(bytes, static_cast<std::size_t>(got));
    }
    return text;
  }

  // Waits until the text was written, and forgets everything else.
  bool shows(const std::string& expected) const {
    std::string seen;
    pollfd watched{master_, POLLIN, 0};
    while (seen.find(expected) == std::string::npos && ::poll(&watched, 1, kPatienceMs) == 1) seen += text();
    return seen.find(expected) != std::string::npos;
  }

 private:
  static constexpr int kPatienceMs = 20000;

  int master_;
  int slave_ = -1;
};

}  // namespace klctl

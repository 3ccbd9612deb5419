#include "tools/klctl/progress.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <stdlib.h>
#include <unistd.h>

namespace klctl {
namespace {

using std::chrono::milliseconds;

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

 private:
  int master_;
  int slave_ = -1;
};

const Progress::Time kStart{std::chrono::hours(1)};

}  // namespace

TEST(Progress, IsShownAfterASecondAndWipedOutAtTheEnd) {
  const Terminal terminal;
  {
    Progress progress(terminal.fd(), "netif", kStart);
    progress.look(kStart + milliseconds(999), 10);
    EXPECT_EQ(terminal.text(), "");
    EXPECT_EQ(progress.nextLook(), kStart + milliseconds(1000));
    progress.look(kStart + milliseconds(1000), 20);
    EXPECT_EQ(terminal.text(), "\r\x1b[Knetif: 20 objects ...");
    progress.look(kStart + milliseconds(1199), 30);
    EXPECT_EQ(terminal.text(), "");
    progress.look(kStart + milliseconds(1200), 40);
    EXPECT_EQ(terminal.text(), "\r\x1b[Knetif: 40 objects ...");
  }
  EXPECT_EQ(terminal.text(), "\r\x1b[K");
}

TEST(Progress, AShortWalkLeavesTheTerminalAlone) {
  const Terminal terminal;
  { Progress progress(terminal.fd(), "netif", kStart); }
  EXPECT_EQ(terminal.text(), "");
}

TEST(Progress, WhereNoTerminalIsNothingIsWritten) {
  int pipe[2];
  ASSERT_EQ(::pipe2(pipe, O_CLOEXEC | O_NONBLOCK), 0);
  {
    Progress progress(pipe[1], "netif", kStart);
    progress.look(kStart + std::chrono::hours(1), 20);
    EXPECT_EQ(progress.nextLook(), Progress::Time::max());
  }
  char byte;
  EXPECT_EQ(::read(pipe[0], &byte, 1), -1);
  ::close(pipe[0]);
  ::close(pipe[1]);
}

}  // namespace klctl

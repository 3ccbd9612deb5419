#include "tools/klctl/ask/progress.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include "tests/tools/klctl/hostile_text.h"
#include "tests/tools/klctl/terminal.h"

namespace klctl {
namespace {

using std::chrono::milliseconds;

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

TEST(Progress, APathCannotSteerTheTerminal) {
  const Terminal terminal;
  Progress progress(terminal.fd(), kHostile, kStart);
  progress.look(kStart + milliseconds(1000), 2);
  EXPECT_EQ(terminal.text(), "\r\x1b[K" + kHarmless + ": 2 objects ...");
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

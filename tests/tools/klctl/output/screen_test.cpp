#include "tools/klctl/output/screen.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <pty.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <utility>

#include "tests/support/doubles/loader_process.h"
#include "tools/klctl/values/failure.h"

namespace klctl {
namespace {

constexpr char kOneService[] =
    "[[service]]\nname = \"netif\"\nrestart = \"always\"\ncommand = [\"" KL_BIN_DIR "/netif\"]\n";

// klctl top at a terminal of its own, with a real loader.
class TopScreen : public testing::Test {
 protected:
  ~TopScreen() override {
    if (pid_ <= 0) return;
    ::kill(pid_, SIGKILL);
    (void)::waitpid(pid_, nullptr, 0);
  }

  void start(const char* kind) {
    winsize size{};
    size.ws_row = 24;
    size.ws_col = 100;
    pid_ = ::forkpty(&terminal_, nullptr, nullptr, &size);
    ASSERT_GE(pid_, 0);
    if (pid_ != 0) return;
    ::setenv("TERM", kind, 1);
    ::setenv("LC_ALL", "C.UTF-8", 1);
    ::execl(KL_BIN_DIR "/klctl", "klctl", "--fields", KL_SOURCE_DIR "/tools/fields", "top", "--interval",
            "100ms", nullptr);
    ::_exit(127);
  }

  bool shows(const std::string& text) {
    pollfd watched{terminal_, POLLIN, 0};
    while (seen_.find(text) == std::string::npos) {
      char bytes[4096];
      if (::poll(&watched, 1, kPatienceMs) != 1) return false;
      const ssize_t got = ::read(terminal_, bytes, sizeof bytes);
      if (got <= 0) return false;
      seen_.append(bytes, static_cast<std::size_t>(got));
    }
    seen_.erase(0, seen_.find(text) + text.size());
    return true;
  }

  void type(const std::string& keys) const {
    ASSERT_EQ(::write(terminal_, keys.data(), keys.size()), static_cast<ssize_t>(keys.size()));
  }

  // A terminal that nobody reads would keep it from ending.
  int end() {
    for (char bytes[4096]; ::read(terminal_, bytes, sizeof bytes) > 0;) {
    }
    int status = -1;
    EXPECT_EQ(::waitpid(std::exchange(pid_, 0), &status, 0) > 0, true);
    ::close(terminal_);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }

  static constexpr int kPatienceMs = 60000;
  static constexpr char kWholeScreen[] = "\x1b[?1049h";
  static constexpr char kNormalScreen[] = "\x1b[?1049l";

  kl::test::LoaderProcess loader_{kOneService};
  int terminal_ = -1;
  pid_t pid_ = -1;
  std::string seen_;
};

TEST_F(TopScreen, TakesTheTerminalAndGivesItBackAtTheKeyQ) {
  start("xterm");
  ASSERT_TRUE(shows(kWholeScreen)) << seen_;
  ASSERT_TRUE(shows("services")) << seen_;
  ASSERT_TRUE(shows("q quits")) << seen_;
  type("cq");
  EXPECT_TRUE(shows(kNormalScreen)) << seen_;
  EXPECT_EQ(end(), 0);
}

TEST_F(TopScreen, EndsInOrderWhenItIsInterrupted) {
  start("xterm");
  ASSERT_TRUE(shows("q quits")) << seen_;
  type("\x03");
  EXPECT_TRUE(shows(kNormalScreen)) << seen_;
  EXPECT_EQ(end(), 0);
}

TEST_F(TopScreen, GivesTheTerminalBackWhenTheLoaderEnds) {
  start("xterm");
  ASSERT_TRUE(shows("q quits")) << seen_;
  loader_.signal(SIGTERM);
  EXPECT_TRUE(shows(kNormalScreen)) << seen_;
  EXPECT_TRUE(shows("klctl: ")) << seen_;
  EXPECT_EQ(end(), static_cast<int>(Status::kNoLoader));
}

TEST_F(TopScreen, ADumbTerminalGetsOneTableAfterTheOther) {
  for (const char* kind : {"dumb", "no-such-terminal"}) {
    start(kind);
    for (int i = 0; i < 2; ++i) {
      ASSERT_TRUE(shows("services ")) << seen_;
      ASSERT_TRUE(shows("netif")) << seen_;
    }
    type("\x03");
    EXPECT_EQ(end(), 0);
    EXPECT_EQ(seen_.find('\x1b'), std::string::npos) << seen_;
    seen_.clear();
  }
}

}  // namespace
}  // namespace klctl

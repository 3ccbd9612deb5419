// Completion as somebody at a terminal has it: real shells, whose keys are pressed.

#include <gtest/gtest.h>
#include <poll.h>
#include <pty.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <string>
#include <vector>

namespace klctl {
namespace {

constexpr char kScripts[] = KL_SOURCE_DIR "/tools/klctl/completions/";
constexpr int kPatienceMs = 60000;

// A shell, how it starts without anybody's settings, and how it learns to complete klctl.
struct Shell {
  const char* name;
  std::vector<std::string> words;
  std::string learns;
};

void PrintTo(const Shell& shell, std::ostream* out) { *out << shell.name; }

const Shell kShells[] = {
    {"bash", {"bash", "--norc", "--noprofile", "-i"}, std::string("source ") + kScripts + "klctl.bash"},
    {"zsh",
     {"zsh", "-f", "-i"},
     std::string("bindkey -e; autoload -U compinit; compinit -u -D; _klctl_of_file() { source ") + kScripts +
         "klctl.zsh; }; compdef _klctl_of_file klctl"},
    {"fish", {"fish", "--no-config", "-i"}, std::string("source ") + kScripts + "klctl.fish"},
};

bool isInstalled(const std::string& shell) {
  return std::filesystem::exists("/bin/" + shell) || std::filesystem::exists("/usr/bin/" + shell);
}

// At a terminal of 200 columns, in an empty folder.
class Completions : public testing::TestWithParam<Shell> {
 protected:
  void SetUp() override {
    if (!isInstalled(GetParam().name)) GTEST_SKIP() << GetParam().name << " is not installed";
    char name[] = "/tmp/klctl-shell-XXXXXX";
    folder_ = ::mkdtemp(name);
    winsize size{};
    size.ws_row = 50;
    size.ws_col = 200;
    pid_ = ::forkpty(&terminal_, nullptr, nullptr, &size);
    ASSERT_GE(pid_, 0);
    if (pid_ == 0) begin();
    type("PATH=" KL_BIN_DIR ":$PATH\n");
    if (std::string(GetParam().name) == "fish") type("set -x PATH " KL_BIN_DIR " $PATH\n");
    type(GetParam().learns + "\n");
    type("echo is-\"\"ready\n");
    ASSERT_TRUE(shows("is-ready")) << seen_;
  }

  void TearDown() override {
    if (pid_ <= 0) return;
    ::kill(pid_, SIGKILL);
    ::close(terminal_);
    EXPECT_EQ(::waitpid(pid_, nullptr, 0), pid_);
    std::filesystem::remove_all(folder_);
  }

  // Types the keys, lets the shell repeat what they have made, and waits for that.
  bool makes(const std::string& keys, const std::string& line) {
    const std::string toTheStart = "\x01";
    const std::string toTheEnd = "\x05";
    type(keys + toTheStart + "echo ma''de: " + toTheEnd + " end\r");
    if (!shows("made: ")) return false;
    return shows("\r\n") && before_ == line + " end";
  }

  void type(const std::string& keys) const {
    ASSERT_EQ(::write(terminal_, keys.data(), keys.size()), static_cast<ssize_t>(keys.size()));
  }

  // Waits until the text was shown, and forgets what was shown before.
  bool shows(const std::string& text) {
    pollfd watched{terminal_, POLLIN, 0};
    for (;;) {
      if (const std::size_t at = seen_.find(text); at != std::string::npos) {
        before_ = seen_.substr(0, at);
        seen_.erase(0, at + text.size());
        return true;
      }
      char bytes[4096];
      if (::poll(&watched, 1, kPatienceMs) != 1) return false;
      const ssize_t got = ::read(terminal_, bytes, sizeof bytes);
      if (got <= 0) return false;
      seen_.append(bytes, static_cast<std::size_t>(got));
    }
  }

  std::string seen_;    // and not yet awaited
  std::string before_;  // what was shown in front of what was awaited last

 private:
  [[noreturn]] void begin() const {
    ::setenv("HOME", folder_.c_str(), 1);
    ::setenv("TERM", "dumb", 1);
    ::setenv("LC_ALL", "C.UTF-8", 1);
    if (::chdir(folder_.c_str()) != 0) ::_exit(127);
    std::vector<char*> words;
    for (const std::string& word : GetParam().words) words.push_back(const_cast<char*>(word.c_str()));
    words.push_back(nullptr);
    ::execvp(words.front(), words.data());
    ::_exit(127);
  }

  std::string folder_;
  pid_t pid_ = -1;
  int terminal_ = -1;
};

INSTANTIATE_TEST_SUITE_P(Of, Completions, testing::ValuesIn(kShells),
                         [](const auto& test) { return std::string(test.param.name); });

}  // namespace

TEST_P(Completions, AVerbIsCompleted) { EXPECT_TRUE(makes("klctl intros\t", "klctl introspect")) << seen_; }

TEST_P(Completions, AServiceIsCompleted) {
  EXPECT_TRUE(makes("klctl getall neti\t", "klctl getall netif")) << seen_;
}

TEST_P(Completions, AFieldAwaitsItsValue) {
  EXPECT_TRUE(makes("klctl set netif:1 mt\t1500", "klctl set netif:1 mtu=1500")) << seen_;
}

TEST_P(Completions, AnObjectIsCompletedBehindItsService) {
  EXPECT_TRUE(makes("klctl getall log/ru\t", "klctl getall log/rule")) << seen_;
}

TEST_P(Completions, AnOptionIsCompleted) {
  EXPECT_TRUE(makes("klctl get netif --sec\t", "klctl get netif --secrets")) << seen_;
}

TEST_P(Completions, AFileIsTheShellsOwnBusiness) {
  type("touch messages-of-today\n");
  EXPECT_TRUE(makes("klctl dump mess\t", "klctl dump messages-of-today")) << seen_;
}

TEST_P(Completions, NothingIsMadeOfNothing) {
  EXPECT_TRUE(makes("klctl getall no-such-servi\t", "klctl getall no-such-servi")) << seen_;
}

}  // namespace klctl

// The real loader for a test: its program, its configuration, its end.

#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <sstream>
#include <thread>
#include <utility>

#include "kl/test.h"
#include "kl/utilities.h"
#include "testkit/failures.h"
#include "testkit/folder.h"

namespace kl::test {
namespace {

namespace fs = std::filesystem;

constexpr int kPatienceMs = 20000;
constexpr char kOtherPlaces[] = ":/usr/local/sbin:/usr/sbin:/sbin";

// Looks again and again until it holds or the time is over.
bool comesTrue(const std::function<bool()>& condition, int deadlineMs) {
  const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(deadlineMs);
  while (!condition()) {
    if (std::chrono::steady_clock::now() >= end) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return true;
}

std::string findLoader() {
  if (const char* const given = std::getenv("KL_LOADER"); given != nullptr && *given != '\0') return given;
  const char* const path = std::getenv("PATH");
  std::istringstream places((path != nullptr ? path : "") + std::string(kOtherPlaces));
  for (std::string place; std::getline(places, place, ':');)
    if (std::string program = place + "/kl-loader"; ::access(program.c_str(), X_OK) == 0) return program;
  return {};
}

bool takesConnections() {
  const std::string path = loaderSocketPath();
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  path.copy(static_cast<char*>(address.sun_path), sizeof address.sun_path - 1);
  const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  const bool isConnected = ::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
  ::close(fd);
  return isConnected;
}

bool hasEnded(pid_t pid) {
  siginfo_t info{};
  return ::waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOHANG | WNOWAIT) == 0 &&
         info.si_pid == pid;
}

// The child of a test that may have threads: nothing here allocates.
[[noreturn]] void become(const char* program, const char* configuration, const char* log, pid_t parent) {
  (void)::prctl(PR_SET_PDEATHSIG, SIGKILL);
  if (::getppid() != parent) ::_exit(127);
  const int out = ::open(log, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
  for (const int stream : {STDOUT_FILENO, STDERR_FILENO}) (void)::dup2(out, stream);
  (void)::execl(program, program, "--config", configuration, static_cast<char*>(nullptr));
  ::_exit(127);
}

}  // namespace

RealBus::RealBus(const std::string& configuration) {
  const std::string root = freshRoot();
  const std::string program = findLoader();
  if (program.empty()) {
    report("no kl-loader: KL_LOADER names none, and PATH has none");
    return;
  }
  std::string folder =
      root.empty() ? fs::temp_directory_path().string() + "/kl-test.XXXXXX" : root + "/bus.XXXXXX";
  if (::mkdtemp(folder.data()) == nullptr) {
    report("cannot make a folder like " + folder);
    return;
  }
  folder_ = folder;
  const std::string file = folder_ + "/kl-loader.toml";
  const std::string log = folder_ + "/log";
  std::ofstream(file) << configuration;
  const pid_t self = ::getpid();
  pid_ = ::fork();
  if (pid_ == 0) become(program.c_str(), file.c_str(), log.c_str(), self);
  const bool isThere = comesTrue([this] { return hasEnded(pid_) || takesConnections(); }, kPatienceMs);
  if (isThere && !hasEnded(pid_)) return;
  const std::string said = this->log();
  signal(SIGKILL);
  (void)waitForEnd();
  report(program + " does not run: " + said);
}

RealBus::~RealBus() {
  const std::string said = log();
  if (pid_ > 0) {
    ::kill(pid_, SIGTERM);
    const int status = waitForEnd(kPatienceMs);
    if (status != 0) {
      signal(SIGKILL);
      (void)waitForEnd(kPatienceMs);
      reportLast("the end of the loader was not orderly, status " + std::to_string(status) +
                 "; it said: " + said);
    }
  }
  std::error_code ignored;
  if (!folder_.empty()) fs::remove_all(folder_, ignored);
}

int RealBus::pid() const { return pid_; }

void RealBus::signal(int number) {
  if (pid_ > 0) ::kill(pid_, number);
}

int RealBus::waitForEnd(int deadlineMs) {
  int status = 0;
  if (pid_ <= 0 || !comesTrue([&] { return ::waitpid(pid_, &status, WNOHANG) == pid_; }, deadlineMs))
    return -1;
  pid_ = -1;
  return WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
}

std::string RealBus::log() const {
  std::ostringstream text;
  text << std::ifstream(folder_ + "/log").rdbuf();
  return text.str();
}

bool RealBus::logs(const std::string& text, int deadlineMs) const {
  return comesTrue([&] { return log().find(text) != std::string::npos; }, deadlineMs);
}

}  // namespace kl::test

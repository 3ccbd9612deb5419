#include "tests/support/doubles/loader_process.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <sstream>

#include "tests/support/doubles/raw_peer.h"

namespace kl::test {
namespace {

namespace fs = std::filesystem;

// Looks again and again until it holds or the time is over.
bool comesTrue(const std::function<bool()>& condition, int deadlineMs) {
  const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(deadlineMs);
  while (!condition()) {
    if (std::chrono::steady_clock::now() >= end) return false;
    ::usleep(2000);
  }
  return true;
}

std::string contentOf(const std::string& file) {
  std::ostringstream text;
  text << std::ifstream(file).rdbuf();
  return text.str();
}

}  // namespace

LoaderProcess::LoaderProcess(const std::string& configuration) {
  char folder[] = "/tmp/loader_process_XXXXXX";
  folder_ = ::mkdtemp(folder);
  std::ofstream(folder_ + "/kl-loader.toml") << configuration;
  start();
  // The socket of another loader, or of one that was killed, would answer too soon or not at all: the wait ends with
  // the process as well.
  (void)comesTrue([this] { return hasEnded() || RawPeer().connect(0); }, 5000);
}

LoaderProcess::~LoaderProcess() {
  if (pid_ > 0) {
    signal(SIGTERM);
    if (waitForEnd() < 0) signal(SIGKILL);
  }
  std::error_code ignored;
  fs::remove_all(folder_, ignored);
}

void LoaderProcess::start() {
  pid_ = ::fork();
  if (pid_ != 0) return;
  const int log = ::open((folder_ + "/log").c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
  ::dup2(log, STDERR_FILENO);
  const std::string file = folder_ + "/kl-loader.toml";
  ::execl(KL_BIN_DIR "/kl-loader", "kl-loader", "--config", file.c_str(), nullptr);
  ::_exit(127);
}

void LoaderProcess::signal(int sig) const {
  if (pid_ > 0) ::kill(pid_, sig);
}

int LoaderProcess::waitForEnd(int deadlineMs) {
  int status = 0;
  if (pid_ <= 0 || !comesTrue([&] { return ::waitpid(pid_, &status, WNOHANG) == pid_; }, deadlineMs))
    return -1;
  pid_ = -1;
  return WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
}

bool LoaderProcess::hasEnded() const {
  siginfo_t info{};
  return ::waitid(P_PID, static_cast<id_t>(pid_), &info, WEXITED | WNOHANG | WNOWAIT) == 0 &&
         info.si_pid == pid_;
}

std::string LoaderProcess::log() const { return contentOf(folder_ + "/log"); }

bool LoaderProcess::logs(const std::string& text, int deadlineMs) const {
  return comesTrue([&] { return log().find(text) != std::string::npos; }, deadlineMs);
}

std::size_t LoaderProcess::descriptors() const {
  const fs::directory_iterator all("/proc/" + std::to_string(pid_) + "/fd");
  return static_cast<std::size_t>(std::distance(begin(all), end(all)));
}

std::size_t LoaderProcess::memory() const {
  std::ifstream in("/proc/" + std::to_string(pid_) + "/statm");
  std::size_t total = 0;
  std::size_t resident = 0;
  std::size_t shared = 0;
  in >> total >> resident >> shared;
  return (resident - shared) * static_cast<std::size_t>(::sysconf(_SC_PAGESIZE));
}

}  // namespace kl::test

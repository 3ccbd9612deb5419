#include "tests/support/doubles/loader_process.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <sstream>

#include "tests/support/doubles/raw_peer.h"
#include "tests/support/process/child.h"

namespace kl::test {
namespace {

namespace fs = std::filesystem;

constexpr int kPatienceMs = 20000;

// Looks again and again until it holds or the time is over.
bool comesTrue(const std::function<bool()>& condition, int deadlineMs) {
  const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(deadlineMs);
  while (!condition()) {
    if (std::chrono::steady_clock::now() >= end) return false;
    ::usleep(2000);
  }
  return true;
}

void write(const std::string& folder, const std::string& configuration) {
  std::ofstream(folder + "/kl-loader.toml") << configuration;
}

std::string folderWith(const std::string& configuration) {
  char folder[] = "/tmp/loader_process_XXXXXX";
  write(::mkdtemp(folder), configuration);
  return folder;
}

std::string contentOf(const std::string& file) {
  std::ostringstream text;
  text << std::ifstream(file).rdbuf();
  return text.str();
}

// The thread sanitizer's runtime loses a signal that comes within its first blocking call, so that one has to be over: the
// loader has looked at a connection.
void awaitItsFirstPass() {
#ifdef __SANITIZE_THREAD__
  RawPeer peer;
  if (!peer.connect(0)) return;
  peer.halfClose();
  (void)peer.isDisconnected();
#endif
}

}  // namespace

LoaderProcess::LoaderProcess(const std::string& configuration, std::size_t mostDescriptors)
    : folder_(folderWith(configuration)), process_([&] { run(mostDescriptors); }) {
  // The socket of another loader, or of one that was killed, would answer too soon or not at all: the wait ends with
  // the process as well.
  EXPECT_TRUE(comesTrue([this] { return process_.hasEnded() || RawPeer().connect(0); }, kPatienceMs))
      << log();
  awaitItsFirstPass();
}

LoaderProcess::~LoaderProcess() {
  signal(SIGTERM);
  if (pid() > 0) {
    EXPECT_EQ(waitForEnd(kPatienceMs), 0) << log();
  }
  if (pid() > 0) (void)process_.end(SIGKILL);
  std::error_code ignored;
  fs::remove_all(folder_, ignored);
}

void LoaderProcess::run(std::size_t mostDescriptors) const {
  const int log = ::open((folder_ + "/log").c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
  ::dup2(log, STDERR_FILENO);
  const rlimit most{mostDescriptors, mostDescriptors};
  if (mostDescriptors > 0) (void)::setrlimit(RLIMIT_NOFILE, &most);
  become({KL_BIN_DIR "/kl-loader", "--config", folder_ + "/kl-loader.toml"});
}

void LoaderProcess::configure(const std::string& configuration) const { write(folder_, configuration); }

std::string LoaderProcess::log() const { return contentOf(folder_ + "/log"); }

bool LoaderProcess::logs(const std::string& text, int deadlineMs) const {
  return comesTrue([&] { return log().find(text) != std::string::npos; }, deadlineMs);
}

std::size_t LoaderProcess::descriptors() const {
  const fs::directory_iterator all("/proc/" + std::to_string(pid()) + "/fd");
  return static_cast<std::size_t>(std::distance(begin(all), end(all)));
}

std::size_t LoaderProcess::memory() const {
  std::ifstream in("/proc/" + std::to_string(pid()) + "/statm");
  std::size_t total = 0;
  std::size_t resident = 0;
  std::size_t shared = 0;
  in >> total >> resident >> shared;
  return (resident - shared) * static_cast<std::size_t>(::sysconf(_SC_PAGESIZE));
}

}  // namespace kl::test

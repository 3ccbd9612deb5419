#include "tests/support/doubles/real_loader.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>

namespace kl::test {
namespace {

constexpr char kSocket[] = "/ram/kelosock";
constexpr auto kPatience = std::chrono::seconds(20);
constexpr auto kNap = std::chrono::milliseconds(5);
constexpr int kKilledBefore = -1;

[[noreturn]] void become(const std::vector<std::string>& words) {
  std::vector<char*> arguments;
  for (const std::string& word : words) arguments.push_back(const_cast<char*>(word.c_str()));
  arguments.push_back(nullptr);
  ::execv(arguments.front(), arguments.data());
  ::_exit(127);
}

bool accepts() {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::string(kSocket).copy(address.sun_path, sizeof address.sun_path - 1);
  const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  const bool connected = ::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
  ::close(fd);
  return connected;
}

}  // namespace

ChildResult runProgram(const std::vector<std::string>& words) {
  return runInChild([&words] { become(words); });
}

RealLoader::RealLoader(const std::string& programs, const std::string& services) {
  char name[] = "/tmp/real-loader-XXXXXX";
  folder_ = ::mkdtemp(name);
  std::ofstream(folder_ + "/loader.toml") << "[loader]\nstate_folder = \"" << folder_ << "/state\"\n"
                                          << services;
  pid_ = ::fork();
  if (pid_ == 0) {
    ::dup2(::open((folder_ + "/log").c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600), STDERR_FILENO);
    become({programs + "/kl-loader", "--config", folder_ + "/loader.toml"});
  }
  const auto deadline = std::chrono::steady_clock::now() + kPatience;
  while (!accepts() && std::chrono::steady_clock::now() < deadline) std::this_thread::sleep_for(kNap);
  EXPECT_TRUE(accepts()) << log();
}

RealLoader::~RealLoader() {
  const int status = end(SIGTERM);
  const bool isOrderly = status == kKilledBefore || (WIFEXITED(status) && WEXITSTATUS(status) == 0);
  EXPECT_TRUE(isOrderly) << status << "\n" << log();
  std::filesystem::remove_all(folder_);
}

void RealLoader::kill() { (void)end(SIGKILL); }

std::string RealLoader::log() const {
  std::ostringstream text;
  text << std::ifstream(folder_ + "/log").rdbuf();
  return text.str();
}

int RealLoader::end(int signal) {
  if (pid_ <= 0) return kKilledBefore;
  (void)::kill(pid_, signal);
  int status = -1;
  while (::waitpid(pid_, &status, 0) < 0 && errno == EINTR) {
  }
  pid_ = -1;
  return status;
}

}  // namespace kl::test

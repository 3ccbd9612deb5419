#include "services/loader/life/supervisor.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>

#include "services/common/descriptor.h"

namespace {

using loader::Supervisor;

// The manager's end: a real socket of datagrams.
class ServiceManager {
 public:
  // "@" and an abstract name, or a path.
  explicit ServiceManager(const std::string& name)
      : socket_(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, name.data(), name.size());
    if (name[0] == '@') address.sun_path[0] = '\0';
    const auto length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + name.size());
    EXPECT_EQ(::bind(socket_.get(), reinterpret_cast<const sockaddr*>(&address), length), 0);
  }

  int fd() const { return socket_.get(); }

  // The datagrams that have come, the words of one behind the other's.
  std::string heard() const {
    std::string words;
    char bytes[256];
    for (ssize_t n = 0; (n = ::recv(socket_.get(), bytes, sizeof bytes, 0)) > 0;)
      words.append(bytes, static_cast<std::size_t>(n));
    return words;
  }

 private:
  common::Descriptor socket_;
};

// A loop that runs until so many datagrams have come.
class Loop : public kl::ThinRunner {
 public:
  void runUntil(const ServiceManager& manager, int datagrams) {
    manager_ = &manager;
    left_ = datagrams;
    addSocket(manager.fd(), this, kl::bind<Loop, &Loop::onDatagram>(), POLLIN);
    run();
    (void)removeSocket(manager.fd());
  }
  std::string heard;

 private:
  void onDatagram(int, unsigned int) {
    char bytes[256];
    const ssize_t n = ::recv(manager_->fd(), bytes, sizeof bytes, 0);
    if (n > 0) heard.append(bytes, static_cast<std::size_t>(n));
    if (--left_ == 0) stop_ = true;
  }

  const ServiceManager* manager_ = nullptr;
  int left_ = 0;
};

class SupervisorTest : public testing::Test {
 protected:
  SupervisorTest() {
    char name[] = "/tmp/supervisor_XXXXXX";
    folder_ = ::mkdtemp(name);
    path_ = folder_ + "/notify";
  }
  ~SupervisorTest() override {
    for (const char* const variable : {"NOTIFY_SOCKET", "WATCHDOG_USEC", "WATCHDOG_PID"})
      ::unsetenv(variable);
    std::filesystem::remove_all(folder_);
  }

  void name(const std::string& socket) const { ::setenv("NOTIFY_SOCKET", socket.c_str(), 1); }
  void watch(unsigned long long microseconds, pid_t process) const {
    ::setenv("WATCHDOG_USEC", std::to_string(microseconds).c_str(), 1);
    ::setenv("WATCHDOG_PID", std::to_string(process).c_str(), 1);
  }

  // Until a datagram more would have to wait.
  void fill(const ServiceManager& manager) const {
    sockaddr_un address{};
    socklen_t length = sizeof address;
    ASSERT_EQ(::getsockname(manager.fd(), reinterpret_cast<sockaddr*>(&address), &length), 0);
    const common::Descriptor filler(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    while (::sendto(filler.get(), "x", 1, MSG_DONTWAIT, reinterpret_cast<const sockaddr*>(&address),
                    length) == 1) {
    }
    ASSERT_EQ(errno, EAGAIN);
  }

  Loop loop_;
  std::string folder_;
  std::string path_;
};

TEST_F(SupervisorTest, HearsWhenTheLoaderIsReadyAndWhenItEnds) {
  const ServiceManager manager(path_);
  name(path_);
  Supervisor supervisor(loop_);
  EXPECT_EQ(manager.heard(), "");
  supervisor.tellReady();
  EXPECT_EQ(manager.heard(), "READY=1\n");
  supervisor.tellStopping();
  EXPECT_EQ(manager.heard(), "STOPPING=1\n");
}

TEST_F(SupervisorTest, MayListenUnderAnAbstractName) {
  const std::string abstract = "@kl-supervisor-" + std::to_string(::getpid());
  const ServiceManager manager(abstract);
  name(abstract);
  Supervisor(loop_).tellReady();
  EXPECT_EQ(manager.heard(), "READY=1\n");
}

TEST_F(SupervisorTest, HearsAgainAndAgainThatTheLoopRuns) {
  const ServiceManager manager(path_);
  name(path_);
  watch(40000, ::getpid());
  Supervisor supervisor(loop_);
  supervisor.tellReady();
  loop_.runUntil(manager, 4);
  EXPECT_EQ(loop_.heard, "READY=1\nWATCHDOG=1\nWATCHDOG=1\nWATCHDOG=1\n");
}

TEST_F(SupervisorTest, ThatWatchesAnotherProcessHearsNothingOfTheLoop) {
  const ServiceManager manager(path_);
  name(path_);
  watch(40000, ::getppid());
  Supervisor supervisor(loop_);
  supervisor.tellReady();
  EXPECT_EQ(manager.heard(), "READY=1\n");
}

TEST_F(SupervisorTest, WithoutAVariableNobodyIsTold) {
  const ServiceManager manager(path_);
  watch(40000, ::getpid());
  Supervisor supervisor(loop_);
  supervisor.tellReady();
  supervisor.tellStopping();
  EXPECT_EQ(manager.heard(), "");
}

TEST_F(SupervisorTest, ANameOfAnotherKindIsNoSocket) {
  const ServiceManager manager(path_);
  for (const std::string& other : {std::string(), std::string("@"), std::string("vsock:2:1234"),
                                   "/" + std::string(sizeof(sockaddr_un::sun_path), 'x')}) {
    name(other);
    Supervisor supervisor(loop_);
    supervisor.tellReady();
    supervisor.tellStopping();
  }
  EXPECT_EQ(manager.heard(), "");
}

TEST_F(SupervisorTest, ThatHasDiedHoldsNothingUp) {
  name(path_);
  Supervisor supervisor(loop_);
  supervisor.tellReady();
  const ServiceManager manager(path_);  // comes back
  supervisor.tellStopping();
  EXPECT_EQ(manager.heard(), "STOPPING=1\n");
}

// Its queue holds a number of datagrams that the kernel sets (net.unix.max_dgram_qlen); the words about the loop never
// wait for room, those that come once wait half a second.
TEST_F(SupervisorTest, ThatReadsNothingHoldsNothingUp) {
  const ServiceManager manager(path_);
  name(path_);
  watch(20000, ::getpid());
  Supervisor supervisor(loop_);
  fill(manager);
  supervisor.tellReady();
  EXPECT_EQ(manager.heard().find("READY"), std::string::npos);
  supervisor.tellStopping();
  EXPECT_EQ(manager.heard(), "STOPPING=1\n");
}

}  // namespace

#include "services/loader/transport/listener.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "kl/utilities.h"
#include "tests/support/doubles/loader_process.h"
#include "tests/support/doubles/raw_peer.h"

namespace {

namespace fs = std::filesystem;
using common::Peer;
using kl::test::LoaderProcess;
using kl::test::RawPeer;
using loader::Descriptor;
using loader::Listener;

// The process can open nothing while it lives.
class NoDescriptorLeft {
 public:
  NoDescriptorLeft() {
    EXPECT_EQ(::getrlimit(RLIMIT_NOFILE, &before_), 0);
    rlimit tight = before_;
    tight.rlim_cur = static_cast<rlim_t>(Descriptor(::dup(0)).get());  // the lowest that is free
    EXPECT_EQ(::setrlimit(RLIMIT_NOFILE, &tight), 0);
  }
  NoDescriptorLeft(const NoDescriptorLeft&) = delete;
  NoDescriptorLeft& operator=(const NoDescriptorLeft&) = delete;
  ~NoDescriptorLeft() { (void)::setrlimit(RLIMIT_NOFILE, &before_); }

 private:
  rlimit before_{};
};

class ListenerTest : public testing::Test {
 protected:
  void onePass() { runner_.runSocks(kl::getJiffies()); }
  // The lines of the log since the last call.
  std::string logged() {
    std::string text(4096, 0);
    const ssize_t got = ::read(logEnd_.get(), text.data(), text.size());
    text.resize(got > 0 ? static_cast<std::size_t>(got) : 0);
    return text;
  }
  ListenerTest() {
    int ends[2];
    EXPECT_EQ(::pipe2(ends, O_CLOEXEC | O_NONBLOCK), 0);
    logEnd_ = Descriptor(ends[0]);
    logPipe_ = Descriptor(ends[1]);
    log_.emplace(logPipe_.get());
    listener_.emplace(runner_, *log_, [this](Descriptor socket, Peer peer) {
      sockets_.push_back(std::move(socket));
      last_ = peer;
    });
  }

  kl::ThinRunner runner_;
  Descriptor logEnd_, logPipe_;
  std::optional<loader::Log> log_;
  std::vector<Descriptor> sockets_;  // that came in
  Peer last_;                        // who came last
  std::optional<Listener> listener_;
};

TEST_F(ListenerTest, FoldersAreMadeAndTheSocketIsOpenToEverybody) {
  for (const std::string& folder : {kl::runFolderPath(), kl::underRoot("/kelo/logs")}) fs::remove_all(folder);
  ASSERT_EQ(listener_->open(), "");
  struct stat info {};
  ASSERT_EQ(::stat(kl::loaderSocketPath().c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 07777, 0666u);
  EXPECT_TRUE(fs::is_directory(fs::path(kl::logSocketPath()).parent_path()));
  ASSERT_EQ(::stat(kl::runFolderPath().c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 07777, 01777u);  // services of any user mark their first start in it
}

TEST_F(ListenerTest, AConnectionComesWithItsProcessAndItsUser) {
  ASSERT_EQ(listener_->open(), "");
  RawPeer peer;
  ASSERT_TRUE(peer.connect());
  onePass();
  ASSERT_EQ(sockets_.size(), 1u);
  EXPECT_EQ(last_.pid, ::getpid());
  EXPECT_EQ(last_.uid, ::geteuid());
  EXPECT_NE(::fcntl(sockets_[0].get(), F_GETFL) & O_NONBLOCK, 0);
  EXPECT_NE(::fcntl(sockets_[0].get(), F_GETFD) & FD_CLOEXEC, 0);
}

TEST_F(ListenerTest, APassTakesManyConnectionsButNotAll) {
  ASSERT_EQ(listener_->open(), "");
  std::vector<RawPeer> peers(Listener::kMostInAPass + 3);
  for (RawPeer& peer : peers) ASSERT_TRUE(peer.connect());
  onePass();
  EXPECT_EQ(sockets_.size(), Listener::kMostInAPass);
  onePass();
  EXPECT_EQ(sockets_.size(), peers.size());
}

TEST_F(ListenerTest, WithoutADescriptorLeftItWaitsUntilOneIsFree) {
#ifdef __SANITIZE_ADDRESS__
  GTEST_SKIP() << "the sanitizer looks at objects through a pipe, for which no descriptor is left";
#endif
  ASSERT_EQ(listener_->open(), "");
  RawPeer peer;
  ASSERT_TRUE(peer.connect());
  {
    const NoDescriptorLeft none;
    onePass();
    EXPECT_TRUE(sockets_.empty());
    bool isOver = false;
    runner_.addTimer(
        &isOver, [](void* over) { *static_cast<bool*>(over) = true; }, 5);
    int passes = 0;
    while (!isOver) {
      ++passes;
      onePass();
      runner_.runTimers();
    }
    EXPECT_LT(passes, 10) << "the waiting connection woke it";  // a pass may end a tick too early
    EXPECT_EQ(logged(), "kl-loader: connections have to wait: " + std::string(std::strerror(EMFILE)) + "\n");
  }
  listener_->resume();
  onePass();
  EXPECT_EQ(sockets_.size(), 1u);

  // Nobody of its own ends now: it looks again by itself.
  RawPeer second;
  ASSERT_TRUE(second.connect());
  {
    const NoDescriptorLeft none;
    onePass();
    EXPECT_EQ(sockets_.size(), 1u);
  }
  for (int passes = 0; passes < 100 && sockets_.size() == 1; ++passes) onePass();
  EXPECT_EQ(sockets_.size(), 2u);
}

TEST_F(ListenerTest, ALoaderThatIsStoppedIsFoundRunningWithoutAWait) {
  const Descriptor stopped(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  const std::string path = kl::loaderSocketPath();
  fs::create_directories(fs::path(path).parent_path());
  path.copy(address.sun_path, sizeof address.sun_path - 1);
  (void)::unlink(path.c_str());
  ASSERT_EQ(::bind(stopped.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
  ASSERT_EQ(::listen(stopped.get(), 0), 0);
  RawPeer first;
  ASSERT_TRUE(first.connect());  // fills the backlog, and nobody takes it
  EXPECT_EQ(listener_->open(), path + ": a loader is running already");
  (void)::unlink(path.c_str());
}

TEST_F(ListenerTest, ClosingItRemovesItsFile) {
  ASSERT_EQ(listener_->open(), "");
  listener_->close();
  EXPECT_FALSE(fs::exists(kl::loaderSocketPath()));
}

TEST_F(ListenerTest, AFolderThatCannotBeMadeIsTold) {
  fs::remove_all(kl::runFolderPath());
  ASSERT_TRUE(Descriptor(::open(kl::runFolderPath().c_str(), O_CREAT | O_WRONLY, 0600)).isOpen());
  EXPECT_TRUE(listener_->open().starts_with(kl::runFolderPath() + ": cannot be made: "));
  fs::remove(kl::runFolderPath());
}

TEST_F(ListenerTest, ASecondLoaderDoesNotStart) {
  const LoaderProcess first;
  LoaderProcess second;
  EXPECT_EQ(second.waitForEnd(), 1);
  EXPECT_NE(second.log().find(": a loader is running already"), std::string::npos) << second.log();
  EXPECT_EQ(listener_->open(), kl::loaderSocketPath() + ": a loader is running already");
  EXPECT_TRUE(RawPeer().connect());
}

TEST_F(ListenerTest, TheSocketOfAKilledLoaderIsReplaced) {
  LoaderProcess killed;
  killed.signal(SIGKILL);
  EXPECT_EQ(killed.waitForEnd(), 128 + SIGKILL);
  EXPECT_TRUE(fs::exists(kl::loaderSocketPath()));
  EXPECT_EQ(listener_->open(), "");
}

}  // namespace

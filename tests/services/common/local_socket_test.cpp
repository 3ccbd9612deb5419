#include "services/common/local_socket.h"
#include "tests/support/process/child_process.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <fstream>

namespace common {
namespace {

namespace fs = std::filesystem;

struct LocalSocket : testing::Test {
  LocalSocket() {
    char name[] = "/tmp/kl-socket-XXXXXX";
    folder = ::mkdtemp(name);
    path = folder + "/socket";
  }
  ~LocalSocket() override { fs::remove_all(folder); }

  std::string open() { return socket.open(path, 16, "an x"); }
  bool connects() const { return connectTo(newStreamSocket().get(), path); }
  std::size_t files() const {
    return static_cast<std::size_t>(std::distance(fs::directory_iterator(folder), fs::directory_iterator()));
  }

  std::string folder;
  std::string path;
  ListeningSocket socket;
};

TEST_F(LocalSocket, EveryUserMayConnect) {
  EXPECT_EQ(open(), "");
  struct stat about {};
  ASSERT_EQ(::stat(path.c_str(), &about), 0);
  EXPECT_EQ(about.st_mode & 07777, 0666u);
  EXPECT_TRUE(connects());
}

TEST_F(LocalSocket, OneForAGroupIsForNobodyElse) {
  constexpr gid_t kSomeGroup = 7;
  const gid_t group = ::geteuid() == 0 ? kSomeGroup : ::getegid();
  EXPECT_EQ(socket.open(path, 16, "an x", {0660, group}), "");
  struct stat about {};
  ASSERT_EQ(::stat(path.c_str(), &about), 0);
  EXPECT_EQ(about.st_mode & 07777, 0660u);
  EXPECT_EQ(about.st_gid, group);
  EXPECT_EQ(about.st_uid, ::geteuid());
}

TEST_F(LocalSocket, ConnectionsComeInOrderAndNobodyIsWaitedFor) {
  EXPECT_EQ(open(), "");
  const Descriptor client = newStreamSocket();
  ASSERT_TRUE(connectTo(client.get(), path));
  const Descriptor connection = socket.accept();
  ASSERT_TRUE(connection.isOpen());
  EXPECT_NE(::fcntl(connection.get(), F_GETFL) & O_NONBLOCK, 0);
  EXPECT_EQ(::fcntl(connection.get(), F_GETFD), FD_CLOEXEC);
  EXPECT_FALSE(socket.accept().isOpen());
  EXPECT_EQ(errno, EAGAIN);
}

TEST_F(LocalSocket, ThePeerIsWhoTheKernelSays) {
  EXPECT_EQ(open(), "");
  const Descriptor client = newStreamSocket();
  ASSERT_TRUE(connectTo(client.get(), path));
  const Peer peer = peerOf(socket.accept().get());
  EXPECT_EQ(peer.pid, ::getpid());
  EXPECT_EQ(peer.uid, ::geteuid());
  EXPECT_EQ(peerOf(-1).uid, static_cast<uid_t>(-1));
}

TEST_F(LocalSocket, TheFileGoesWithTheSocket) {
  EXPECT_EQ(open(), "");
  EXPECT_EQ(files(), 1u);
  socket.close();
  EXPECT_EQ(files(), 0u);
  EXPECT_FALSE(socket.isOpen());
}

TEST_F(LocalSocket, OneThatLivesIsNotReplaced) {
  EXPECT_EQ(open(), "");
  ListeningSocket second;
  EXPECT_EQ(second.open(path, 16, "an x"), path + ": an x is running already");
  EXPECT_TRUE(connects());
}

TEST_F(LocalSocket, OneThatIsStoppedIsFoundRunningWithoutAWait) {
  EXPECT_EQ(socket.open(path, 0, "an x"), "");
  const Descriptor waiting = newStreamSocket();
  ASSERT_TRUE(connectTo(waiting.get(), path));  // fills the backlog, and nobody takes it
  ListeningSocket second;
  EXPECT_EQ(second.open(path, 16, "an x"), path + ": an x is running already");
}

TEST_F(LocalSocket, WhatAKilledOneLeftIsReplaced) {
  { std::ofstream left(path); }
  { std::ofstream left(path + ".new"); }
  EXPECT_EQ(open(), "");
  EXPECT_TRUE(connects());
  EXPECT_EQ(files(), 1u);
}

TEST_F(LocalSocket, OneThatOnlyAChildOfAKilledOneHoldsIsReplaced) {
  kl::test::Pipe words;
  kl::test::ChildProcess killed([&] {
    if (!open().empty()) ::_exit(1);
    if (::fork() == 0) {
      (void)words.hear<char>();  // until the test has looked
      ::_exit(0);
    }
    ::kill(::getpid(), SIGKILL);
  });
  ASSERT_EQ(killed.waitForEnd(), 128 + SIGKILL);
  ASSERT_TRUE(connects()) << "the child has the socket";
  EXPECT_EQ(open(), "");
  EXPECT_TRUE(connects());
  EXPECT_TRUE(socket.accept().isOpen());
}

TEST_F(LocalSocket, WhereNoneCanBeMadeNothingIsLeft) {
  fs::create_directories(path + "/full");
  EXPECT_EQ(open(), path + ": Is a directory");
  EXPECT_FALSE(socket.isOpen());
  EXPECT_EQ(files(), 1u);
  path = folder + "/missing/socket";
  EXPECT_EQ(open(), path + ": No such file or directory");
}

TEST_F(LocalSocket, APathThatIsTooLongIsToldAndConnectsToNobody) {
  const std::string longPath = "/" + std::string(200, 'x');
  EXPECT_EQ(socket.open(longPath, 16, "an x"), longPath + ": too long for a socket");
  EXPECT_FALSE(connectTo(newStreamSocket().get(), longPath));
  EXPECT_EQ(errno, ENAMETOOLONG);
  sockaddr_un address;
  EXPECT_TRUE(fillAddress(std::string(sizeof address.sun_path - 1, 'x'), address));
  EXPECT_FALSE(fillAddress(std::string(sizeof address.sun_path, 'x'), address));
}

}  // namespace
}  // namespace common

// How a process comes by its connection to the loader.

#include "looper/connection.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <functional>

#include "kl/looper.h"
#include "tests/support/doubles/loader_double.h"
#include "tests/support/process/child.h"

namespace kl {
namespace {

// Opens in a process of its own, where descriptor 3 is what `prepare` makes of it.
test::ChildResult openAfter(const std::function<void()>& prepare, unsigned int mode) {
  return test::runInChild([&] {
    ::close(3);
    prepare();
    (void)openLoaderSocket(mode);
  });
}

void nothing() {}

void makeDescriptor3(int fd) {
  ASSERT_GE(fd, 0);
  if (fd == 3) return;
  ASSERT_EQ(::dup2(fd, 3), 3);
  ::close(fd);
}

TEST(Connection, AnInheritedDescriptor3IsUsed) {
  for (const unsigned int mode : {Looper::kAny, Looper::kInherited, 7u}) {
    const test::LoaderDouble loader;
    EXPECT_EQ(openLoaderSocket(mode), 3) << mode;
  }
}

TEST(Connection, TheInheritedOneBecomesNonBlockingAndCloseOnExec) {
  const test::LoaderDouble loader;
  const int fd = openLoaderSocket(Looper::kInherited);
  EXPECT_NE(::fcntl(fd, F_GETFL) & O_NONBLOCK, 0);
  EXPECT_NE(::fcntl(fd, F_GETFD) & FD_CLOEXEC, 0);
}

TEST(Connection, ConnectingDoesNotLookAtDescriptor3) {
  test::ListeningLoader listener;
  test::LoaderDouble inherited;
  const int fd = openLoaderSocket(Looper::kConnect);
  const test::LoaderDouble accepted(listener.accept());
  EXPECT_NE(fd, 3);
  EXPECT_NE(::fcntl(fd, F_GETFL) & O_NONBLOCK, 0);
  EXPECT_NE(::fcntl(fd, F_GETFD) & FD_CLOEXEC, 0);
  EXPECT_TRUE(inherited.isSilent());
  EXPECT_EQ(::send(fd, "x", 1, 0), 1);
  EXPECT_FALSE(accepted.isSilent());
  ::close(fd);
}

TEST(Connection, WithoutDescriptor3AnyConnects) {
  const test::ListeningLoader listener;
  const test::ChildResult result = openAfter(nothing, Looper::kAny);
  EXPECT_EQ(result.err, "");
  EXPECT_EQ(result.exitStatus, 0);
}

TEST(Connection, ADescriptor3ThatIsNoLocalSocketIsNotTheLoaders) {
  const test::ListeningLoader listener;
  const auto plainFile = [] { makeDescriptor3(::open("/dev/null", O_RDONLY)); };
  const auto internetSocket = [] { makeDescriptor3(::socket(AF_INET, SOCK_STREAM, 0)); };
  EXPECT_EQ(openAfter(plainFile, Looper::kAny).exitStatus, 0);
  for (const auto& prepare : {std::function<void()>(nothing), std::function<void()>(plainFile),
                              std::function<void()>(internetSocket)}) {
    const test::ChildResult result = openAfter(prepare, Looper::kInherited);
    EXPECT_EQ(result.err, "LOOPER: didn't get connection to loader\n");
    EXPECT_EQ(result.exitStatus, 1);
  }
}

TEST(Connection, WithoutALoaderTheProcessEnds) {
  const test::ChildResult result = openAfter(nothing, Looper::kConnect);
  EXPECT_EQ(result.err, "connect failed (errno=2)\n");
  EXPECT_EQ(result.exitStatus, 1);
}

TEST(Connection, WithoutDescriptorsLeftTheProcessEnds) {
#ifdef __SANITIZE_ADDRESS__
  GTEST_SKIP() << "the sanitizer looks for leaks at the end, for which no descriptor is left";
#endif
  const auto useUp = [] {
    const rlimit limit{3, 3};
    ::setrlimit(RLIMIT_NOFILE, &limit);
  };
  const test::ChildResult result = openAfter(useUp, Looper::kConnect);
  EXPECT_EQ(result.err, "socket failed (errno=24)\n");
  EXPECT_EQ(result.exitStatus, 1);
}

}  // namespace
}  // namespace kl

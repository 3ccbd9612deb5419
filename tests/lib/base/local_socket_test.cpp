// Connections to the services of this machine.

#include "base/local_socket.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "base/descriptor.h"
#include "tests/lib/store/store_files.h"

namespace {

using kl::Descriptor;

class LocalSocket : public kl::test::StoreFiles {
 protected:
  // Listens at `path`.
  int listen() const {
    const int fd = kl::openLocalSocket();
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::copy(path.begin(), path.end(), address.sun_path);
    if (::bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 || ::listen(fd, 1) != 0)
      ADD_FAILURE() << "no listener at " << path;
    return fd;
  }
};

TEST_F(LocalSocket, ConnectsToWhoListensAtThePath) {
  const Descriptor listener(listen());
  const Descriptor client(kl::openLocalSocket());
  ASSERT_TRUE(kl::connectLocalSocket(client.fd(), path.c_str()));
  const Descriptor accepted(::accept(listener.fd(), nullptr, nullptr));
  EXPECT_EQ(::send(client.fd(), "x", 1, 0), 1);
  char byte = 0;
  EXPECT_EQ(::read(accepted.fd(), &byte, 1), 1);
  EXPECT_EQ(byte, 'x');
  ::unlink(path.c_str());
}

TEST_F(LocalSocket, WhereNobodyListensErrnoSaysWhy) {
  const Descriptor client(kl::openLocalSocket());
  EXPECT_FALSE(kl::connectLocalSocket(client.fd(), path.c_str()));
  EXPECT_EQ(errno, ENOENT);
}

TEST_F(LocalSocket, ThePathThatIsTooLongForASocketIsNotCutOff) {
  const Descriptor client(kl::openLocalSocket());
  const std::string longest(sizeof(sockaddr_un::sun_path) - 1, 'a');
  EXPECT_FALSE(kl::connectLocalSocket(client.fd(), longest.c_str()));
  EXPECT_EQ(errno, ENOENT);
  EXPECT_FALSE(kl::connectLocalSocket(client.fd(), (longest + 'a').c_str()));
  EXPECT_EQ(errno, ENAMETOOLONG);
}

TEST_F(LocalSocket, TheSocketIsClosedOnExec) {
  const Descriptor client(kl::openLocalSocket());
  EXPECT_EQ(::fcntl(client.fd(), F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
}

}  // namespace

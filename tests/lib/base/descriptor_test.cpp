// A descriptor that is closed at the end of a block.

#include "base/descriptor.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>

#include "tests/lib/store/store_files.h"

namespace {

using kl::Descriptor;

bool isOpen(int fd) { return ::fcntl(fd, F_GETFD) != -1; }

TEST(Descriptor, IsClosedAtTheEndOfItsBlock) {
  int fd = -1;
  {
    const Descriptor null("/dev/null", O_RDONLY);
    ASSERT_TRUE(null);
    fd = null.fd();
    EXPECT_TRUE(isOpen(fd));
  }
  EXPECT_FALSE(isOpen(fd));
}

TEST(Descriptor, OneThatIsReleasedStaysOpen) {
  int fd = -1;
  {
    Descriptor null("/dev/null", O_RDONLY);
    fd = null.release();
    EXPECT_FALSE(null);
  }
  EXPECT_TRUE(isOpen(fd));
  ::close(fd);
}

TEST(Descriptor, AFileThatCannotBeOpenedIsNone) {
  const Descriptor missing("/dev/null/missing", O_RDONLY);
  EXPECT_FALSE(missing);
  EXPECT_EQ(errno, ENOTDIR);
}

class DescriptorFile : public kl::test::StoreFiles {};

TEST_F(DescriptorFile, AFileThatIsMadeIsItsOwnersAloneAndClosedOnExec) {
  const std::string name = path + ".new";
  const Descriptor made(name.c_str(), O_WRONLY | O_CREAT);
  ASSERT_TRUE(made);
  struct stat facts {};
  ASSERT_EQ(::fstat(made.fd(), &facts), 0);
  EXPECT_EQ(facts.st_mode & 0777u, 0600u);
  EXPECT_EQ(::fcntl(made.fd(), F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
}

}  // namespace

#include "base/file_io.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <string>

#include "tests/lib/store/store_files.h"

namespace {

using kl::readAt;
using kl::writeAt;

class StoreFileIo : public kl::test::StoreFiles {
 protected:
  StoreFileIo() : fd(kl::openFile((path + ".dat").c_str(), O_RDWR | O_CREAT)) {}
  ~StoreFileIo() override { ::close(fd); }

  int fd;
};

TEST_F(StoreFileIo, TwoPiecesAreWrittenOneBehindTheOther) {
  EXPECT_EQ(writeAt(fd, {"ab", 2}, {"cde", 3}, 1), 5);
  char read[6] = {};
  EXPECT_EQ(readAt(fd, read, 6, 0), 6);
  EXPECT_EQ(std::string(read, 6), std::string("\0abcde", 6));
}

TEST_F(StoreFileIo, AReadEndsAtTheEndOfTheFile) {
  EXPECT_EQ(writeAt(fd, {"abc", 3}, 0), 3);
  char read[8];
  EXPECT_EQ(readAt(fd, read, sizeof read, 1), 2);
  EXPECT_EQ(readAt(fd, read, sizeof read, 9), 0);
}

TEST_F(StoreFileIo, ThePositionOfTheFileStays) {
  EXPECT_EQ(writeAt(fd, {"abc", 3}, 5), 3);
  EXPECT_EQ(::lseek(fd, 0, SEEK_CUR), 0);
}

TEST_F(StoreFileIo, WhatHasNoPlacesIsASeekError) {
  int ends[2];
  ASSERT_EQ(::pipe(ends), 0);
  EXPECT_EQ(writeAt(ends[1], {"a", 1}, 0), -1);
  EXPECT_TRUE(kl::isSeekError(errno));
  char read;
  EXPECT_EQ(readAt(-1, &read, 1, 0), -1);
  EXPECT_TRUE(kl::isSeekError(errno));
  EXPECT_FALSE(kl::isSeekError(ENOSPC));
  ::close(ends[0]);
  ::close(ends[1]);
}

TEST_F(StoreFileIo, AFileIsKnownByItsInodeAndItsLength) {
  EXPECT_EQ(writeAt(fd, {"abc", 3}, 0), 3);
  EXPECT_EQ(kl::lengthOf(fd), 3);
  EXPECT_NE(kl::inodeOf(fd), 0u);
  EXPECT_EQ(kl::inodeOfPath(path + ".dat"), kl::inodeOf(fd));
}

TEST_F(StoreFileIo, OfAFileThatIsMissingNothingIsKnown) {
  EXPECT_EQ(kl::lengthOf(-1), -1);
  EXPECT_EQ(kl::inodeOf(-1), 0u);
  EXPECT_EQ(kl::inodeOfPath(path + ".none"), 0u);
}

}  // namespace

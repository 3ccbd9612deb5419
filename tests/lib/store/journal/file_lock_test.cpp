#include "store/journal/file_lock.h"

#include <filesystem>

#include "tests/lib/store/store_files.h"

namespace {

using kl::FileLock;
using kl::ReportingLockGuard;
using kl::test::linesOf;

class StoreFileLock : public kl::test::StoreFiles {};

TEST_F(StoreFileLock, OthersWaitWhileABracketLives) {
  FileLock lock(path);
  {
    const ReportingLockGuard guard(lock);
    EXPECT_FALSE(isLockFree());
  }
  EXPECT_TRUE(isLockFree());
}

TEST_F(StoreFileLock, AnInnerBracketKeepsTheOuterOnesLock) {
  FileLock lock(path);
  const ReportingLockGuard outer(lock);
  { const ReportingLockGuard inner(lock); }
  EXPECT_FALSE(isLockFree());
}

TEST_F(StoreFileLock, TheFileIsTheOwnersAloneAndStaysEmpty) {
  FileLock lock(path);
  { const ReportingLockGuard guard(lock); }
  EXPECT_EQ(std::filesystem::status(path + ".lock").permissions(),
            std::filesystem::perms::owner_read | std::filesystem::perms::owner_write);
  EXPECT_EQ(std::filesystem::file_size(path + ".lock"), 0U);
}

TEST_F(StoreFileLock, ALockFileThatCannotBeOpenedIsReportedAndTheWorkGoesOn) {
  std::filesystem::create_directory(path + ".lock");
  FileLock lock(path);
  EXPECT_EQ(linesOf([&] {
              const ReportingLockGuard guard(lock);
              std::cout << "work\n";
            }),
            "STORE: lock open failed\nSTORE: lock fnctl failed\nwork\nSTORE: unlock fnctl failed\n");
}

TEST_F(StoreFileLock, WithoutTheLockEachInnerBracketReportsAsWell) {
  std::filesystem::create_directory(path + ".lock");
  FileLock lock(path);
  const std::string each = "STORE: lock open failed\nSTORE: lock fnctl failed\n";
  EXPECT_EQ(linesOf([&] {
              const ReportingLockGuard outer(lock);
              const ReportingLockGuard inner(lock);
            }),
            each + each + "STORE: unlock fnctl failed\nSTORE: unlock fnctl failed\n");
}

}  // namespace

#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include "base/file_io.h"
#include "kl/store.h"
#include "tests/lib/store/store_files.h"
#include "tests/support/hex.h"
#include "tests/support/process/child.h"

namespace {

using kl::Store;
using kl::test::bytes;
using kl::test::exists;
using kl::test::filled;
using kl::test::hex;
using kl::test::linesOf;
using kl::test::number;

class StoreCompaction : public kl::test::StoreFiles {
 protected:
  void SetUp() override {
    linesOf([this] { Store(path, 3); });
  }
};

TEST_F(StoreCompaction, FreeSlotsGoAndSlackStays) {
  Store store(path, 3);
  store.set(1, number(0x01020304));
  store.set(2, number(2));
  store.set(3, number(3));
  store.remove(2);
  store.set(1, number(1));
  store.compact(false);
  EXPECT_EQ(idx(), hex(bytes("01000000 0c000000 03000000  03000000 09000000 03000000")));
  EXPECT_EQ(dat(), hex(bytes("0900 4d32 05000009 01 030201  0900 4d32 05000009 03")));
  EXPECT_TRUE(store.get(3) == number(3));
  EXPECT_EQ(store.entries().at(3).offset, 12U);
  EXPECT_EQ(store.entries().at(3).slot, 1U);
}

TEST_F(StoreCompaction, TheStoreGoesOnBehindIt) {
  Store store(path, 3);
  store.set(1, number(1));
  store.set(2, number(2));
  store.remove(1);
  store.compact(false);
  store.set(4, number(4));
  EXPECT_EQ(idx(), hex(bytes("02000000 09000000 03000000  04000000 09000000 03000000")));
  Store again(path, 3);
  EXPECT_TRUE(again.get(2) == number(2));
  EXPECT_TRUE(again.get(4) == number(4));
}

TEST_F(StoreCompaction, NothingElseIsLeftInTheFolder) {
  Store store(path, 3);
  store.set(1, number(1));
  store.compact(false);
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(folder), {}), 3);
  EXPECT_TRUE(lockBytes().empty());
}

TEST_F(StoreCompaction, TwoSlotsWithOneIdKeepTheBytesOfTheFirst) {
  writeIdx("ffffffff 05000000 00000000  11000000 09000000 03000000  11000000 0b000000 04000000");
  writeDat("0000000000  0900 4d32 05000009 07  0900 4d32 05000009 08 bbbb");
  Store store(path, 3);
  store.compact(false);
  EXPECT_EQ(idx(), hex(bytes("11000000 09000000 03000000  11000000 0b000000 04000000")));
  EXPECT_EQ(dat(), hex(bytes("0900 4d32 05000009 07  0900 4d32 05000009 07 0000")));
  EXPECT_TRUE(store.get(0x11) == number(7));
  EXPECT_EQ(store.entries().at(0x11).slot, 0U);
}

TEST_F(StoreCompaction, ASlotThatTheMapDoesNotKnowIsReportedAndDropped) {
  Store store(path, 3);
  store.set(1, number(1));
  Store other(path, 3);
  other.set(2, number(2));
  EXPECT_EQ(linesOf([&] { store.compact(false); }), "STORE: entry in file but not in map!!\n");
  EXPECT_EQ(idx(), hex(bytes("01000000 09000000 03000000")));
}

TEST_F(StoreCompaction, LargeSlotsAreCopiedWhole) {
  Store store(path, 3);
  store.set(1, number(1));
  store.set(2, filled(65000, 3));
  store.set(3, filled(65500, 4));
  store.remove(1);
  store.compact(false);
  EXPECT_TRUE(store.get(2) == filled(65000, 3));
  EXPECT_TRUE(store.get(3) == filled(65500, 4));
}

TEST_F(StoreCompaction, FilesThatCannotBeOpenedLeaveTheStoreAlone) {
  Store store(path, 3);
  store.set(1, number(1));
  store.closeData();
  std::filesystem::rename(path + ".dat", path + ".away");
  EXPECT_EQ(linesOf([&] { store.compact(false); }), "STORE: openData failed\n");
  std::filesystem::rename(path + ".away", path + ".dat");
  EXPECT_TRUE(store.get(1) == number(1));
}

TEST_F(StoreCompaction, NewFilesThatCannotBeMadeLeaveTheStoreAlone) {
  Store store(path, 3);
  store.set(1, number(1));
  std::filesystem::create_directory(path + ".idx.new");
  EXPECT_EQ(linesOf([&] { store.compact(false); }), "STORE: compact: could not open new index file\n");
  EXPECT_FALSE(exists(path + ".dat.new"));
  EXPECT_TRUE(store.get(1) == number(1));
}

TEST_F(StoreCompaction, ADataFileThatIsTooShortEmptiesTheStore) {
  Store store(path, 3);
  store.set(1, number(1));
  store.set(2, number(2));
  std::filesystem::resize_file(path + ".dat", 17);
  EXPECT_EQ(linesOf([&] { store.compact(false); }), "STORE: compact read failed\n");
  EXPECT_TRUE(store.entries().empty());
  EXPECT_EQ(idx() + dat(), "");
  EXPECT_FALSE(exists(path + ".dat.new"));
}

TEST_F(StoreCompaction, ADataFileThatCannotBeSoughtInEmptiesTheStore) {
  Store store(path, 3);
  store.set(1, number(1));
  store.closeData();
  std::filesystem::remove(path + ".dat");
  ASSERT_EQ(::mkfifo((path + ".dat").c_str(), 0600), 0);
  EXPECT_EQ(linesOf([&] { store.compact(false); }), "STORE: compact lseek failed\n");
  EXPECT_TRUE(store.entries().empty());
  EXPECT_TRUE(std::filesystem::is_regular_file(path + ".dat"));
  EXPECT_EQ(idx() + dat(), "");
  EXPECT_FALSE(exists(path + ".dat.new"));
}

TEST_F(StoreCompaction, AnIndexThatCannotBeSoughtInEmptiesTheStore) {
  Store store(path, 3);
  store.set(1, number(1));
  store.closeIdx();
  std::filesystem::remove(path + ".idx");
  ASSERT_EQ(::mkfifo((path + ".idx").c_str(), 0600), 0);
  EXPECT_EQ(linesOf([&] { store.compact(false); }), "STORE: compact: could not seek to start in index\n");
  EXPECT_TRUE(store.entries().empty());
  EXPECT_TRUE(std::filesystem::is_regular_file(path + ".idx"));
  EXPECT_EQ(idx() + dat(), "");
  EXPECT_FALSE(exists(path + ".idx.new"));
}

TEST_F(StoreCompaction, ADataFileThatCannotBeReplacedStaysWithItsIndex) {
  Store store(path, 3);
  for (unsigned int id = 1; id <= 3; ++id) store.set(id, number(id));
  store.remove(1);
  const std::string before = idx();
  std::filesystem::rename(path + ".dat", path + ".away");
  std::filesystem::create_directory(path + ".dat");
  EXPECT_EQ(linesOf([&] { store.compact(false); }), "STORE: compact: could not open new data file\n");
  std::filesystem::remove(path + ".dat");
  std::filesystem::rename(path + ".away", path + ".dat");
  EXPECT_EQ(idx(), before);
  EXPECT_TRUE(lockBytes().empty());
  EXPECT_FALSE(exists(path + ".dat.new"));
  EXPECT_TRUE(store.get(3) == number(3));
  store.set(4, number(4));
  EXPECT_EQ(store.entries().at(4).slot, 0U);
  EXPECT_EQ(linesOf([&] { EXPECT_EQ(Store(path, 3).entries().size(), 3U); }), "");
}

// In a folder in which everybody may rename what is his, the index is somebody else's whom it lets write.
TEST_F(StoreCompaction, AnIndexThatCannotBeRenamedIsWrittenOver) {
  if (::geteuid() != 0) GTEST_SKIP() << "files can be given to another user by root alone";
  constexpr uid_t kNobody = 65534;
  {
    Store store(path, 3);
    for (unsigned int id = 1; id <= 3; ++id) store.set(id, number(id));
    store.remove(1);
  }
  ASSERT_EQ(::chmod(folder.c_str(), 01777), 0);
  ASSERT_EQ(::chmod((path + ".idx").c_str(), 0666), 0);
  for (const char* suffix : {".dat", ".lock"})
    ASSERT_EQ(::chown((path + suffix).c_str(), kNobody, kNobody), 0);
  const unsigned long long inode = kl::inodeOfPath(path + ".idx");
  const auto other = kl::test::runInChild([this] {
    ::_exit(::setgid(kNobody) != 0 || ::setuid(kNobody) != 0 ? 1 : ([this] {
      Store store(path, 3);
      store.compact(false);
      store.set(4, number(4));
      return store.entries().size() == 3 && store.get(2) == number(2) ? 0 : 2;
    })());
  });
  EXPECT_EQ(other.exitStatus, 0);
  EXPECT_EQ(other.out, "");
  EXPECT_EQ(kl::inodeOfPath(path + ".idx"), inode);
  EXPECT_EQ(idx(),
            hex(bytes("02000000 09000000 03000000  03000000 09000000 03000000  04000000 09000000 03000000")));
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(folder), {}), 3);
  EXPECT_EQ(linesOf([&] { EXPECT_TRUE(Store(path, 3).get(3) == number(3)); }), "");
}

}  // namespace

#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <optional>

#include "kl/store.h"
#include "store/journal/file_lock.h"
#include "tests/lib/store/store_files.h"
#include "tests/support/calls/changing_calls.h"
#include "tests/support/hex.h"
#include "tests/support/process/child.h"

namespace {

using kl::message;
using kl::Store;
using kl::test::bytes;
using kl::test::exists;
using kl::test::hex;
using kl::test::linesOf;
using kl::test::number;

class StoreLoading : public kl::test::StoreFiles {
 protected:
  // The lines of opening the store, and what it holds then.
  std::string linesOfOpening() {
    return linesOf([this] {
      Store store(path, 3);
      entries = store.entries();
      messages.clear();
      for (const auto& [id, entry] : entries) messages.push_back(store.get(id));
    });
  }

  Store::Entries entries;
  std::vector<message> messages;
};

TEST_F(StoreLoading, AFreshPathGivesAnEmptyStoreAndEmptyFiles) {
  EXPECT_EQ(linesOfOpening(), "STORE: openIdx failed\n");
  EXPECT_TRUE(entries.empty());
  EXPECT_TRUE(exists(path + ".idx"));
  EXPECT_EQ(idx() + dat(), "");
  EXPECT_EQ(linesOfOpening(), "");
}

TEST_F(StoreLoading, ParentFoldersAreMade) {
  path = folder + "/a/b/s";
  linesOfOpening();
  EXPECT_EQ(std::filesystem::status(folder + "/a").permissions(), std::filesystem::perms::owner_all);
  EXPECT_TRUE(exists(folder + "/a/b/s.dat"));
}

TEST_F(StoreLoading, OffsetsFollowFromTheSizes) {
  writeIdx("11000000 09000000 03000000  ffffffff 05000000 07000000  02000000 0b000000 01000000");
  writeDat("0900 4d32 05000009 07  0000000000  0900 4d32 05000009 08 0000");
  EXPECT_EQ(linesOfOpening(), "");
  ASSERT_EQ(entries.size(), 2U);
  const Store::Entry& last = entries.at(2);
  EXPECT_EQ(last.offset, 14U);
  EXPECT_EQ(last.size, 11U);
  EXPECT_EQ(last.slot, 2U);
  EXPECT_EQ(last.lifetime, 1U);
  EXPECT_TRUE(messages[0] == number(8));
  EXPECT_TRUE(messages[1] == number(7));
}

TEST_F(StoreLoading, APartialSlotAtTheEndIsIgnored) {
  writeIdx("11000000 09000000 03000000  05000000 0900");
  writeDat("0900 4d32 05000009 07");
  EXPECT_EQ(linesOfOpening(), "");
  EXPECT_EQ(entries.size(), 1U);
}

TEST_F(StoreLoading, SizesAreAddedUpBeyondWhatANumberInAFileHolds) {
  writeIdx("ffffffff f6ffffff 03000000  ffffffff 0a000000 03000000  13000000 09000000 03000000");  // 2^32 + 9
  writeDat("0900 4d32 05000009 07");
  EXPECT_EQ(linesOfOpening(), "STORE: readIndex size mismatch\n");
  EXPECT_TRUE(entries.empty());
  EXPECT_EQ(idx() + dat(), "");
}

TEST_F(StoreLoading, SizesThatDoNotAddUpInEitherOrderEmptyTheStore) {
  writeIdx("11000000 09000000 03000000");
  for (const char* data : {"0900 4d32 05000009", "0900 4d32 05000009 07 00"}) {
    writeIdx("11000000 09000000 03000000");
    writeDat(data);
    EXPECT_EQ(linesOfOpening(), "STORE: readIndex size mismatch\n");
    EXPECT_TRUE(entries.empty());
    EXPECT_EQ(idx() + dat(), "");
  }
}

TEST_F(StoreLoading, AMissingDataFileEmptiesTheStore) {
  writeIdx("11000000 09000000 03000000");
  EXPECT_EQ(linesOfOpening(), "STORE: readIndex stat failed\n");
  EXPECT_EQ(idx() + dat(), "");
  EXPECT_TRUE(exists(path + ".dat"));
}

TEST_F(StoreLoading, TheOlderLayoutIsRewritten) {
  writeIdx("00000011 00000009 00000003  ffffffff 00000005 00000007  00000002 0000000b 00000001");
  writeDat("0009 4d32 05000009 07  0000000000  0009 4d32 05000009 08 aaaa");
  EXPECT_EQ(linesOfOpening(), "");
  EXPECT_EQ(idx(), hex(bytes("11000000 09000000 03000000  02000000 0b000000 01000000")));
  EXPECT_EQ(dat(), hex(bytes("0900 4d32 05000009 07  0900 4d32 05000009 08 aaaa")));
  EXPECT_TRUE(messages[0] == number(8));
  EXPECT_TRUE(messages[1] == number(7));
}

TEST_F(StoreLoading, AStoreThatCouldNotBeConvertedIsConvertedBeforeItIsUsed) {
  writeIdx("00000011 00000009 00000003");
  writeDat("0009 4d32 05000009 07");
  std::filesystem::create_directory(path + ".idx.new");
  const std::string refused = "STORE: compact: could not open new index file\n";
  std::optional<Store> store;
  EXPECT_EQ(linesOf([&] { store.emplace(path, 3); }), refused);
  EXPECT_EQ(linesOf([&] { EXPECT_TRUE(store->get(0x11) == message()); }), refused);
  std::filesystem::remove(path + ".idx.new");
  EXPECT_EQ(linesOf([&] { EXPECT_TRUE(store->get(0x11) == number(7)); }), "");
  EXPECT_EQ(idx(), hex(bytes("11000000 09000000 03000000")));
}

TEST_F(StoreLoading, TheFirstOfTwoSlotsWithOneIdCounts) {
  writeIdx("11000000 09000000 03000000  11000000 09000000 04000000");
  writeDat("0900 4d32 05000009 07  0900 4d32 05000009 08");
  EXPECT_EQ(linesOfOpening(), "");
  EXPECT_EQ(entries.at(0x11).slot, 0U);
  EXPECT_TRUE(messages[0] == number(7));
}

TEST_F(StoreLoading, AnIndexThatCannotBeSoughtInIsReported) {
  linesOfOpening();
  Store store(path, 3);
  store.closeIdx();
  std::filesystem::remove(path + ".idx");
  ASSERT_EQ(::mkfifo((path + ".idx").c_str(), 0600), 0);
  EXPECT_EQ(linesOf([&] { EXPECT_FALSE(store.readIndex(false)); }), "STORE: readIndex lseek failed\n");
}

// Nothing is mapped at the start of a process's memory.
TEST_F(StoreLoading, AnIndexThatCannotBeReadEmptiesTheStore) {
  std::filesystem::create_symlink("/proc/self/mem", path + ".idx");
  writeDat("0900 4d32 05000009 07");
  EXPECT_EQ(linesOfOpening(), "STORE: readIndex read failed\n");
  EXPECT_TRUE(entries.empty());
  EXPECT_FALSE(std::filesystem::is_symlink(path + ".idx"));
  EXPECT_EQ(idx() + dat(), "");
}

TEST_F(StoreLoading, AHealthyStoreIsOpenedAndReadWhileSomebodyHoldsTheLock) {
  linesOfOpening();
  Store(path, 3).set(1, number(7));
  kl::FileLock lock(path);
  const kl::ReportingLockGuard guard(lock);
  const auto other = kl::test::runInChild([this] {
    ::alarm(10);  // it would wait without end
    Store store(path, 3);
    ::_exit(store.get(1) == number(7) ? 0 : 1);
  });
  EXPECT_EQ(other.exitStatus, 0) << "signal " << other.signal;
  EXPECT_EQ(other.out, "");
}

TEST_F(StoreLoading, AFolderInPlaceOfAFileIsReported) {
  std::filesystem::create_directory(path + ".dat");
  EXPECT_EQ(linesOfOpening(), "STORE: openIdx failed\nSTORE: restart open .dat failed\n");
  EXPECT_FALSE(exists(path + ".idx"));
  std::filesystem::remove(path + ".dat");
  std::filesystem::create_directory(path + ".idx");
  EXPECT_EQ(linesOfOpening(), "STORE: openIdx failed\nSTORE: restart open .idx failed\n");
}

TEST_F(StoreLoading, RestartEmptiesStoreAndFiles) {
  linesOfOpening();
  Store store(path, 3);
  store.set(1, number(7));
  store.restart();
  EXPECT_TRUE(store.entries().empty());
  EXPECT_EQ(idx() + dat(), "");
  store.set(2, number(8));
  EXPECT_EQ(idx(), hex(bytes("02000000 09000000 03000000")));
}

TEST_F(StoreLoading, DeleteFilesLeavesTheObjectAsItWas) {
  linesOfOpening();
  Store store(path, 3);
  store.set(1, number(7));
  store.deleteFiles();
  EXPECT_TRUE(std::filesystem::is_empty(folder));
  EXPECT_TRUE(store.get(1) == number(7));
}

TEST_F(StoreLoading, DeleteFilesHoldsTheLockWhileItRemovesIndexDataAndLockFileInThisOrder) {
  linesOfOpening();
  Store store(path, 3);
  store.set(1, number(7));
  std::string removed;
  kl::test::ChangingCalls calls;
  calls.watch([&](const kl::test::FileCall& call) {
    if (call.kind != kl::test::FileCall::kUnlink) return;
    removed += call.from.substr(path.size());
    EXPECT_FALSE(exists(path + ".lock") && isLockFree()) << removed;
  });
  store.deleteFiles();
  EXPECT_EQ(removed, ".idx.dat.lock");
}

TEST_F(StoreLoading, CleanupForgetsAndLeavesTheFiles) {
  linesOfOpening();
  Store store(path, 3);
  store.set(1, number(7));
  store.cleanup();
  EXPECT_TRUE(store.entries().empty());
  EXPECT_TRUE(store.readIndex(false));
  EXPECT_TRUE(store.get(1) == number(7));
}

}  // namespace

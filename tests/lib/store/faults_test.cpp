// A store whose files take no more: the size of files is limited for the length of one call.
// The limit holds for captured lines, too, so it is never a small one.

#include <sched.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <filesystem>
#include <optional>

#include "kl/runner.h"
#include "kl/store.h"
#include "tests/lib/store/store_files.h"
#include "tests/support/calls/changing_calls.h"
#include "tests/support/process/child.h"

namespace {

using kl::message;
using kl::Store;
using kl::test::filled;
using kl::test::linesOf;
using kl::test::number;

// While it lives, no file of this process grows beyond `bytes`.
class FileSizeLimit {
 public:
  explicit FileSizeLimit(rlim_t bytes) : oldAction_(std::signal(SIGXFSZ, SIG_IGN)) {
    ::getrlimit(RLIMIT_FSIZE, &old_);
    const rlimit limit{bytes, old_.rlim_max};
    ::setrlimit(RLIMIT_FSIZE, &limit);
  }
  ~FileSizeLimit() {
    ::setrlimit(RLIMIT_FSIZE, &old_);
    (void)std::signal(SIGXFSZ, oldAction_);
  }

 private:
  rlimit old_;
  void (*oldAction_)(int);
};

class StoreFaults : public kl::test::StoreFiles {
 protected:
  void SetUp() override {
    linesOf([this] { Store(path, 3); });
  }

  // Opened beside the writer, the store has this many entries, and says nothing.
  void expectOpens(std::size_t count) {
    kl::Runner loop;
    EXPECT_EQ(linesOf([&] { EXPECT_EQ(Store(path, 3).entries().size(), count); }), "");
  }

  // The lines of one set() with files of at most `limit` bytes.
  static std::string linesOfSet(Store& store, unsigned int id, const message& m, rlim_t limit) {
    return linesOf([&] {
      const FileSizeLimit full(limit);
      store.set(id, m);
    });
  }
};

TEST_F(StoreFaults, ASetThatFailsLeavesAFreeSlotThatDoesNotCount) {
  Store store(path, 3);
  for (unsigned int id = 0; id < 9; ++id) store.set(id, filled(20));
  const auto full = kl::test::readFile(path + ".dat").size();
  EXPECT_EQ(linesOfSet(store, 100, filled(500), full), "STORE: writeMsg write header failed\n");
  EXPECT_EQ(store.entries().count(100), 0U);
  for (unsigned int id = 0; id < 8; ++id) store.remove(id);
  EXPECT_EQ(kl::test::readFile(path + ".idx").size(), 12U * 10);
  store.set(200, filled(400));
  EXPECT_EQ(store.entries().at(200).slot, 9U);
}

TEST_F(StoreFaults, AMessageThatFitsInPartIsReportedAsAFailedWrite) {
  Store store(path, 3);
  EXPECT_EQ(linesOfSet(store, 1, filled(500), 100), "STORE: writeMsg write failed\n");
  EXPECT_TRUE(store.entries().empty());
}

TEST_F(StoreFaults, AnIndexThatTakesNoMoreIsReportedForTheEntryAndForItsSlot) {
  Store store(path, 3);
  for (unsigned int id = 0; id < 200; ++id) store.set(id, number(1));  // 2400 bytes of index, 1800 of data
  EXPECT_EQ(linesOfSet(store, 200, number(2), 2400),
            "STORE: writeIndexent write failed\nSTORE: writeIndexent write failed\n");
  EXPECT_EQ(store.entries().size(), 200U);
  EXPECT_TRUE(store.get(199) == number(1));
}

TEST_F(StoreFaults, AfterAnAppendThatFailedTheStoreOpensAgain) {
  Store store(path, 3);
  for (unsigned int id = 0; id < 9; ++id) store.set(id, filled(20));
  const auto full = kl::test::readFile(path + ".dat").size();
  {
    kl::test::ChangingCalls calls;
    calls.failEveryWrite(3, ENOSPC);  // the note, the index, the data
    EXPECT_EQ(linesOf([&] { store.set(100, filled(500)); }), "STORE: writeMsg write header failed\n");
  }
  EXPECT_EQ(kl::test::readFile(path + ".dat").size(), full + kl::test::blobBytes(filled(500)));
  expectOpens(9);
}

TEST_F(StoreFaults, ASlotThatTheIndexHadNoRoomForIsWrittenBeforeTheNext) {
  Store store(path, 3);
  for (unsigned int id = 0; id < 200; ++id) store.set(id, number(1));
  linesOfSet(store, 200, filled(300), 2400);
  linesOfSet(store, 201, filled(200), 2400);  // into the slot of the first, which the index does not have yet
  expectOpens(200);
  store.set(202, filled(500));
  EXPECT_EQ(store.entries().at(202).slot, 201U);
  expectOpens(201);
  EXPECT_TRUE(Store(path, 3).get(202) == filled(500));
}

TEST_F(StoreFaults, ASlotThatTheDataFileHasNoRoomForIsNotWrittenToTheIndex) {
  Store store(path, 3);
  for (unsigned int id = 0; id < 10; ++id) store.set(id, filled(500));
  const auto full = kl::test::readFile(path + ".dat").size();
  linesOfSet(store, 100, filled(300), full);
  linesOfSet(store, 101, filled(200), full);  // into the slot of the first
  linesOfSet(store, 3, filled(400), full);
  expectOpens(10);
  store.set(102, filled(250));
  expectOpens(11);
}

TEST_F(StoreFaults, ASlotThatFailsAgainAndAgainIsCaughtUpWithOnce) {
  kl::Runner loop;
  Store store(path, 3);
  store.set(1, number(1));
  kl::test::ChangingCalls calls;
  calls.failEveryWrite(1, EIO);
  linesOf([&] {
    for (unsigned int i = 0; i < 20; ++i) store.remove(1), store.set(1, number(1));
  });
  calls.failEveryWrite(1000, EIO);
  const unsigned int before = calls.calls();
  store.set(2, filled(50));
  EXPECT_EQ(calls.calls() - before, 6U);  // the lock file, one slot, the note, two writes, its end
}

TEST_F(StoreFaults, AnEmptiedStoreForgetsSlotsThatHadNoRoom) {
  Store store(path, 3);
  for (unsigned int id = 0; id < 200; ++id) store.set(id, number(1));
  linesOfSet(store, 200, filled(300), 2400);
  store.restart();
  store.set(1, number(1));
  expectOpens(1);
}

// Compactions whose files may have at most so many bytes.
class StoreCompactionRoom : public StoreFaults {
 protected:
  std::string linesOfCompaction(Store& store, rlim_t limit) {
    return linesOf([&] {
      const FileSizeLimit full(limit);
      store.compact(false);
    });
  }

  void expectEntries(std::size_t count) {
    EXPECT_EQ(linesOf([&] { EXPECT_EQ(Store(path, 3).entries().size(), count); }), "");
  }

  kl::Runner loop;  // so that nothing is compacted by itself
};

TEST_F(StoreCompactionRoom, WithoutItForTheDataTheOldFilesStay) {
  Store store(path, 3);
  for (unsigned int id = 0; id < 10; ++id) store.set(id, filled(500));
  store.remove(3);
  const std::string index = idx();
  const std::string data = dat();
  EXPECT_EQ(linesOfCompaction(store, 3000), "STORE: compact: could not open new data file\n");
  EXPECT_EQ(idx(), index);
  EXPECT_EQ(dat(), data);
  store.set(3, filled(400));
  EXPECT_EQ(store.entries().at(3).slot, 3U);
  expectEntries(10);
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(folder), {}), 3);
}

TEST_F(StoreCompactionRoom, WithoutItForTheIndexTheOldFilesStay) {
  Store store(path, 3);
  for (unsigned int id = 0; id < 200; ++id) store.set(id, number(1));  // 2400 bytes of index, 1800 of data
  store.remove(3);
  EXPECT_EQ(linesOfCompaction(store, 2000), "STORE: compact: could not open new index file\n");
  EXPECT_EQ(slots(), 200U);
  expectEntries(199);
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(folder), {}), 3);
}

TEST_F(StoreCompactionRoom, IsNeededOnlyForWhatIsInUse) {
  Store store(path, 3);
  for (unsigned int id = 0; id < 10; ++id) store.set(id, filled(500));
  for (unsigned int id = 0; id < 5; ++id) store.remove(id);
  EXPECT_EQ(linesOfCompaction(store, 5 * kl::test::blobBytes(filled(500))), "");
  EXPECT_EQ(slots(), 5U);
  expectEntries(5);
}

// A slot that the index file still has under its id, though its entry is gone, has its room in vain.
TEST_F(StoreCompactionRoom, ThatWasNotNeededIsGivenBack) {
  Store store(path, 3);
  for (unsigned int id = 0; id < 3; ++id) store.set(id, filled(500));
  Store other(path, 3);
  other.remove(1);
  EXPECT_EQ(linesOfCompaction(store, 10000), "");
  EXPECT_EQ(slots(), 2U);
  EXPECT_EQ(kl::test::readFile(path + ".dat").size(), 2U * kl::test::blobBytes(filled(500)));
  expectEntries(2);
}

// A slot that is left cannot be freed in the index, and neither can it be caught up with.
class StoreLeftSlot : public StoreFaults {
 protected:
  void SetUp() override {
    StoreFaults::SetUp();
    store.emplace(path, 3);
    for (unsigned int id = 0; id < 6; ++id) store->set(id, number(id));
  }

  template <class Body>
  std::string linesWithoutWrite(unsigned int which, Body body) {
    kl::test::ChangingCalls calls;
    calls.failWrite(which, EIO);
    const std::string lines = linesOf(body);
    EXPECT_EQ(calls.failed(), 1U);
    return lines;
  }

  kl::Runner loop;  // so that nothing is compacted by itself
  std::optional<Store> store;
};

TEST_F(StoreLeftSlot, OfARemovedEntryIsNoSlotOfTheCompactedIndex) {
  EXPECT_EQ(linesWithoutWrite(2, [&] { store->remove(0); }), "STORE: writeIndexent write failed\n");
  EXPECT_EQ(linesWithoutWrite(1, [&] { store->compact(false); }), "STORE: entry in file but not in map!!\n");
  store->set(50, number(50));
  Store again(path, 3);
  EXPECT_EQ(again.entries().size(), 6U);
  for (const unsigned int id : {1U, 2U, 3U, 4U, 5U, 50U}) EXPECT_TRUE(again.get(id) == number(id)) << id;
}

TEST_F(StoreLeftSlot, OfAGrownEntryIsNotTakenForTheEntry) {
  EXPECT_EQ(linesWithoutWrite(2, [&] { store->set(0, filled(50)); }), "STORE: writeIndexent write failed\n");
  EXPECT_EQ(linesWithoutWrite(1, [&] { store->compact(false); }), "");
  store->set(50, number(50));
  Store again(path, 3);
  EXPECT_EQ(again.entries().size(), 7U);
  EXPECT_TRUE(again.get(0) == filled(50));
  for (const unsigned int id : {1U, 2U, 3U, 4U, 5U, 50U}) EXPECT_TRUE(again.get(id) == number(id)) << id;
}

// A file system of 64 KiB in memory, seen by this process alone; false where that is not allowed.
bool mountTiny(const std::string& folder) {
  if (::unshare(CLONE_NEWNS) != 0 && ::unshare(CLONE_NEWUSER | CLONE_NEWNS) != 0) return false;
  return ::mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
         ::mount("kl", folder.c_str(), "tmpfs", 0, "size=64k") == 0;
}

TEST_F(StoreFaults, OnATinyFileSystemThatIsFullNothingThatWasStoredIsLost) {
  constexpr int kNotAllowed = 9;
  const auto result = kl::test::runInChild([this] {
    std::filesystem::create_directory(folder + "/tiny");
    if (!mountTiny(folder + "/tiny")) ::_exit(kNotAllowed);
    path = folder + "/tiny/s";
    std::size_t stored = 0;
    {
      Store store(path, 3);
      for (unsigned int id = 0; id < 100; ++id) store.set(id, filled(1000));
      store.remove(3);
      store.set(3, filled(900));
      stored = store.entries().size();
    }
    Store again(path, 3);
    bool isWhole = stored > 30 && stored < 100 && again.entries().size() == stored;
    for (const auto& [id, entry] : again.entries()) isWhole &= again.get(id) == filled(id == 3 ? 900 : 1000);
    ::_exit(isWhole ? 0 : 1);
  });
  if (result.exitStatus == kNotAllowed) GTEST_SKIP() << "no file system may be mounted here";
  EXPECT_EQ(result.exitStatus, 0) << result.out;
  EXPECT_NE(result.out.find("STORE: writeMsg write"), std::string::npos);
  EXPECT_EQ(result.out.find("mismatch"), std::string::npos);
}

TEST_F(StoreFaults, OnATinyFileSystemThatIsNearlyFullACompactionKeepsTheOldFiles) {
  constexpr int kNotAllowed = 9;
  const auto result = kl::test::runInChild([this] {
    std::filesystem::create_directory(folder + "/tiny");
    if (!mountTiny(folder + "/tiny")) ::_exit(kNotAllowed);
    path = folder + "/tiny/s";
    const kl::Runner loop;
    Store store(path, 3);
    for (unsigned int id = 0; id < 40; ++id) store.set(id, filled(1000));
    store.remove(3);
    store.compact(false);
    bool isWhole = store.entries().size() == 39 && Store(path, 3).entries().size() == 39;
    for (const auto& [id, entry] : store.entries()) isWhole &= store.get(id) == filled(1000);
    ::_exit(isWhole ? 0 : 1);
  });
  if (result.exitStatus == kNotAllowed) GTEST_SKIP() << "no file system may be mounted here";
  EXPECT_EQ(result.exitStatus, 0) << result.out;
  EXPECT_EQ(result.out, "STORE: openIdx failed\nSTORE: compact: could not open new data file\n");
}

}  // namespace

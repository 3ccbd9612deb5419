#include "store/change.h"

#include <cerrno>
#include <filesystem>

#include "kl/runner.h"
#include "tests/lib/store/store_files.h"
#include "tests/support/calls/changing_calls.h"
#include "tests/support/hex.h"
#include "tests/support/process/child.h"

namespace {

using kl::Store;
using kl::test::ChangingCalls;
using kl::test::FileCall;
using kl::test::filled;
using kl::test::linesOf;
using kl::test::number;

// The effect of a change on the files, with the timers of a Runner so that nothing is synced at once.
class StoreChange : public kl::test::StoreFiles {
 protected:
  void SetUp() override {
    linesOf([this] { Store(path, 3); });
    Store(path, 3).set(1, number(1));
  }

  // The changing calls in their order: "write", "truncate" and "sync" with the file's suffix.
  template <class Body>
  std::string callsOf(Body body) {
    std::string log;
    ChangingCalls calls;
    calls.watch([&](const FileCall& call) {
      if (call.kind == FileCall::kWrite) log += "write" + suffixOf(call.inode) + " ";
      if (call.kind == FileCall::kTruncate) log += "truncate" + suffixOf(call.inode) + " ";
      if (call.kind == FileCall::kSync) log += "sync" + suffixOf(call.inode) + " ";
    });
    body();
    return log;
  }

  kl::Runner loop;
};

TEST_F(StoreChange, IsNotedBeforeItsWritesAndWithdrawnBehindThem) {
  Store store(path, 3);
  EXPECT_EQ(callsOf([&] { store.set(2, number(2)); }), "write.lock write.idx write.dat truncate.lock ");
  EXPECT_EQ(callsOf([&] { store.set(2, number(3)); }), "write.lock write.dat truncate.lock ");
  EXPECT_EQ(callsOf([&] { store.set(2, filled(50)); }),
            "write.lock write.idx write.idx write.dat truncate.lock ");
  EXPECT_EQ(callsOf([&] { store.touch(2, 3); }), "write.lock write.idx truncate.lock ");
  EXPECT_EQ(callsOf([&] { store.remove(2); }), "write.lock write.idx truncate.lock ");
}

TEST_F(StoreChange, ABurstCostsTwoSyncs) {
  Store store(path, 3);
  EXPECT_EQ(callsOf([&] {
              store.set(2, number(2));
              store.set(3, number(2));
              store.doFlush();
            }),
            "write.lock write.idx write.dat truncate.lock write.lock write.idx write.dat truncate.lock "
            "sync.idx sync.dat ");
}

TEST_F(StoreChange, WithDurableLengthsABurstCostsFour) {
  Store store(path, 3, Store::Durability::kPowerLoss);
  EXPECT_EQ(callsOf([&] {
              store.set(2, number(2));
              store.set(3, number(2));
              store.doFlush();
            }),
            "write.lock sync.lock write.lock write.idx write.dat truncate.lock "
            "write.lock write.idx write.dat truncate.lock "
            "sync.idx sync.dat truncate.lock sync.lock ");
  EXPECT_TRUE(lockBytes().empty());
}

TEST_F(StoreChange, WithDurableLengthsTheNamesOfNewFilesAreDurableToo) {
  const auto folderSyncs = [this](Store::Durability durability) {
    struct stat file;
    EXPECT_EQ(::stat(folder.c_str(), &file), 0);
    unsigned int syncs = 0;
    ChangingCalls calls;
    calls.watch([&](const FileCall& call) {
      syncs += call.kind == FileCall::kSync && call.inode == file.st_ino ? 1 : 0;
    });
    linesOf([&] { Store(folder + "/new", 3, durability).restart(); });
    std::filesystem::remove(folder + "/new.idx");
    return syncs;
  };
  EXPECT_EQ(folderSyncs(Store::Durability::kFlushed), 0U);
  EXPECT_EQ(folderSyncs(Store::Durability::kPowerLoss), 2U);  // when it is made, and when it is emptied
}

TEST_F(StoreChange, DurableLengthsStayUntilTheFlush) {
  Store store(path, 3, Store::Durability::kPowerLoss);
  store.set(2, number(2));
  EXPECT_EQ(lockBytes().size(), 44U);
  store.doFlush();
  EXPECT_TRUE(lockBytes().empty());
}

TEST_F(StoreChange, ASlotThatIsCaughtUpWithBeginsWithDurableLengths) {
  Store store(path, 3, Store::Durability::kPowerLoss);
  {
    ChangingCalls calls;
    calls.failEveryWrite(1, ENOSPC);
    linesOf([&] { store.set(2, number(2)); });
  }
  store.doFlush();
  store.touch(1, 9);
  EXPECT_EQ(lockBytes().size(), 44U);
}

// No lengths but those of synced files are ever noted as durable.
TEST_F(StoreChange, WithDurableLengthsAStoreThatIsOpenedIsSynced) {
  EXPECT_EQ(callsOf([&] { Store(path, 3, Store::Durability::kPowerLoss); }), "sync.idx sync.dat ");
  EXPECT_EQ(callsOf([&] { Store(path, 3); }), "");
}

TEST_F(StoreChange, DurableLengthsThatHadNoRoomAreMadeAnewBeforeTheNextSlot) {
  Store store(path, 3, Store::Durability::kPowerLoss);
  {
    ChangingCalls calls;
    calls.failWrite(1, ENOSPC);
    store.set(2, number(2));
  }
  EXPECT_EQ(callsOf([&] { store.set(3, number(2)); }),
            "sync.idx sync.dat write.lock sync.lock write.lock write.idx write.dat truncate.lock ");
}

TEST_F(StoreChange, ASlotThatCannotBeNotedHasItsPlaceMarked) {
  Store store(path, 3);
  ChangingCalls calls;
  std::vector<unsigned long long> lengths;
  calls.watch([&](const FileCall& call) {
    if (call.kind == FileCall::kTruncate) lengths.push_back(call.place);
  });
  calls.failWrite(1, ENOSPC);
  store.set(2, number(2));
  EXPECT_EQ(lengths, (std::vector<unsigned long long>{0, 2, 0}));  // one slot was there
  EXPECT_EQ(Store(path, 3).entries().size(), 2U);
}

TEST_F(StoreChange, WhatCannotBeNotedIsWrittenNevertheless) {
  Store store(path, 3);
  ChangingCalls calls;
  calls.failEveryWrite(4, ENOSPC);
  EXPECT_EQ(linesOf([&] {
              store.set(2, number(2));  // three writes
              store.set(3, number(3));  // its note fails
            }),
            "");
  EXPECT_EQ(Store(path, 3).entries().size(), 3U);
  EXPECT_TRUE(lockBytes().empty());
}

// Its slot of the index was written, and there is no room for the rest when it is finished.
TEST_F(StoreChange, AnAppendThatCannotBeFinishedIsTakenBack) {
  const auto killed = kl::test::runInChild([this] {
    Store store(path, 3);
    ChangingCalls calls;
    calls.endAt(4, kl::test::When::kBefore);  // the lock file, the note, the index, the data
    store.set(2, number(2));
  });
  ASSERT_EQ(killed.exitStatus, ChangingCalls::kEndStatus);
  ASSERT_EQ(kl::test::readFile(path + ".idx").size(), 24U);
  {
    ChangingCalls calls;
    calls.fillDiskAt(1);
    EXPECT_EQ(linesOf([&] { EXPECT_TRUE(Store(path, 3).get(1) == number(1)); }), "");
    EXPECT_EQ(calls.failed(), 1U);
  }
  EXPECT_EQ(kl::test::readFile(path + ".idx").size(), 12U);
  EXPECT_EQ(kl::test::readFile(path + ".dat").size(), 9U);
  EXPECT_TRUE(lockBytes().empty());
}

TEST_F(StoreChange, WithoutTheLockEachBracketReportsAndTheFilesChangeAllTheSame) {
  Store store(path, 3);
  std::filesystem::remove(path + ".lock");
  std::filesystem::create_directory(path + ".lock");
  const std::string before = "STORE: lock open failed\nSTORE: lock fnctl failed\n";
  const std::string behind = "STORE: unlock fnctl failed\n";
  EXPECT_EQ(linesOf([&] { store.set(2, number(2)); }), before + behind + before + behind);
  EXPECT_EQ(linesOf([&] { store.set(2, number(3)); }), before + behind);
  EXPECT_EQ(linesOf([&] { store.remove(2); }), before + behind);
  EXPECT_EQ(kl::test::readFile(path + ".idx").size(), 24U);
}

}  // namespace

#include "store/journal/journal.h"

#include <fcntl.h>

#include <cerrno>
#include <filesystem>

#include "base/descriptor.h"
#include "kl/runner.h"
#include "kl/store.h"
#include "store/journal/journal_entries.h"
#include "tests/lib/store/store_files.h"
#include "tests/support/calls/changing_calls.h"
#include "tests/support/hex.h"
#include "tests/support/process/child.h"

namespace {

using kl::Descriptor;
using kl::FileIds;
using kl::Store;
using kl::test::bytes;
using kl::test::exists;
using kl::test::hex;
using kl::test::linesOf;
using kl::test::number;

// One entry, id 1, and what is left in the lock file by somebody else.
class StoreRecovery : public kl::test::StoreFiles {
 protected:
  void SetUp() override {
    writeIdx("01000000 09000000 03000000");
    writeDat("0900 4d32 05000009 01");
  }

  FileIds ids() const { return {inodeOf(".idx"), inodeOf(".dat")}; }

  unsigned long long inodeOf(const char* suffix) const {
    const Descriptor file((path + suffix).c_str(), O_RDONLY);
    return kl::inodeOf(file.fd());
  }

  template <class Entry>
  void leave(const Entry& entry) const {
    kl::test::writeFile(path + ".lock", {entry.begin(), entry.end()});
  }

  // An intent that appends id 2 in a slot of its own.
  void leaveAppend(const FileIds& files) const {
    kl::Intent intent(files);
    intent.setLengthsBefore({12, 9});
    intent.willWriteSlot(1, {2, 9, 3});
    const auto blob = bytes("0900 4d32 05000009 02");
    intent.willWriteBlob(9, {blob.data(), blob.size()});
    const Descriptor lock((path + ".lock").c_str(), O_RDWR | O_CREAT | O_TRUNC);
    EXPECT_TRUE(intent.write(lock.fd(), 0));
  }

  // The ids of the store when it is opened now, without a line.
  std::vector<unsigned int> idsAfterOpening() {
    std::vector<unsigned int> found;
    EXPECT_EQ(linesOf([&] {
                const Store store(path, 3);
                for (const auto& [id, entry] : store.entries()) found.push_back(id);
              }),
              "");
    EXPECT_TRUE(lockBytes().empty());
    return found;
  }

  using Ids = std::vector<unsigned int>;
};

TEST_F(StoreRecovery, AWholeIntentIsCarriedOutByTheOpener) {
  leaveAppend(ids());
  EXPECT_EQ(idsAfterOpening(), (Ids{1, 2}));
  EXPECT_EQ(dat(), hex(bytes("0900 4d32 05000009 01  0900 4d32 05000009 02")));
}

TEST_F(StoreRecovery, AWholeIntentIsCarriedOutByWhoeverTakesTheLock) {
  Store store(path, 3);
  leaveAppend(ids());
  store.touch(1, 8);
  EXPECT_EQ(idx(), hex(bytes("01000000 09000000 08000000  02000000 09000000 03000000")));
  EXPECT_TRUE(lockBytes().empty());
}

TEST_F(StoreRecovery, EveryPartialIntentIsDropped) {
  leaveAppend(ids());
  const auto intent = lockBytes();
  for (std::size_t size = 1; size < intent.size(); ++size) {
    leave(kl::test::Bytes(intent.begin(), intent.begin() + static_cast<long>(size)));
    ASSERT_EQ(idsAfterOpening(), Ids{1}) << size;
  }
}

TEST_F(StoreRecovery, AnIntentForFilesThatAreGoneIsDropped) {
  leaveAppend({1, 2});
  EXPECT_EQ(idsAfterOpening(), Ids{1});
}

TEST_F(StoreRecovery, AnIntentThatHasNoRoomIsTakenBack) {
  leaveAppend(ids());
  kl::test::writeFile(path + ".idx", bytes("01000000 09000000 03000000  02000000"));
  {
    kl::test::ChangingCalls calls;
    calls.failEveryWrite(2, ENOSPC);
    EXPECT_EQ(idsAfterOpening(), Ids{1});
    EXPECT_EQ(calls.failed(), 1U);
  }
  EXPECT_EQ(idx(), hex(bytes("01000000 09000000 03000000")));
}

// A set into a free slot was killed, and the disk takes the blob no more: the slot is free again, as it was.
TEST_F(StoreRecovery, AnIntentIntoAFreeSlotIsTakenBackWhole) {
  const std::string before = "01000000 09000000 03000000  ffffffff 09000000 04000000";
  writeIdx(before);
  writeDat("0900 4d32 05000009 01  0900 4d32 05000009 07");
  leave(std::string());
  const auto writer = kl::test::runInChild([this] {
    kl::Runner loop;
    Store store(path, 3);
    kl::test::ChangingCalls calls;
    calls.endAt(2, kl::test::When::kAfter);  // the lock file was opened, the intent is written
    store.set(2, number(2));
  });
  ASSERT_EQ(writer.exitStatus, kl::test::ChangingCalls::kEndStatus);
  ASSERT_FALSE(lockBytes().empty());
  {
    kl::test::ChangingCalls calls;
    calls.failWrite(2, EIO);  // the index took its step, the data file does not
    EXPECT_EQ(idsAfterOpening(), Ids{1});
    EXPECT_EQ(calls.failed(), 1U);
  }
  EXPECT_EQ(idx(), hex(bytes(before)));
}

TEST_F(StoreRecovery, GarbageInTheLockFileIsDropped) {
  leave(std::string("somebody's notes, longer than the header of an entry"));
  EXPECT_EQ(idsAfterOpening(), Ids{1});
}

TEST_F(StoreRecovery, ACommitIsFinishedFromWhereverItStopped) {
  for (const char* missing : {"", ".dat", ".idx", ".dat.idx"}) {
    writeIdx("01000000 09000000 03000000  ffffffff 01000000 00000000");
    writeDat("0900 4d32 05000009 01 00");
    kl::test::writeFile(path + ".idx.new", bytes("01000000 09000000 03000000"));
    kl::test::writeFile(path + ".dat.new", bytes("0900 4d32 05000009 01"));
    leave(kl::encodeCommit({inodeOf(".idx.new"), inodeOf(".dat.new")}));
    for (const char* suffix : {".dat", ".idx"})
      if (std::string(missing).find(suffix) != std::string::npos)
        std::filesystem::rename(path + suffix + ".new", path + suffix);
    EXPECT_EQ(idsAfterOpening(), Ids{1}) << missing;
    EXPECT_EQ(idx(), hex(bytes("01000000 09000000 03000000"))) << missing;
    EXPECT_FALSE(exists(path + ".dat.new"));
  }
}

// The change of a writer whose disk was full: there was one slot before it.
TEST_F(StoreRecovery, BehindAMarkedEndOnlyAWholeSlotStays) {
  const auto idsBehind = [this](std::string_view slots, std::string_view blobs) {
    writeIdx("01000000 09000000 03000000 " + std::string(slots));
    writeDat("0900 4d32 05000009 01 " + std::string(blobs));
    leave(kl::test::Bytes(2));
    return idsAfterOpening();
  };
  EXPECT_EQ(idsBehind("", "0900 4d32"), Ids{1});
  EXPECT_EQ(dat(), hex(bytes("0900 4d32 05000009 01")));
  EXPECT_EQ(idsBehind("02000000 09000000 03000000", ""), Ids{1});
  EXPECT_EQ(idx(), hex(bytes("01000000 09000000 03000000")));
  EXPECT_EQ(idsBehind("02000000 09000000 03000000", "0900 4d32 05000009 02"), (Ids{1, 2}));
  EXPECT_EQ(idsBehind("01000000 09000000 03000000", "0900 4d32 05000009 02"), Ids{1});
  EXPECT_EQ(dat(), hex(bytes("0900 4d32 05000009 01")));
}

TEST_F(StoreRecovery, ANewIndexThatIsLeftAloneBelongsToTheDataFile) {
  kl::test::writeFile(path + ".idx.new", bytes("01000000 09000000 03000000"));
  writeIdx("ffffffff 05000000 00000000  01000000 09000000 03000000");
  EXPECT_EQ(idsAfterOpening(), Ids{1});
  EXPECT_EQ(idx(), hex(bytes("01000000 09000000 03000000")));
  EXPECT_FALSE(exists(path + ".idx.new"));
}

TEST_F(StoreRecovery, ANewIndexThatDoesNotFitTheDataFileIsRemoved) {
  kl::test::writeFile(path + ".idx.new", bytes("01000000 07000000 03000000"));
  EXPECT_EQ(idsAfterOpening(), Ids{1});
  EXPECT_FALSE(exists(path + ".idx.new"));
}

TEST_F(StoreRecovery, NewFilesWithoutACommitAreRemoved) {
  kl::test::writeFile(path + ".idx.new", {});
  kl::test::writeFile(path + ".dat.new", {});
  EXPECT_EQ(idsAfterOpening(), Ids{1});
  EXPECT_FALSE(exists(path + ".idx.new"));
  EXPECT_FALSE(exists(path + ".dat.new"));
}

TEST_F(StoreRecovery, FilesThatDisagreeAreCutBackToTheirDurableLengths) {
  leave(kl::encodeDurable(ids(), {12, 9}));
  kl::test::writeFile(path + ".dat", bytes("0900 4d32 05000009 01  0900"));
  EXPECT_EQ(idsAfterOpening(), Ids{1});
  EXPECT_EQ(dat(), hex(bytes("0900 4d32 05000009 01")));
}

TEST_F(StoreRecovery, FilesThatAgreeKeepWhatIsBehindTheirDurableLengths) {
  leave(kl::encodeDurable(ids(), {0, 0}));
  EXPECT_EQ(idsAfterOpening(), Ids{1});
}

TEST_F(StoreRecovery, FilesThatDisagreeBesideAnEmptyLockFileAreEmptied) {
  kl::test::writeFile(path + ".lock", {});
  writeDat("0900");
  EXPECT_EQ(linesOf([this] { Store(path, 3); }), "STORE: readIndex size mismatch\n");
  EXPECT_EQ(idx() + dat(), "");
}

// The data file cannot be renamed, so neither is the index, which could be.
TEST_F(StoreRecovery, ACommitWhoseDataFileStaysWhereItIsLeavesTheOldFiles) {
  kl::test::writeFile(path + ".idx.new", bytes("01000000 09000000 03000000"));
  kl::test::writeFile(path + ".dat.new", bytes("0900 4d32 05000009 02"));
  writeIdx("ffffffff 05000000 00000000  01000000 09000000 03000000");
  leave(kl::encodeCommit({inodeOf(".idx.new"), inodeOf(".dat.new")}));
  std::filesystem::rename(path + ".dat", path + ".away");
  std::filesystem::create_directory(path + ".dat");
  kl::Journal journal(path, false);
  {
    const kl::QuietLockGuard guard(journal.lock());
    journal.recover(guard);
  }
  EXPECT_EQ(idx(), hex(bytes("ffffffff 05000000 00000000  01000000 09000000 03000000")));
  EXPECT_TRUE(lockBytes().empty());
}

}  // namespace

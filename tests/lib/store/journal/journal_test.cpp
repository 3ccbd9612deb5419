#include "store/journal/journal.h"

#include <sys/stat.h>

#include <filesystem>
#include <optional>

#include "base/file_io.h"
#include "tests/lib/store/store_files.h"
#include "tests/support/hex.h"

namespace {

using kl::Journal;
using kl::test::bytes;
using kl::test::hex;

// One slot of 9 bytes, and the lock in our hands.
class StoreJournal : public kl::test::StoreFiles {
 protected:
  void SetUp() override {
    writeIdx("01000000 09000000 03000000");
    writeDat("0900 4d32 05000009 01");
    files.emplace(path);
    ASSERT_TRUE(files->openIdx() && files->openData());
  }

  void hold(bool survivesPowerLoss) {
    journal.emplace(path, survivesPowerLoss);
    held.emplace(journal->lock());
    journal->recover(*held);
  }
  void release() { held.reset(); }

  void noteFreeing() {
    kl::Intent intent(files->ids());
    intent.willWriteSlot(0, {kl::kFreeId, 9, 3});
    EXPECT_TRUE(journal->note(intent));
  }

  std::optional<kl::StoreFiles> files;
  std::optional<Journal> journal;
  std::optional<kl::QuietLockGuard> held;
};

TEST_F(StoreJournal, ANoteIsThereUntilItIsWithdrawn) {
  hold(false);
  noteFreeing();
  EXPECT_EQ(lockBytes().size(), 72U);
  journal->withdraw();
  EXPECT_TRUE(lockBytes().empty());
}

TEST_F(StoreJournal, OnlyWhoTookTheLockRecovers) {
  hold(false);
  noteFreeing();
  {
    const kl::ReportingLockGuard inner(journal->lock());
    journal->recover(inner);
    EXPECT_FALSE(inner.isOutermost());
  }
  EXPECT_EQ(lockBytes().size(), 72U);
  EXPECT_EQ(idx(), hex(bytes("01000000 09000000 03000000")));
  release();
  hold(false);
  EXPECT_TRUE(lockBytes().empty());
  EXPECT_EQ(idx(), hex(bytes("ffffffff 09000000 03000000")));
}

TEST_F(StoreJournal, AMarkedEndIsALengthAndNothingElse) {
  hold(false);
  journal->markEnd({12, 9});
  EXPECT_EQ(hex(lockBytes()), hex(bytes("0000")));
}

TEST_F(StoreJournal, DurableLengthsStandInFrontOfANoteAndOutliveIt) {
  hold(true);
  journal->noteLengths(*files, {12, 9});
  EXPECT_EQ(lockBytes().size(), kl::kDurableBytes);
  noteFreeing();
  EXPECT_EQ(lockBytes().size(), kl::kDurableBytes + 72);
  journal->withdraw();
  EXPECT_EQ(lockBytes().size(), kl::kDurableBytes);
  journal->dropLengths();
  EXPECT_TRUE(lockBytes().empty());
}

TEST_F(StoreJournal, WithoutThePromiseNoLengthsAreNoted) {
  hold(false);
  journal->noteLengths(*files, {12, 9});
  EXPECT_TRUE(lockBytes().empty());
}

class StoreJournalNewFiles : public StoreJournal {
 protected:
  void SetUp() override {
    StoreJournal::SetUp();
    kl::test::writeFile(path + ".idx.new", bytes("02000000 09000000 03000000"));
    kl::test::writeFile(path + ".dat.new", bytes("0900 4d32 05000009 02"));
    fresh = {kl::inodeOfPath(path + ".idx.new"), kl::inodeOfPath(path + ".dat.new")};
  }

  kl::FileIds fresh;
};

TEST_F(StoreJournalNewFiles, ReplaceTheOldOnes) {
  hold(false);
  EXPECT_EQ(journal->replaceFiles(fresh), Journal::Replaced::kBoth);
  EXPECT_EQ(idx(), hex(bytes("02000000 09000000 03000000")));
  EXPECT_EQ(dat(), hex(bytes("0900 4d32 05000009 02")));
  EXPECT_TRUE(lockBytes().empty());
}

TEST_F(StoreJournalNewFiles, StayBesideADataFileThatCannotBeReplacedAndSoDoDurableLengths) {
  hold(true);
  journal->noteLengths(*files, {12, 9});
  std::filesystem::remove(path + ".dat");
  std::filesystem::create_directory(path + ".dat");
  EXPECT_EQ(journal->replaceFiles(fresh), Journal::Replaced::kNone);
  EXPECT_EQ(idx(), hex(bytes("01000000 09000000 03000000")));
  EXPECT_EQ(lockBytes().size(), kl::kDurableBytes);
}

TEST_F(StoreJournalNewFiles, ThatLeaveTheIndexBehindSaySo) {
  hold(false);
  std::filesystem::remove(path + ".idx");
  std::filesystem::create_directory(path + ".idx");
  EXPECT_EQ(journal->replaceFiles(fresh), Journal::Replaced::kInPart);
  EXPECT_TRUE(lockBytes().empty());
}

}  // namespace

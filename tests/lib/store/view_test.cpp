#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <new>
#include <optional>

#include "kl/store.h"
#include "store/journal/journal.h"
#include "tests/lib/store/store_files.h"
#include "tests/support/hex.h"
#include "tests/support/process/child_process.h"

namespace {

using kl::StoreView;
using kl::test::filled;
using kl::test::linesOf;
using kl::test::number;
using Fault = StoreView::Fault;

class StoreViewTest : public kl::test::StoreFiles {
 protected:
  // Entries 17 and 9 and a free slot, as docs/store.md has them.
  void writeExample() const {
    writeIdx("ffffffff 09000000 05000000  09000000 0c000000 03000000  11000000 0c000000 05000000");
    writeDat("0900 4d320500000907  0c00 4d320500000804030201  0900 4d320500000906 070605");
  }

  std::vector<Fault> faults() const {
    const StoreView view(path);
    std::vector<Fault> result;
    for (const StoreView::Finding& finding : view.findings()) result.push_back(finding.fault);
    return result;
  }

  std::string numberOf(const StoreView& view, unsigned int id) const {
    const StoreView::Entry* entry = view.find(id);
    return entry == nullptr ? "none" : std::to_string(view.get(*entry).get_u32(0x08000005, 0));
  }
};

TEST_F(StoreViewTest, ItShowsEntriesAndFreeSlots) {
  writeExample();
  const StoreView view(path);
  EXPECT_TRUE(view.findings().empty());
  EXPECT_FALSE(view.isBigEndian());
  EXPECT_EQ(view.dataBytes(), 33U);
  ASSERT_EQ(view.entries().size(), 2U);
  const StoreView::Entry& entry = view.entries()[1];
  EXPECT_EQ(entry.id, 17U);
  EXPECT_EQ(entry.offset, 21U);
  EXPECT_EQ(entry.size, 12U);
  EXPECT_EQ(entry.slot, 2U);
  EXPECT_EQ(entry.lifetime, 5U);
  EXPECT_EQ(numberOf(view, 17), "6");
  EXPECT_EQ(numberOf(view, 9), std::to_string(0x01020304));
  EXPECT_EQ(numberOf(view, 3), "none");
  ASSERT_EQ(view.freeSlots().size(), 1U);
  EXPECT_EQ(view.freeSlots()[0].offset, 0U);
  EXPECT_EQ(view.freeSlots()[0].size, 9U);
}

TEST_F(StoreViewTest, ItReadsTheOlderLayoutAndLeavesItAlone) {
  writeIdx("00000011 00000009 00000005");
  writeDat("0009 4d320500000907");
  const StoreView view(path);
  EXPECT_TRUE(view.findings().empty());
  EXPECT_TRUE(view.isBigEndian());
  EXPECT_EQ(numberOf(view, 17), "7");
  EXPECT_EQ(idx(), kl::test::hex(kl::test::bytes("00000011 00000009 00000005")));
  EXPECT_FALSE(kl::test::exists(path + ".lock"));
}

TEST_F(StoreViewTest, ItShowsWhatAStoreHasWritten) {
  kl::Store store(path, 3);
  store.set(1, number(10));
  store.set(2, filled(300));
  store.set(1, filled(20));
  const StoreView view(path);
  EXPECT_TRUE(view.findings().empty());
  EXPECT_EQ(view.entries().size(), 2U);
  EXPECT_TRUE(view.get(*view.find(2)) == filled(300));
  EXPECT_TRUE(view.get(*view.find(1)) == filled(20));
}

TEST_F(StoreViewTest, AnEmptyStoreHasNothingWrong) {
  writeIdx("");
  writeDat("");
  EXPECT_EQ(faults(), std::vector<Fault>{});
}

TEST_F(StoreViewTest, FilesThatAreMissingAreNamed) {
  EXPECT_EQ(faults(), (std::vector<Fault>{Fault::kNoIndex, Fault::kNoData}));
  writeDat("");
  EXPECT_EQ(faults(), (std::vector<Fault>{Fault::kNoIndex}));
  EXPECT_FALSE(kl::test::exists(path + ".idx"));
  writeExample();
  ASSERT_EQ(::unlink((path + ".idx").c_str()), 0);
  EXPECT_EQ(faults(), (std::vector<Fault>{Fault::kNoIndex}));
  writeExample();
  ASSERT_EQ(::unlink((path + ".dat").c_str()), 0);
  EXPECT_EQ(faults(), (std::vector<Fault>{Fault::kNoData}));
}

TEST_F(StoreViewTest, PipesAreNoFilesAndAreNotWaitedFor) {
  for (const char* suffix : {".idx", ".dat", ".lock"}) ASSERT_EQ(::mkfifo((path + suffix).c_str(), 0600), 0);
  EXPECT_EQ(faults(), (std::vector<Fault>{Fault::kNoIndex, Fault::kNoData}));
}

TEST_F(StoreViewTest, EveryTruncatedIndexIsAFault) {
  writeExample();
  const kl::test::Bytes whole = kl::test::readFile(path + ".idx");
  for (std::size_t length = 0; length < whole.size(); ++length) {
    kl::test::writeFile(path + ".idx", {whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(length)});
    const std::vector<Fault> found = faults();
    ASSERT_FALSE(found.empty()) << length;
    EXPECT_EQ(found.front(), Fault::kSizeMismatch) << length;
    EXPECT_EQ(std::count(found.begin(), found.end(), Fault::kPartialSlot), length % 12 == 0 ? 0 : 1)
        << length;
  }
}

TEST_F(StoreViewTest, EveryTruncatedDataFileIsAFault) {
  writeExample();
  const kl::test::Bytes whole = kl::test::readFile(path + ".dat");
  for (std::size_t length = 0; length < whole.size(); ++length) {
    kl::test::writeFile(path + ".dat", {whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(length)});
    const std::vector<Fault> found = faults();
    ASSERT_FALSE(found.empty()) << length;
    EXPECT_EQ(found.front(), Fault::kSizeMismatch) << length;
    EXPECT_EQ(std::count(found.begin(), found.end(), Fault::kCutOff), length < 21   ? 2
                                                                      : length < 30 ? 1
                                                                                    : 0)
        << length;
  }
}

TEST_F(StoreViewTest, ABlobThatDoesNotFitItsSlotIsAFault) {
  writeIdx("11000000 09000000 05000000  09000000 09000000 05000000");
  writeDat("0a00 4d320500000907  0100 4d320500000907");
  const StoreView view(path);
  ASSERT_EQ(view.findings().size(), 2U);
  EXPECT_EQ(view.findings()[0].fault, Fault::kBadLength);
  EXPECT_EQ(view.findings()[0].id, 17U);
  EXPECT_EQ(view.findings()[1].fault, Fault::kBadLength);
  EXPECT_EQ(view.findings()[1].slot, 1U);
  EXPECT_TRUE(view.get(view.entries()[0]) == kl::message());
}

TEST_F(StoreViewTest, ABlobThatIsNoMessageIsAFaultAndWhatCanBeReadIsShown) {
  writeIdx("11000000 0d000000 05000000");
  writeDat("0d00 4d320500000907 ffffffff");
  const StoreView view(path);
  ASSERT_EQ(view.findings().size(), 1U);
  EXPECT_EQ(view.findings()[0].fault, Fault::kBadMessage);
  EXPECT_EQ(numberOf(view, 17), "7");
}

TEST_F(StoreViewTest, OfTwoSlotsWithOneIdTheFirstCounts) {
  writeIdx("11000000 09000000 05000000  11000000 09000000 04000000");
  writeDat("0900 4d320500000907  0900 4d320500000908");
  const StoreView view(path);
  ASSERT_EQ(view.findings().size(), 1U);
  EXPECT_EQ(view.findings()[0].fault, Fault::kRepeatedId);
  EXPECT_EQ(view.findings()[0].slot, 1U);
  EXPECT_EQ(view.entries().size(), 1U);
  EXPECT_EQ(numberOf(view, 17), "7");
}

TEST_F(StoreViewTest, WhatALockFileHoldsIsAPendingChange) {
  writeExample();
  const auto writeLock = [this](const char* digits) {
    kl::test::writeFile(path + ".lock", kl::test::bytes(digits));
  };
  writeLock("");
  EXPECT_EQ(faults(), std::vector<Fault>{});
  writeLock("4b4c494e 0c000000 00000000");
  EXPECT_EQ(faults(), std::vector<Fault>{Fault::kPendingChange});
}

TEST_F(StoreViewTest, LengthsInALockFileAreNoPendingChange) {
  writeExample();
  const std::string lengths = "4b4c4455 0e000000 00000000 0000";
  kl::test::writeFile(path + ".lock", kl::test::bytes(lengths));
  EXPECT_EQ(faults(), std::vector<Fault>{});
  kl::test::writeFile(path + ".lock", kl::test::bytes(lengths + " 4b"));
  EXPECT_EQ(faults(), std::vector<Fault>{Fault::kPendingChange});
}

TEST_F(StoreViewTest, ItKeepsWhatItHasRead) {
  writeExample();
  const StoreView view(path);
  kl::Store store(path, 3);
  store.remove(17);
  store.set(5, number(99));  // into the slot of 17
  EXPECT_EQ(numberOf(view, 17), "6");
  EXPECT_EQ(view.find(5), nullptr);
  EXPECT_TRUE(view.get({5, 0, 9, 0, 3}) == kl::message());  // no entry of this view
}

// A writer that sets entry 5 in a slot of its own: it has written the index, and the data file comes later or never.
class StoreViewBesideAChange : public StoreViewTest {
 protected:
  void SetUp() override {
    writeExample();
    kl::test::writeFile(path + ".lock", {});
  }

  template <class Body>
  void startWriter(Body meanwhile) {
    kl::test::Pipe begun;
    writer.emplace([&] {
      change([&] {
        begun.say('!');
        meanwhile();
      });
    });
    ASSERT_TRUE(begun.hear<char>());
  }

  template <class Body>
  void change(Body meanwhile) {
    kl::Journal journal(path, false);
    const kl::QuietLockGuard guard(journal.lock());
    kl::StoreFiles files(path);
    if (!files.openIdx() || !files.openData()) return;
    const kl::test::Bytes blob = kl::test::bytes("0900 4d320500000963");
    kl::Intent intent(files.ids());
    intent.setLengthsBefore({36, 33});
    intent.willWriteSlot(3, {5, 9, 3});
    intent.willWriteBlob(33, {blob.data(), blob.size()});
    (void)journal.note(intent);
    (void)files.tryWriteSlot(3, {5, 9, 3});
    meanwhile();
    (void)files.tryWriteBlob(33, {blob.data(), blob.size()});
    journal.withdraw();
  }

  std::optional<kl::test::ChildProcess> writer;
};

TEST_F(StoreViewBesideAChange, AWriterInMidChangeIsWaitedFor) {
  startWriter([] { ::usleep(100000); });
  const StoreView view(path);
  EXPECT_TRUE(view.findings().empty());
  EXPECT_EQ(numberOf(view, 5), "99");
}

TEST_F(StoreViewBesideAChange, AWriterThatIsStoppedInMidChangeIsNoFault) {
  startWriter([] { ::pause(); });
  const StoreView view(path);
  EXPECT_TRUE(view.findings().empty());
  EXPECT_EQ(numberOf(view, 17), "6");
  EXPECT_EQ(writer->end(SIGKILL), 128 + SIGKILL);
  const std::vector<Fault> found = faults();
  EXPECT_EQ(std::count(found.begin(), found.end(), Fault::kPendingChange), 1);
}

TEST_F(StoreViewBesideAChange, AMissingFileIsAFaultAllTheSame) {
  startWriter([] { ::pause(); });
  ASSERT_EQ(::unlink((path + ".dat").c_str()), 0);
  EXPECT_EQ(faults(), std::vector<Fault>{Fault::kNoData});
}

constexpr unsigned int kBusyIds = 20;

kl::message markedWith(unsigned int id, unsigned int bytes) {
  kl::message m = filled(bytes);
  m.insert_u32(0x08000001, id);
  return m;
}

// Whether nothing is wrong, and each message is one of its entry.
bool isRight(const std::string& path) {
  const StoreView view(path);
  return view.findings().empty() &&
         std::all_of(view.entries().begin(), view.entries().end(), [&](const StoreView::Entry& entry) {
           return view.get(entry).get_u32(0x08000001, kBusyIds) == entry.id;
         });
}

// Changes, removes, uses slots again and compacts without a pause, and counts that.
[[noreturn]] void changeAllTheTime(const std::string& path, std::atomic<unsigned int>& changes) {
  kl::Store store(path, 3);
  for (unsigned int i = 0;; ++i) {
    store.set(i % kBusyIds, markedWith(i % kBusyIds, 10 + i % 97));
    store.remove(i * 7 % kBusyIds);
    ++changes;
  }
}

TEST_F(StoreViewTest, AWriterBesideItIsNoFault) {
  constexpr unsigned int kChanges = 2000;
  linesOf([this] { kl::Store(path, 3).set(0, markedWith(0, 10)); });
  void* const shared = ::mmap(nullptr, sizeof(std::atomic<unsigned int>), PROT_READ | PROT_WRITE,
                              MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  ASSERT_NE(shared, MAP_FAILED);
  auto& changes = *new (shared) std::atomic<unsigned int>(0);
  kl::test::ChildProcess writer([&] { changeAllTheTime(path, changes); });
  unsigned int views = 0;
  for (; views < 200 || changes < kChanges; ++views) ASSERT_TRUE(isRight(path)) << "view " << views;
  EXPECT_EQ(writer.end(SIGKILL), 128 + SIGKILL);
  ::munmap(shared, sizeof(std::atomic<unsigned int>));
}

}  // namespace

// A writer that is killed at each of its changing calls in turn: every entry except the one in flight has its last
// value, the one in flight its old or its new one.

#include <cerrno>

#include "tests/lib/store/killed_writer.h"
#include "tests/support/build/effort.h"
#include "tests/support/process/child.h"

namespace {

using kl::Store;
using kl::test::ageing;
using kl::test::ChangingCalls;
using kl::test::compaction;
using kl::test::filled;
using kl::test::kFirstStride;
using kl::test::kLifetime;
using kl::test::kStride;
using kl::test::removal;
using kl::test::setting;
using kl::test::State;
using kl::test::Steps;
using kl::test::touching;
using kl::test::When;

class WriterKilledEverywhere : public kl::test::KilledWriter {
 protected:
  // Kills a writer at its n-th call, for every n.
  void killEverywhere(const Steps& steps) {
    for (const When when : moments)
      for (unsigned int n = 1; killOnce(steps, n, when); n += kStride) {
        ++events;
        expectWhole(steps, "call " + std::to_string(n) + ", when " + std::to_string(static_cast<int>(when)));
        if (HasFailure()) return;
      }
    RecordProperty("events", static_cast<int>(events));
  }

  // The same, and whoever opens the store then is killed at its m-th call, for every m.
  void killTheNextOneToo(const Steps& steps) {
    for (const When when : moments)
      for (unsigned int n = 1;; n += kFirstStride)
        for (unsigned int m = 1;; m += kStride) {
          if (!killOnce(steps, n, when)) {
            if (m == 1) return RecordProperty("events", static_cast<int>(events));
            break;
          }
          if (!killAnOpener(m, when)) break;
          ++events;
          expectWhole(steps, "calls " + std::to_string(n) + " and " + std::to_string(m));
          if (HasFailure()) return;
        }
  }

  // The same, and of whoever opens the store then the m-th write fails, for every m.
  void failTheNextOne(const Steps& steps) {
    for (const When when : moments)
      for (unsigned int n = 1; killOnce(steps, n, when); n += kFirstStride)
        for (unsigned int m = 1; failAnOpener(m); m += kStride) {
          ++events;
          expectWhole(steps, "call " + std::to_string(n) + " and write " + std::to_string(m));
          if (HasFailure() || !killOnce(steps, n, when)) return;
        }
    RecordProperty("events", static_cast<int>(events));
  }

  // False if the writer came to its end.
  virtual bool killOnce(const Steps& steps, unsigned int n, When when) {
    return isKilled(steps, [=](ChangingCalls& calls) { calls.endAt(n, when); });
  }

  bool killAnOpener(unsigned int m, When when) {
    const auto result = kl::test::runInChild([&] {
      ChangingCalls calls;
      calls.endAt(m, when);
      const Store store(path, kLifetime, durability);
    });
    return result.exitStatus == ChangingCalls::kEndStatus;
  }

  // False if it has no m-th write.
  bool failAnOpener(unsigned int m) {
    ChangingCalls calls;
    calls.failWrite(m, EIO);
    EXPECT_EQ(kl::test::linesOf([&] { const Store store(path, kLifetime, durability); }), "");
    return calls.failed() > 0;
  }

  void expectWhole(const Steps& steps, const std::string& where) {
    expectStates(
        [&](Store& store, unsigned int id) {
          const State found = kl::test::stateOf(store, id);
          State state = initial(id);
          for (unsigned int i = 0; i < progress->done; ++i) state = steps[i].onEntry(id, state);
          if (found == state) return true;
          return progress->begun > progress->done && found == steps[progress->done].onEntry(id, state);
        },
        where);
  }

  std::vector<When> moments = {When::kBefore, When::kInside, When::kAfter};
};

Steps everything() {
  return {setting(20, filled(30, 1)),
          setting(3, filled(45, 2)),
          setting(3, filled(400, 3)),
          removal(5),
          setting(21, filled(60, 4)),
          touching(21, 9),
          touching(0, 1),
          setting(0, filled(900, 5)),
          removal(20),
          setting(22, filled(10, 6)),
          ageing(),
          compaction(),
          setting(23, filled(70, 7)),
          removal(1),
          removal(2),
          setting(24, filled(30, 8)),
          setting(24, filled(31, 9)),
          compaction(),
          touching(7, 40),
          setting(6, filled(80, 10))};
}

// The slot of an entry that there was no room for is written before the next change, as a free one.
class StoreLateSlotKills : public WriterKilledEverywhere {
 protected:
  bool killOnce(const Steps& steps, unsigned int n, When when) override {
    begin();
    const auto result = kl::test::runInChild([&] {
      Store store(path, kLifetime, durability);
      {
        ChangingCalls fullDisk;
        fullDisk.failEveryWrite(1, ENOSPC);
        store.set(50, filled(200));
      }
      ChangingCalls calls;
      calls.endAt(n, when);
      carryOut(steps, store);
    });
    return result.exitStatus == ChangingCalls::kEndStatus;
  }
};

TEST_F(StoreLateSlotKills, WhereverAWriterIsKilledTheSlotIsThereWholeOrNotAtAll) {
  for (const auto each : {Store::Durability::kFlushed, Store::Durability::kPowerLoss}) {
    durability = each;
    killEverywhere({touching(7, 9), setting(3, filled(400, 3)), setting(51, filled(150, 4))});
  }
  EXPECT_GT(events * kStride, 40U);
}

// One moment of each call a test.
class StoreKills : public WriterKilledEverywhere, public testing::WithParamInterface<When> {
 protected:
  StoreKills() { moments = {GetParam()}; }
};

TEST_P(StoreKills, WhereverAWriterIsKilledOnlyTheEntryInFlightMayBeOldOrNew) {
  killEverywhere(everything());
  EXPECT_GT(events * kStride, 100U);
}

TEST_P(StoreKills, TheSameWithDurableLengths) {
  durability = Store::Durability::kPowerLoss;
  killEverywhere(everything());
  EXPECT_GT(events * kStride, 100U);
}

TEST_P(StoreKills, AKilledOpenerLeavesTheWorkToTheNext) {
  killTheNextOneToo({setting(3, filled(400, 3)), removal(5), setting(21, filled(60, 4)), compaction()});
  EXPECT_GT(events * kStride * kFirstStride, 20U);
}

INSTANTIATE_TEST_SUITE_P(Moments, StoreKills, testing::Values(When::kBefore, When::kInside, When::kAfter));

// The process after a killed writer cannot write everything.  Where a blob was half written over another one,
// nothing helps; everywhere else the change is taken back.
class StoreKillsAndFaults : public WriterKilledEverywhere {
 protected:
  StoreKillsAndFaults() { moments = {When::kBefore, When::kAfter}; }
};

TEST_F(StoreKillsAndFaults, AnOpenerThatCannotFinishTheChangeTakesItBack) {
  failTheNextOne(everything());
  EXPECT_GT(events * kStride * kFirstStride, 100U);
}

// A store in the older layout, which its opening rewrites.
class StoreConversionKills : public WriterKilledEverywhere {
 protected:
  void prepare() override {
    writeIdx("00000011 00000009 00000003  ffffffff 00000005 00000007  00000002 0000000b 00000001");
    writeDat("0009 4d32 05000009 07  0000000000  0009 4d32 05000009 08 aaaa");
  }

  State initial(unsigned int id) const override {
    if (id == 17) return kl::test::Value{kl::test::number(7), 3};
    if (id == 2) return kl::test::Value{kl::test::number(8), 1};
    return std::nullopt;
  }
};

TEST_F(StoreConversionKills, EitherTheOlderOrTheNewFilesAreThereWhole) {
  killEverywhere({setting(17, filled(30))});
  EXPECT_GT(events * kStride, 15U);
}

TEST_F(StoreConversionKills, AKilledOpenerLeavesTheWorkToTheNext) {
  killTheNextOneToo({});
  EXPECT_GT(events * kStride * kFirstStride, 15U);
}

}  // namespace

#include <memory>

#include "kl/runner.h"
#include "kl/store.h"
#include "tests/lib/store/store_files.h"
#include "tests/support/calls/scripted_calls.h"

namespace {

using kl::Store;
using kl::test::filled;
using kl::test::linesOf;
using kl::test::number;

constexpr unsigned int kMinute = 6000;

// Eight or more free slots between entries that stay.
class StoreSchedule : public kl::test::StoreFiles {
 protected:
  void SetUp() override {
    linesOf([this] { Store(path, 3); });
  }

  static void addAndRemove(Store& store, unsigned int count, unsigned int bytes) {
    for (unsigned int id = 0; id < count; ++id) store.set(100 + id, filled(bytes));
    for (unsigned int id = 0; id < count; ++id) store.remove(100 + id);
  }
};

TEST_F(StoreSchedule, EightFreeSlotsNeverCompact) {
  Store store(path, 3);
  addAndRemove(store, 8, 5000);
  EXPECT_EQ(slots(), 8U);
}

TEST_F(StoreSchedule, TheNinthFreeSlotCompactsAtOnceWithoutARunner) {
  Store store(path, 3);
  addAndRemove(store, 9, 10);
  EXPECT_EQ(slots(), 0U);
}

TEST_F(StoreSchedule, OpeningABloatedStoreCompactsIt) {
  {
    kl::Runner loop;
    Store store(path, 3);
    store.set(1, number(7));
    addAndRemove(store, 9, 10);
    EXPECT_EQ(slots(), 10U);
  }
  Store store(path, 3);
  EXPECT_EQ(slots(), 1U);
  EXPECT_TRUE(store.get(1) == number(7));
}

class StoreScheduleWithRunner : public StoreSchedule {
 protected:
  void pass(unsigned int ticks) {
    clock.advance(ticks);
    loop->runTimers();
  }

  // The free slots, all that there are, stay for a minute from now and no longer.
  void expectCompactedInAMinute(std::size_t count) {
    pass(kMinute - 1);
    EXPECT_EQ(slots(), count);
    pass(1);
    EXPECT_EQ(slots(), 0U);
  }

  kl::test::ScriptedClock clock{1000};
  std::unique_ptr<kl::Runner> loop = std::make_unique<kl::Runner>();
};

TEST_F(StoreScheduleWithRunner, CompactionWaitsAMinute) {
  Store store(path, 3);
  addAndRemove(store, 9, 10);
  expectCompactedInAMinute(9);
}

TEST_F(StoreScheduleWithRunner, AStoreThatIsBloatedAgainIsCompactedAMinuteLater) {
  Store store(path, 3);
  addAndRemove(store, 9, 10);
  pass(kMinute);
  ASSERT_EQ(slots(), 0U);
  pass(100);
  addAndRemove(store, 10, 10);
  expectCompactedInAMinute(10);
}

TEST_F(StoreScheduleWithRunner, ACompactionTakesThePendingOneWithIt) {
  Store store(path, 3);
  addAndRemove(store, 9, 10);
  pass(100);
  store.compact(false);
  addAndRemove(store, 9, 10);
  expectCompactedInAMinute(9);
}

TEST_F(StoreScheduleWithRunner, ACompactionByHandTakesThePendingOneWithIt) {
  Store store(path, 3);
  addAndRemove(store, 9, 10);
  pass(100);
  store.doCompaction();
  EXPECT_EQ(slots(), 0U);
  addAndRemove(store, 9, 10);
  expectCompactedInAMinute(9);
}

TEST_F(StoreScheduleWithRunner, AStoreThatIsNoLongerBloatedIsNotCompacted) {
  Store store(path, 3);
  addAndRemove(store, 9, 10);
  store.set(1, filled(10));
  pass(kMinute);
  EXPECT_EQ(slots(), 9U);
  store.remove(1);  // bloated once more: a minute from now
  expectCompactedInAMinute(9);
}

TEST_F(StoreScheduleWithRunner, ADestroyedStoreLeavesNoTimer) {
  {
    Store store(path, 3);
    addAndRemove(store, 9, 10);
  }
  pass(kMinute);
  EXPECT_EQ(slots(), 9U);
}

TEST_F(StoreScheduleWithRunner, AStoreOutlivesTheRunner) {
  Store store(path, 3);
  addAndRemove(store, 9, 10);
  loop.reset();
  store.set(1, filled(10));
  addAndRemove(store, 9, 10);
  EXPECT_EQ(slots(), 1U);
}

}  // namespace

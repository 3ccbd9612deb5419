#include "kl/runner.h"
#include "kl/store.h"
#include "tests/store/store_files.h"
#include "tests/support/scripted_calls.h"

namespace {

using kl::Store;
using kl::test::filled;
using kl::test::linesOf;
using kl::test::number;

constexpr unsigned int kMinute = 6000;

// Eight or more free slots between entries that stay.
class StoreMaintenance : public kl::test::StoreFiles {
 protected:
  void SetUp() override {
    linesOf([this] { Store(path, 3); });
  }

  static void addAndRemove(Store& store, unsigned int count, unsigned int bytes) {
    for (unsigned int id = 0; id < count; ++id) store.set(100 + id, filled(bytes));
    for (unsigned int id = 0; id < count; ++id) store.remove(100 + id);
  }

  std::size_t slots() const { return kl::test::readFile(path + ".idx").size() / 12; }
};

TEST_F(StoreMaintenance, EightFreeSlotsNeverCompact) {
  Store store(path, 3);
  addAndRemove(store, 8, 5000);
  EXPECT_EQ(slots(), 8U);
}

TEST_F(StoreMaintenance, TheNinthFreeSlotCompactsAtOnceWithoutARunner) {
  Store store(path, 3);
  addAndRemove(store, 9, 10);
  EXPECT_EQ(slots(), 0U);
}

TEST_F(StoreMaintenance, OpeningABloatedStoreCompactsIt) {
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

TEST_F(StoreMaintenance, WithARunnerCompactionWaitsAMinute) {
  kl::test::ScriptedClock clock(1000);
  kl::Runner loop;
  Store store(path, 3);
  addAndRemove(store, 9, 10);
  clock.advance(kMinute - 1);
  loop.runTimers();
  EXPECT_EQ(slots(), 9U);
  clock.advance(1);
  loop.runTimers();
  EXPECT_EQ(slots(), 0U);
}

TEST_F(StoreMaintenance, AStoreThatIsBloatedAgainIsCompactedAMinuteLater) {
  kl::test::ScriptedClock clock(1000);
  kl::Runner loop;
  Store store(path, 3);
  addAndRemove(store, 9, 10);
  clock.advance(kMinute);
  loop.runTimers();
  ASSERT_EQ(slots(), 0U);
  clock.advance(100);
  addAndRemove(store, 10, 10);
  clock.advance(kMinute - 1);
  loop.runTimers();
  EXPECT_EQ(slots(), 10U);
  clock.advance(1);
  loop.runTimers();
  EXPECT_EQ(slots(), 0U);
}

TEST_F(StoreMaintenance, ACompactionTakesThePendingOneWithIt) {
  kl::test::ScriptedClock clock(1000);
  kl::Runner loop;
  Store store(path, 3);
  addAndRemove(store, 9, 10);
  clock.advance(100);
  store.compact(false);
  addAndRemove(store, 9, 10);
  clock.advance(kMinute - 1);
  loop.runTimers();
  EXPECT_EQ(slots(), 9U);
  clock.advance(1);
  loop.runTimers();
  EXPECT_EQ(slots(), 0U);
}

TEST_F(StoreMaintenance, AStoreThatIsNoLongerBloatedIsNotCompacted) {
  kl::test::ScriptedClock clock(1000);
  kl::Runner loop;
  Store store(path, 3);
  addAndRemove(store, 9, 10);
  store.set(1, filled(10));
  clock.advance(kMinute);
  loop.runTimers();
  EXPECT_EQ(slots(), 9U);
  store.remove(1);  // bloated once more: a minute from now
  clock.advance(kMinute - 1);
  loop.runTimers();
  EXPECT_EQ(slots(), 9U);
  clock.advance(1);
  loop.runTimers();
  EXPECT_EQ(slots(), 0U);
}

TEST_F(StoreMaintenance, ADestroyedStoreLeavesNoTimer) {
  kl::test::ScriptedClock clock(1000);
  kl::Runner loop;
  {
    Store store(path, 3);
    addAndRemove(store, 9, 10);
  }
  clock.advance(kMinute);
  loop.runTimers();
  EXPECT_EQ(slots(), 9U);
}

TEST_F(StoreMaintenance, AStoreOutlivesTheRunner) {
  kl::test::ScriptedClock clock(1000);
  auto loop = std::make_unique<kl::Runner>();
  Store store(path, 3);
  addAndRemove(store, 9, 10);
  loop.reset();
  store.set(1, filled(10));
  addAndRemove(store, 9, 10);
  EXPECT_EQ(slots(), 1U);
}

}  // namespace

#include <optional>

#include "kl/runner.h"
#include "kl/store.h"
#include "tests/lib/store/store_files.h"
#include "tests/support/calls/changing_calls.h"
#include "tests/support/calls/scripted_calls.h"

namespace {

using kl::Store;
using kl::test::FileCall;
using kl::test::linesOf;
using kl::test::number;

constexpr unsigned int kFlushDelay = 50;
constexpr unsigned int kCompactionDelay = 6000;

// The fate of a store's timers when somebody is quicker than they are.
class StoreTimers : public kl::test::StoreFiles {
 protected:
  void SetUp() override {
    linesOf([this] { Store(path, 3); });
    calls.watch([this](const FileCall& call) { syncs += call.kind == FileCall::kSync ? 1 : 0; });
    loop.emplace();
  }

  void advance(unsigned int ticks) {
    clock.advance(ticks);
    loop->runTimers();
  }

  static void bloat(Store& store) {
    for (unsigned int id = 0; id < 9; ++id) store.set(100 + id, number(id));
    for (unsigned int id = 0; id < 9; ++id) store.remove(100 + id);
  }

  kl::test::ScriptedClock clock{1000};
  kl::test::ChangingCalls calls;
  std::optional<kl::Runner> loop;
  unsigned int syncs = 0;
};

TEST_F(StoreTimers, AFlushByHandEndsTheBurst) {
  Store store(path, 3);
  store.set(1, number(1));
  advance(10);
  store.doFlush();
  EXPECT_EQ(syncs, 2U);
  advance(10);
  store.set(1, number(2));
  advance(kFlushDelay - 1);  // the time of the first burst is over
  EXPECT_EQ(syncs, 2U);
  advance(1);
  EXPECT_EQ(syncs, 4U);
}

TEST_F(StoreTimers, AStoreThatIsGoneIsNotCalled) {
  {
    Store store(path, 3);
    bloat(store);
    store.doFlush();
    store.set(1, number(1));
    store.doFlush();
    store.doCompaction();
    bloat(store);
  }
  syncs = 0;
  advance(kCompactionDelay);
  EXPECT_EQ(syncs, 0U);
  EXPECT_EQ(slots(), 10U);
}

// The second Runner lies where the first one lay.
TEST_F(StoreTimers, OfAnEarlierRunnerDoNotCount) {
  Store store(path, 3);
  store.set(1, number(1));
  bloat(store);
  loop.reset();
  loop.emplace();
  store.set(1, number(2));
  advance(kFlushDelay);
  EXPECT_EQ(syncs, 2U);
  bloat(store);
  store.compact(false);
  EXPECT_EQ(slots(), 1U);
}

}  // namespace

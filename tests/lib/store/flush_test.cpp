// When a store makes its files durable.

#include "kl/runner.h"
#include "kl/store.h"
#include "tests/lib/store/store_files.h"
#include "tests/support/calls/changing_calls.h"
#include "tests/support/calls/scripted_calls.h"

namespace {

using kl::Store;
using kl::test::ChangingCalls;
using kl::test::FileCall;
using kl::test::filled;
using kl::test::linesOf;
using kl::test::number;

constexpr unsigned int kHalfASecond = 50;

class StoreFlush : public kl::test::StoreFiles {
 protected:
  void SetUp() override {
    linesOf([this] { Store(path, 3); });
  }

  // The files that are synced meanwhile, in their order.
  template <class Body>
  std::string syncsOf(Body body) {
    std::string log;
    ChangingCalls calls;
    calls.watch([&](const FileCall& call) {
      if (call.kind == FileCall::kSync) log += suffixOf(call.inode);
    });
    body();
    return log;
  }
};

class StoreFlushWithRunner : public StoreFlush {
 protected:
  StoreFlushWithRunner() : clock(1000) {}

  void pass(unsigned int ticks) {
    clock.advance(ticks);
    loop.runTimers();
  }

  kl::test::ScriptedClock clock;
  kl::Runner loop;
};

TEST_F(StoreFlushWithRunner, ABurstIsSyncedHalfASecondBehindItsFirstChange) {
  Store store(path, 3);
  EXPECT_EQ(syncsOf([&] {
              store.set(1, number(1));
              pass(20);
              store.set(2, number(2));
              store.remove(1);
              pass(kHalfASecond - 20 - 1);
            }),
            "");
  EXPECT_EQ(syncsOf([&] { pass(1); }), ".idx.dat");
  EXPECT_EQ(syncsOf([&] { pass(10 * kHalfASecond); }), "");
}

TEST_F(StoreFlushWithRunner, TheNextBurstIsSyncedHalfASecondBehindItsOwnFirstChange) {
  Store store(path, 3);
  store.set(1, number(1));
  pass(kHalfASecond);
  pass(7);
  EXPECT_EQ(syncsOf([&] {
              store.touch(1, 9);
              pass(kHalfASecond - 1);
            }),
            "");
  EXPECT_EQ(syncsOf([&] { pass(1); }), ".idx.dat");
}

TEST_F(StoreFlushWithRunner, OpeningAndReadingSyncNothing) {
  Store(path, 3).set(1, number(1));
  EXPECT_EQ(syncsOf([&] {
              Store store(path, 3);
              (void)store.get(1);
              pass(kHalfASecond);
            }),
            "");
}

// A change behind a compaction, which syncs its files itself, has its own half second.
TEST_F(StoreFlushWithRunner, ACompactionTakesThePendingFlushWithIt) {
  Store store(path, 3);
  store.set(1, number(1));
  pass(10);
  store.compact(false);
  EXPECT_EQ(syncsOf([&] { pass(kHalfASecond); }), "");
  store.set(2, number(2));
  pass(10);
  store.compact(false);
  store.set(3, number(3));
  EXPECT_EQ(syncsOf([&] { pass(kHalfASecond - 1); }), "");
  EXPECT_EQ(syncsOf([&] { pass(1); }), ".idx.dat");
}

TEST_F(StoreFlushWithRunner, ADestroyedStoreSyncsNothing) {
  EXPECT_EQ(syncsOf([&] {
              Store(path, 3).set(1, number(1));
              pass(kHalfASecond);
            }),
            "");
}

TEST_F(StoreFlush, WithoutARunnerEachChangeIsSyncedOnceAndAtOnce) {
  Store store(path, 3);
  EXPECT_EQ(syncsOf([&] { store.set(1, number(1)); }), ".idx.dat");
  EXPECT_EQ(syncsOf([&] { store.set(1, number(2)); }), ".idx.dat");
  EXPECT_EQ(syncsOf([&] { store.set(1, filled(50)); }), ".idx.dat");
  EXPECT_EQ(syncsOf([&] { store.touch(1, 9); }), ".idx.dat");
  EXPECT_EQ(syncsOf([&] { store.remove(1); }), ".idx.dat");
  EXPECT_EQ(syncsOf([&] { store.remove(1); }), "");
  EXPECT_EQ(syncsOf([&] { (void)store.get(1); }), "");
}

}  // namespace

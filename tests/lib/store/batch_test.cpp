// Several changes as one: after a kill, a failed write or a loss of power all of them are there, or none.

#include <cerrno>

#include "kl/runner.h"
#include "tests/lib/store/killed_writer.h"
#include "tests/support/build/effort.h"
#include "tests/support/process/child.h"

namespace {

using kl::Store;
using kl::test::ChangingCalls;
using kl::test::FileCall;
using kl::test::filled;
using kl::test::kFirstStride;
using kl::test::kIds;
using kl::test::kLifetime;
using kl::test::kStride;
using kl::test::linesOf;
using kl::test::number;
using kl::test::State;
using kl::test::When;

using Values = std::map<unsigned int, State>;

// Entries 0 to 9 are there; of these 3 stays where it is too small, 5 and 7 shrink, 20 and 21 are new, and two go.
const Store::Messages kSet = {
    {3, filled(400, 3)}, {5, number(5)}, {7, number(7)}, {20, filled(30)}, {21, filled(900, 2)}};
const std::vector<unsigned int> kRemoved = {1, 8};

Values valuesOf(Store& store) {
  Values values;
  for (unsigned int id = 0; id < kIds; ++id) values[id] = kl::test::stateOf(store, id);
  return values;
}

Values behind(Values values) {
  for (const auto& [id, m] : kSet)
    values[id] = kl::test::Value{m, values[id] ? values[id]->lifetime : kLifetime};
  for (const unsigned int id : kRemoved) values[id].reset();
  return values;
}

class StoreBatch : public kl::test::KilledWriter {
 protected:
  StoreBatch() {
    for (unsigned int id = 0; id < kIds; ++id) old_[id] = initial(id);
    new_ = behind(old_);
  }

  void prepare() override {
    KilledWriter::prepare();
    linesOf([this] {  // and a hole for one of the new entries
      Store store(path, kLifetime);
      store.set(30, filled(35));
      store.set(31, filled(5));
      store.remove(30);
      store.remove(31);
    });
  }

  std::unique_ptr<Store> opened() {
    std::unique_ptr<Store> store;
    EXPECT_EQ(linesOf([&] { store = std::make_unique<Store>(path, kLifetime, durability); }), "");
    return store;
  }

  // Kills a writer at its n-th changing call.  False if it came to its end.
  bool isKilledAt(unsigned int n, When when) {
    begin();
    const auto result = kl::test::runInChild([&] {
      Store store(path, kLifetime, durability);
      ChangingCalls calls;
      calls.endAt(n, when);
      (void)store.batch(kSet, kRemoved);
    });
    return result.exitStatus == ChangingCalls::kEndStatus;
  }

  bool isOpenerKilledAt(unsigned int n, When when) {
    const auto result = kl::test::runInChild([&] {
      ChangingCalls calls;
      calls.endAt(n, when);
      const Store store(path, kLifetime, durability);
    });
    return result.exitStatus == ChangingCalls::kEndStatus;
  }

  // The one of both that the files hold now.
  enum class Found { kOld, kNew, kOther };
  Found found() {
    const Values values = valuesOf(*opened());
    return values == old_ ? Found::kOld : values == new_ ? Found::kNew : Found::kOther;
  }

  void expectWholeOrNothing(const std::string& where) {
    const Found what = found();
    EXPECT_NE(what, Found::kOther) << where;
    ++(what == Found::kOld ? olds_ : news_);
    EXPECT_TRUE(lockBytes().empty()) << where;
  }

  Values old_;
  Values new_;
  unsigned int olds_ = 0;
  unsigned int news_ = 0;
};

class StoreBatchKills : public StoreBatch, public testing::WithParamInterface<Store::Durability> {
 protected:
  StoreBatchKills() { durability = GetParam(); }
};

INSTANTIATE_TEST_SUITE_P(Durabilities, StoreBatchKills,
                         testing::Values(Store::Durability::kFlushed, Store::Durability::kPowerLoss));

}  // namespace

TEST_F(StoreBatch, MakesAllChangesAtOnce) {
  begin();
  EXPECT_EQ(linesOf([&] {
              Store store(path, kLifetime);
              EXPECT_TRUE(store.batch(kSet, kRemoved));
              EXPECT_EQ(valuesOf(store), new_);
            }),
            "");
  EXPECT_EQ(found(), Found::kNew);
}

TEST_F(StoreBatch, AnIdThatIsSetAndRemovedIsSet) {
  begin();
  Store store(path, kLifetime);
  EXPECT_TRUE(store.batch({{4, number(44)}}, {4, 4, 99}));
  EXPECT_TRUE(store.get(4) == number(44));
  EXPECT_EQ(store.entries().size(), 10U);
}

TEST_F(StoreBatch, OneThatIsRemovedTwiceIsRemoved) {
  begin();
  Store store(path, kLifetime);
  EXPECT_TRUE(store.batch({}, {4, 4}));
  EXPECT_EQ(store.entries().count(4), 0U);
}

TEST_F(StoreBatch, NothingIsWrittenForNothing) {
  begin();
  Store store(path, kLifetime);
  const ChangingCalls calls;
  EXPECT_TRUE(store.batch({}));
  EXPECT_EQ(calls.calls(), 0U);
}

TEST_F(StoreBatch, TheReservedIdIsRefusedWithAllOthers) {
  begin();
  Store store(path, kLifetime);
  EXPECT_EQ(linesOf([&] {
              EXPECT_FALSE(store.batch({{1, number(1)}, {0xffffffff, number(2)}}));
            }),
            "STORE: batch failed\n");
  EXPECT_EQ(valuesOf(store), old_);
}

TEST_F(StoreBatch, TheLifetimeOfAnEntryStays) {
  begin();
  Store store(path, kLifetime);
  store.touch(3, 9);
  EXPECT_TRUE(store.batch({{3, filled(2000)}}));
  EXPECT_EQ(store.entries().at(3).lifetime, 9U);
}

TEST_F(StoreBatch, WhatItLeavesIsUsedAgain) {
  begin();
  Store store(path, kLifetime);
  const std::size_t before = (store.batch(kSet, kRemoved), slots());
  store.set(40, number(1));
  store.set(41, number(2));
  EXPECT_EQ(slots(), before);
}

TEST_F(StoreBatch, TheFilesBecomeDurableAsWithAnyChange) {
  begin();
  kl::Runner loop;
  Store store(path, kLifetime);
  EXPECT_TRUE(store.batch(kSet));
  unsigned int syncs = 0;
  ChangingCalls calls;
  calls.watch([&](const FileCall& call) { syncs += call.kind == FileCall::kSync; });
  store.doFlush();
  EXPECT_EQ(syncs, 2U);
}

TEST_P(StoreBatchKills, AKilledWriterHasMadeAllOfItOrNothing) {
  for (const When when : {When::kBefore, When::kInside, When::kAfter})
    for (unsigned int n = 1; isKilledAt(n, when); n += kFirstStride) {
      expectWholeOrNothing("call " + std::to_string(n) + ", when " + std::to_string(static_cast<int>(when)));
      if (HasFailure()) return;
    }
  EXPECT_GT(olds_, 0U);
  EXPECT_GT(news_ * kFirstStride, 20U);
}

TEST_P(StoreBatchKills, AndSoHasWhoeverOpensTheStoreThen) {
  for (const When when : {When::kBefore, When::kInside, When::kAfter})
    for (unsigned int n = 1; isKilledAt(n, when); n += kFirstStride)
      for (unsigned int m = 1; isOpenerKilledAt(m, when); m += kStride) {
        expectWholeOrNothing("calls " + std::to_string(n) + " and " + std::to_string(m));
        if (HasFailure() || !isKilledAt(n, when)) return;
      }
  EXPECT_GT(news_ * kStride * kFirstStride, 100U);
}

// In memory as well, and the store is as good as before.
TEST_P(StoreBatchKills, AWriteThatFailsMakesNothingOfIt) {
  for (const int error : {ENOSPC, EIO})
    for (unsigned int n = 1;; ++n) {
      begin();
      const auto store = opened();
      unsigned int failed = 0;
      bool isDone = false;
      const std::string lines = linesOf([&] {
        ChangingCalls calls;
        calls.failWrite(n, error);
        isDone = store->batch(kSet, kRemoved);
        failed = calls.failed();
      });
      const std::string where = "write " + std::to_string(n);
      EXPECT_EQ(lines, isDone ? "" : "STORE: batch failed\n") << where;
      EXPECT_EQ(valuesOf(*store), isDone ? new_ : old_) << where;
      EXPECT_EQ(found(), isDone ? Found::kNew : Found::kOld) << where;
      if (failed == 0) {
        EXPECT_GT(n, 10U);
        break;
      }
      EXPECT_EQ(linesOf([&] { EXPECT_TRUE(store->batch(kSet, kRemoved)); }), "") << where;
      EXPECT_EQ(found(), Found::kNew) << where;
      if (HasFailure()) return;
    }
}

TEST_P(StoreBatchKills, ADiskThatIsFullFromAWriteOnHoldsAllOfItOrNothing) {
  for (unsigned int n = 1;; ++n) {
    begin();
    const auto store = opened();
    unsigned int failed = 0;
    bool isDone = false;
    (void)linesOf([&] {
      ChangingCalls calls;
      calls.fillDiskAt(n);
      isDone = store->batch(kSet, kRemoved);
      failed = calls.failed();
    });
    EXPECT_EQ(valuesOf(*store), isDone ? new_ : old_) << "write " << n;
    EXPECT_EQ(found(), isDone ? Found::kNew : Found::kOld) << "write " << n;
    if (failed == 0 || HasFailure()) return;
  }
}

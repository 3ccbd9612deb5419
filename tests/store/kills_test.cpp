// A writer that is killed at each of its changing calls in turn: every entry except the one in flight has its last
// value, the one in flight its old or its new one.

#include <sys/mman.h>

#include <cerrno>
#include <filesystem>
#include <functional>
#include <map>
#include <optional>

#include "kl/store.h"
#include "tests/store/store_files.h"
#include "tests/support/changing_calls.h"
#include "tests/support/child.h"

namespace {

using kl::message;
using kl::Store;
using kl::test::ChangingCalls;
using kl::test::filled;
using kl::test::When;

constexpr unsigned int kLifetime = 5;

struct Value {
  message content;
  unsigned int lifetime;

  bool operator==(const Value& other) const { return content == other.content && lifetime == other.lifetime; }
};

using Model = std::map<unsigned int, Value>;

// One operation, on a store and on a plain map.  Ageing is one step for each entry.
struct Step {
  std::function<void(Store&)> onStore;
  std::function<void(Model&)> onModel;
};

Step set(unsigned int id, const message& m) {
  return {[=](Store& store) { store.set(id, m); },
          [=](Model& model) {
            model.try_emplace(id, Value{m, kLifetime}).first->second.content = m;
          }};
}

Step removal(unsigned int id) {
  return {[=](Store& store) { store.remove(id); }, [=](Model& model) { model.erase(id); }};
}

Step touch(unsigned int id, unsigned int lifetime) {
  return {[=](Store& store) { store.touch(id, lifetime); },
          [=](Model& model) {
            if (const auto at = model.find(id); at != model.end()) at->second.lifetime = lifetime;
          }};
}

Step compaction() {
  return {[](Store& store) { store.compact(false); }, [](Model&) {}};
}

void ageOne(Model& model, unsigned int id) {
  const auto at = model.find(id);
  if (at != model.end() && --at->second.lifetime == 0) model.erase(at);
}

Step ageing() {
  return {[](Store& store) { store.age(); },
          [](Model& model) {
            for (unsigned int id = 0; id < 100; ++id) ageOne(model, id);
          }};
}

using Steps = std::vector<Step>;

Steps someEntries() {
  Steps steps;
  for (unsigned int id = 0; id < 10; ++id)
    steps.push_back(set(id, filled(20 + 10 * id, static_cast<unsigned char>(id))));
  return steps;
}

Model modelOf(const Steps& steps) {
  Model model;
  for (const Step& step : steps) step.onModel(model);
  return model;
}

// How far the writer has come, seen from outside.
struct Progress {
  unsigned int begun;
  unsigned int done;
};

class KilledWriter : public kl::test::StoreFiles {
 protected:
  KilledWriter()
      : progress(static_cast<Progress*>(
            ::mmap(nullptr, sizeof(Progress), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0))) {}
  ~KilledWriter() override { ::munmap(progress, sizeof(Progress)); }

  // Kills a writer at its n-th call, for every n.
  void killEverywhere(const Steps& steps) {
    for (const When when : moments)
      for (unsigned int n = 1; killOnce(steps, n, when); ++n) {
        ++events;
        expectWhole(steps, "call " + std::to_string(n) + ", when " + std::to_string(static_cast<int>(when)));
        if (HasFailure()) return;
      }
    RecordProperty("events", static_cast<int>(events));
  }

  // The same, and whoever opens the store then is killed at its m-th call, for every m.
  void killTheNextOneToo(const Steps& steps) {
    for (const When when : moments)
      for (unsigned int n = 1;; ++n)
        for (unsigned int m = 1;; ++m) {
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

  // False if the writer came to its end.
  virtual bool killOnce(const Steps& steps, unsigned int n, When when) {
    begin();
    const auto result = kl::test::runInChild([&] {
      ChangingCalls calls;
      calls.endAt(n, when);
      Store store(path, kLifetime, durability);
      carryOut(steps, store);
    });
    return result.exitStatus == ChangingCalls::kEndStatus;
  }

  void begin() {
    std::filesystem::remove_all(folder);
    std::filesystem::create_directory(folder);
    prepare();
    *progress = {};
  }

  void carryOut(const Steps& steps, Store& store) {
    for (const Step& step : steps) {
      ++progress->begun;
      step.onStore(store);
      ++progress->done;
    }
  }

  bool killAnOpener(unsigned int m, When when) {
    const auto result = kl::test::runInChild([&] {
      ChangingCalls calls;
      calls.endAt(m, when);
      const Store store(path, kLifetime, durability);
    });
    return result.exitStatus == ChangingCalls::kEndStatus;
  }

  void expectWhole(const Steps& steps, const std::string& where) {
    Model older = initial;
    for (unsigned int i = 0; i < progress->done; ++i) steps[i].onModel(older);
    Model newer = older;
    if (progress->begun > progress->done) steps[progress->done].onModel(newer);
    const std::string lines = kl::test::linesOf([&] {
      Store store(path, kLifetime);
      for (unsigned int id = 0; id < 100; ++id) {
        const std::optional<Value> found = stored(store, id);
        ASSERT_TRUE(found == valueIn(older, id) || found == valueIn(newer, id)) << where << ", id " << id;
      }
    });
    ASSERT_EQ(lines, "") << where;
    EXPECT_TRUE(lockBytes().empty()) << where;
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(folder), {}), 3) << where;
  }

  static std::optional<Value> stored(Store& store, unsigned int id) {
    const auto at = store.entries().find(id);
    if (at == store.entries().end()) return std::nullopt;
    return Value{store.get(id), at->second.lifetime};
  }

  static std::optional<Value> valueIn(const Model& model, unsigned int id) {
    const auto at = model.find(id);
    return at == model.end() ? std::nullopt : std::optional<Value>(at->second);
  }

  // Ten entries.
  virtual void prepare() {
    kl::test::linesOf([this] {
      Store store(path, kLifetime);
      for (const Step& step : someEntries()) step.onStore(store);
    });
  }

  Progress* progress;
  Model initial = modelOf(someEntries());
  std::vector<When> moments = {When::kBefore, When::kInside, When::kAfter};
  Store::Durability durability = Store::Durability::kFlushed;
  unsigned int events = 0;
};

Steps everything() {
  return {set(20, filled(30, 1)),
          set(3, filled(45, 2)),
          set(3, filled(400, 3)),
          removal(5),
          set(21, filled(60, 4)),
          touch(21, 9),
          touch(0, 1),
          set(0, filled(900, 5)),
          removal(20),
          set(22, filled(10, 6)),
          ageing(),
          compaction(),
          set(23, filled(70, 7)),
          removal(1),
          removal(2),
          set(24, filled(30, 8)),
          set(24, filled(31, 9)),
          compaction(),
          touch(7, 40),
          set(6, filled(80, 10))};
}

// The slot of an entry that there was no room for is written before the next change, as a free one.
class StoreLateSlotKills : public KilledWriter {
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
    killEverywhere({touch(7, 9), set(3, filled(400, 3)), set(51, filled(150, 4))});
  }
  EXPECT_GT(events, 40U);
}

// One moment of each call a test.
class StoreKills : public KilledWriter, public testing::WithParamInterface<When> {
 protected:
  StoreKills() { moments = {GetParam()}; }
};

TEST_P(StoreKills, WhereverAWriterIsKilledOnlyTheEntryInFlightMayBeOldOrNew) {
  killEverywhere(everything());
  EXPECT_GT(events, 100U);
}

TEST_P(StoreKills, TheSameWithDurableLengths) {
  durability = Store::Durability::kPowerLoss;
  killEverywhere(everything());
  EXPECT_GT(events, 100U);
}

TEST_P(StoreKills, AKilledOpenerLeavesTheWorkToTheNext) {
  killTheNextOneToo({set(3, filled(400, 3)), removal(5), set(21, filled(60, 4)), compaction()});
  EXPECT_GT(events, 20U);
}

INSTANTIATE_TEST_SUITE_P(Moments, StoreKills, testing::Values(When::kBefore, When::kInside, When::kAfter));

// A store in the older layout, which its opening rewrites.
class StoreConversionKills : public KilledWriter {
 protected:
  StoreConversionKills() { initial = {{17, {kl::test::number(7), 3}}, {2, {kl::test::number(8), 1}}}; }

  void prepare() override {
    writeIdx("00000011 00000009 00000003  ffffffff 00000005 00000007  00000002 0000000b 00000001");
    writeDat("0009 4d32 05000009 07  0000000000  0009 4d32 05000009 08 aaaa");
  }
};

TEST_F(StoreConversionKills, EitherTheOlderOrTheNewFilesAreThereWhole) {
  killEverywhere({set(17, filled(30))});
  EXPECT_GT(events, 15U);
}

TEST_F(StoreConversionKills, AKilledOpenerLeavesTheWorkToTheNext) {
  killTheNextOneToo({});
  EXPECT_GT(events, 15U);
}

}  // namespace

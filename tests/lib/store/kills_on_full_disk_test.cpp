// A writer for which a write fails, and that is killed at each of its later calls in turn.  An entry whose operation
// failed may have its old value, its new one or be gone, as the lines say; all others have what they were given.

#include <algorithm>
#include <cerrno>
#include <ostream>

#include "tests/lib/store/killed_writer.h"
#include "tests/support/build/effort.h"

namespace {

using kl::Store;
using kl::test::ChangingCalls;
using kl::test::filled;
using kl::test::kIds;
using kl::test::kStride;
using kl::test::removal;
using kl::test::setting;
using kl::test::State;
using kl::test::Step;
using kl::test::Steps;
using kl::test::touching;
using kl::test::When;

enum class Failing {
  kOneWrite,
  kFullDisk,    // from then on nothing grows
  kEveryWrite,  // from then on
};

struct Moment {
  Failing failing;
  When when;
  Store::Durability durability;

  friend std::ostream& operator<<(std::ostream& out, const Moment& moment) {
    return out << static_cast<int>(moment.failing) << static_cast<int>(moment.when)
               << static_cast<int>(moment.durability);
  }
};

class StoreKillsOnFullDisk : public kl::test::KilledWriter, public testing::WithParamInterface<Moment> {
 protected:
  StoreKillsOnFullDisk() { durability = GetParam().durability; }

  // Every write of the steps fails in turn, and every later call is the last one in turn.
  template <class Expect>
  void failAndKillEverywhere(const Steps& steps, Expect expect) {
    for (unsigned int write = 1;; ++write) {
      ASSERT_FALSE(isKilled(steps, [=](ChangingCalls& calls) { fail(calls, write); }));
      const unsigned int failedCall = progress->firstFailure;
      if (failedCall == 0) break;
      kl::test::linesOf([this] { isEmptied = Store(path, kl::test::kLifetime).entries().empty(); });
      for (unsigned int n = failedCall + 1; isKilledAt(n, steps, write); n += kStride) {
        ++events;
        expect("write " + std::to_string(write) + " failed, end at call " + std::to_string(n));
        if (HasFailure()) return;
      }
    }
    RecordProperty("events", static_cast<int>(events));
  }

  bool isKilledAt(unsigned int n, const Steps& steps, unsigned int write) {
    return isKilled(steps, [=](ChangingCalls& calls) {
      fail(calls, write);
      calls.endAt(n, GetParam().when);
    });
  }

  static void fail(ChangingCalls& calls, unsigned int write) {
    switch (GetParam().failing) {
      case Failing::kOneWrite: return calls.failWrite(write, ENOSPC);
      case Failing::kFullDisk: return calls.fillDiskAt(write);
      case Failing::kEveryWrite: return calls.failWritesFrom(write, EIO);
    }
  }

  bool isAsExpected(const Steps& steps, Store& store, unsigned int id) const {
    if (mayBeTorn(steps, id)) return true;
    const States states = statesOf(steps, id);
    return std::find(states.begin(), states.end(), kl::test::stateOf(store, id)) != states.end();
  }

  // Where nothing can be written any more, what failed can neither be finished nor taken back.  A write over what is
  // there that could not be noted is torn if the end comes inside of it.
  bool mayBeTorn(const Steps& steps, unsigned int id) const {
    for (std::size_t i = 0; i < progress->begun; ++i) {
      const bool isInFlight = i == progress->done && GetParam().when == When::kInside;
      if (hasFailed(i) && (isInFlight || GetParam().failing == Failing::kEveryWrite) &&
          isTouched(steps[i], id))
        return true;
    }
    return false;
  }

  bool isEmptied = false;  // by the writer if nobody kills it

  using States = std::vector<State>;

  // All that an entry may be.
  States statesOf(const Steps& steps, unsigned int id) const {
    States states = {initial(id)};
    for (std::size_t i = 0; i < progress->begun; ++i)
      if (isTouched(steps[i], id)) follow(states, steps[i], id, i < progress->done, hasFailed(i));
    return states;
  }

  static void follow(States& states, const Step& step, unsigned int id, bool isDone, bool hasFailed) {
    States next;
    for (const State& state : states) {
      next.push_back(step.onEntry(id, state));
      if (!isDone || hasFailed) next.push_back(state);
    }
    if (hasFailed) next.emplace_back();
    states = next;
  }

  // Every step of these tests changes a value that is there, and one that is not, if it changes the entry.
  static bool isTouched(const Step& step, unsigned int id) {
    const State other = kl::test::Value{kl::test::number(1), 77};
    return !(step.onEntry(id, other) == other);
  }
};

TEST_P(StoreKillsOnFullDisk, CostsNothingButWhatFailedAndTheEntryInFlight) {
  const Steps steps = {setting(20, filled(30, 1)),
                       setting(3, filled(400, 2)),
                       removal(5),
                       setting(21, filled(60, 3)),
                       touching(0, 9),
                       setting(20, filled(20, 4)),
                       setting(22, filled(300, 5)),
                       setting(4, filled(100, 6))};
  failAndKillEverywhere(steps, [&](const std::string& where) {
    expectStates([&](Store& store, unsigned int id) { return isAsExpected(steps, store, id); }, where);
  });
  EXPECT_GT(events * kStride, 100U);
}

// A compaction that fails ends with an empty store, and one that is killed in the middle of that says so.
TEST_P(StoreKillsOnFullDisk, ACompactionEndsWithAllEntriesOrAnEmptyStore) {
  Step compaction = kl::test::compaction();
  const Steps steps = {removal(5), compaction};
  failAndKillEverywhere(steps, [&](const std::string& where) {
    kl::test::linesOf([&] {
      Store store(path, kl::test::kLifetime);
      if (store.entries().empty() && isEmptied) return;
      for (unsigned int id = 0; id < kIds; ++id)
        EXPECT_TRUE(isAsExpected(steps, store, id)) << where << ", id " << id;
    });
    EXPECT_TRUE(lockBytes().empty()) << where;
  });
  EXPECT_GT(events * kStride, 20U);
}

// The end behind a call leaves what the end before the next one does.
std::vector<Moment> allMoments() {
  std::vector<Moment> moments;
  for (const Failing failing : {Failing::kOneWrite, Failing::kFullDisk, Failing::kEveryWrite})
    for (const When when : {When::kBefore, When::kInside})
      for (const auto durability : {Store::Durability::kFlushed, Store::Durability::kPowerLoss})
        if (failing != Failing::kEveryWrite || durability == Store::Durability::kFlushed)
          moments.push_back({failing, when, durability});
  return moments;
}

INSTANTIATE_TEST_SUITE_P(Moments, StoreKillsOnFullDisk, testing::ValuesIn(allMoments()));

}  // namespace

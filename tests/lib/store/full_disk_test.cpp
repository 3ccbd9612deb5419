// A store every n-th write of which takes nothing, beside a model of what each entry may be.  An entry whose operation told
// a failure is what it was, what it was to become or, where that was a set(), nothing; every other entry is what it was made.
// In memory that holds at once, in the files behind the next change that nothing hinders.

#include <algorithm>
#include <cerrno>
#include <map>
#include <memory>
#include <optional>
#include <random>
#include <vector>

#include "kl/runner.h"
#include "tests/lib/store/killed_writer.h"

namespace {

using kl::Store;
using kl::test::ChangingCalls;
using kl::test::filled;
using kl::test::kLifetime;
using kl::test::linesOf;
using kl::test::number;
using kl::test::State;
using kl::test::Step;

constexpr unsigned int kEntries = 30;

class StoreFullDisk : public kl::test::StoreFiles, public testing::WithParamInterface<unsigned int> {
 protected:
  void SetUp() override {
    linesOf([this] { store = std::make_unique<Store>(path, kLifetime); });
  }

  void carryOut(const Step& step) {
    std::vector<bool> wasThere;
    for (unsigned int id = 0; id < kEntries; ++id) wasThere.push_back(store->entries().count(id) == 1);
    const bool isTold = !linesOf([&] { step.onStore(*store); }).empty();
    for (unsigned int id = 0; id < kEntries; ++id) follow(id, step, wasThere[id], isTold);
  }

  // A value that is not in memory may still be in the files, until something is set.
  void follow(unsigned int id, const Step& step, bool wasThere, bool isTold) {
    const bool isSetting = step.onEntry(id, {}).has_value();
    std::vector<State> next;
    const auto allow = [&next](const State& state) {
      if (std::find(next.begin(), next.end(), state) == next.end()) next.push_back(state);
    };
    for (const State& state : allowed[id]) {
      const bool isMeant = state.has_value() == wasThere;
      if (isMeant) allow(step.onEntry(id, state));
      if (isTold || (!isMeant && !isSetting)) allow(state);
    }
    if (isTold && isSetting) allow({});
    allowed[id] = next;
  }

  bool isAllowed(unsigned int id, const State& state) {
    return std::find(allowed[id].begin(), allowed[id].end(), state) != allowed[id].end();
  }

  void expectMemory() {
    ASSERT_EQ(linesOf([&] { Store(path, kLifetime); }), "");
    for (unsigned int id = 0; id < kEntries; ++id)
      ASSERT_TRUE(isAllowed(id, kl::test::stateOf(*store, id))) << "id " << id;
  }

  // Needs: nothing hinders.  The store then finds what is there.
  void expectFiles() {
    store->set(kEntries, number(1));
    Store opened(path, kLifetime);
    EXPECT_TRUE(opened.get(kEntries) == number(1));
    for (unsigned int id = 0; id < kEntries; ++id) {
      const State inMemory = kl::test::stateOf(*store, id);
      const State inFiles = kl::test::stateOf(opened, id);
      ASSERT_TRUE(isAllowed(id, inFiles)) << "id " << id;
      ASSERT_EQ(inFiles.has_value(), inMemory.has_value()) << "id " << id;
      ASSERT_TRUE(!inFiles || inFiles->content == inMemory->content) << "id " << id;
      allowed[id] = {inMemory, inFiles};  // a lifetime that could not be written differs
    }
  }

  // Until now every n-th write has failed; from now on every n-th fails anew.
  void hinder(unsigned int& failed) {
    if (calls) failed += calls->failed();
    calls.reset();
    expectFiles();
    calls.emplace();
    calls->failEveryWrite(GetParam(), ENOSPC);
  }

  Step anyStep() {
    const auto below = [this](unsigned int limit) { return static_cast<unsigned int>(random() % limit); };
    const unsigned int id = below(kEntries);
    const unsigned int choice = below(100);
    if (choice < 20) return kl::test::removal(id);
    if (choice < 35) return kl::test::touching(id, below(20));
    if (choice < 40) return kl::test::ageing();
    return kl::test::setting(id, filled(below(200), static_cast<unsigned char>(below(256))));
  }

  kl::Runner loop;  // so that nothing is compacted, which may empty a store
  std::unique_ptr<Store> store;
  std::map<unsigned int, std::vector<State>> allowed;
  std::mt19937 random{GetParam()};
  std::optional<ChangingCalls> calls;
};

TEST_P(StoreFullDisk, NothingIsLostButWhatCouldNotBeWritten) {
  for (unsigned int id = 0; id < kEntries; ++id) allowed[id] = {State()};
  for (unsigned int id = 0; id < 20; ++id) carryOut(kl::test::setting(id, filled(20 + id)));
  unsigned int failed = 0;
  for (unsigned int step = 0; step < 400; ++step) {
    SCOPED_TRACE(step);
    if (step % 25 == 0) hinder(failed);
    carryOut(anyStep());
    expectMemory();
    ASSERT_FALSE(HasFatalFailure());
  }
  hinder(failed);
  EXPECT_GT(failed, 0U);
}

INSTANTIATE_TEST_SUITE_P(EveryNthWrite, StoreFullDisk, testing::Range(1U, 41U));

}  // namespace

// Random steps on a store and on a plain map; the same seed gives the same files.

#include <map>
#include <random>

#include "kl/store.h"
#include "tests/lib/store/store_files.h"

namespace {

using kl::message;
using kl::Store;
using kl::test::filled;
using kl::test::linesOf;
using kl::test::readFile;

struct Expected {
  message content;
  unsigned int lifetime;
};

class StoreModel : public kl::test::StoreFiles, public testing::WithParamInterface<unsigned int> {
 protected:
  static constexpr unsigned int kLifetime = 4;

  void run(const std::string& base, unsigned int steps) {
    std::mt19937 random(GetParam());
    model.clear();
    linesOf([&] { store = std::make_unique<Store>(base, kLifetime); });
    for (unsigned int step = 0; step < steps; ++step) {
      oneStep(random, base);
      SCOPED_TRACE(step);
      if (step % 50 == 0) compare();
      if (HasFatalFailure()) return;
    }
    ASSERT_NO_FATAL_FAILURE(compare());
    store.reset();
  }

  void oneStep(std::mt19937& random, const std::string& base) {
    const auto below = [&random](unsigned int limit) { return static_cast<unsigned int>(random() % limit); };
    const unsigned int id = below(40);
    const unsigned int choice = below(100);
    const unsigned int size = below(choice % 10 == 0 ? 3000 : 60);
    if (choice < 60) return setBoth(id, filled(size, static_cast<unsigned char>(choice)));
    if (choice < 80) return removeBoth(id);
    if (choice < 90) return touchBoth(id, size);
    if (choice < 92) return ageBoth();
    if (choice < 93) store->compact(false);
    if (choice < 96) store = std::make_unique<Store>(base, kLifetime);
    else batchBoth(random);
  }

  void setBoth(unsigned int id, const message& m) {
    store->set(id, m);
    model.try_emplace(id, Expected{m, kLifetime}).first->second.content = m;
  }

  void batchBoth(std::mt19937& random) {
    Store::Messages set;
    std::vector<unsigned int> removed;
    for (auto changes = random() % 20; changes > 0; --changes) {
      const auto id = static_cast<unsigned int>(random() % 40);
      if (random() % 4 == 0) removed.push_back(id);
      else set.insert_or_assign(id, filled(static_cast<unsigned int>(random() % 200)));
    }
    EXPECT_TRUE(store->batch(set, removed));
    for (const unsigned int id : removed)
      if (!set.contains(id)) model.erase(id);
    for (const auto& [id, m] : set) model.try_emplace(id, Expected{m, kLifetime}).first->second.content = m;
  }

  void removeBoth(unsigned int id) { EXPECT_EQ(store->remove(id), model.erase(id) == 1); }

  void touchBoth(unsigned int id, unsigned int lifetime) {
    store->touch(id, lifetime);
    if (const auto found = model.find(id); found != model.end()) found->second.lifetime = lifetime;
  }

  void ageBoth() {
    store->age();
    for (auto& [id, expected] : model) expected.lifetime -= expected.lifetime > 0 ? 1 : 0;
    std::erase_if(model, [](const auto& entry) { return entry.second.lifetime == 0; });
  }

  void compare() {
    ASSERT_EQ(store->entries().size(), model.size());
    for (const auto& [id, expected] : model) {
      ASSERT_TRUE(store->get(id) == expected.content) << "id " << id;
      ASSERT_EQ(store->entries().at(id).lifetime, expected.lifetime) << "id " << id;
    }
  }

  std::unique_ptr<Store> store;
  std::map<unsigned int, Expected> model;
};

TEST_P(StoreModel, HoldsWhatAPlainMapHoldsAndTheSameSeedGivesTheSameFiles) {
  ASSERT_NO_FATAL_FAILURE(run(folder + "/a", 1500));
  ASSERT_NO_FATAL_FAILURE(run(folder + "/b", 1500));
  EXPECT_EQ(readFile(folder + "/a.idx"), readFile(folder + "/b.idx"));
  EXPECT_EQ(readFile(folder + "/a.dat"), readFile(folder + "/b.dat"));
}

INSTANTIATE_TEST_SUITE_P(Seeds, StoreModel, testing::Range(1U, 5U));

}  // namespace

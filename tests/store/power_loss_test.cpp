// A loss of power, simulated: of the writes that were not synced any part is dropped.  With durable lengths the store
// opens, and every entry that was not changed since the last flush is as it was.

#include <sys/stat.h>

#include <map>
#include <random>
#include <set>

#include "kl/runner.h"
#include "kl/store.h"
#include "tests/store/store_files.h"
#include "tests/support/changing_calls.h"

namespace {

using kl::message;
using kl::Store;
using kl::test::Bytes;
using kl::test::FileCall;
using kl::test::filled;
using kl::test::readFile;

constexpr const char* kSuffixes[] = {".idx", ".dat", ".lock"};
constexpr unsigned int kIds = 30;

using Files = std::map<unsigned long long, Bytes>;  // by inode

void apply(Files& files, const FileCall& call) {
  Bytes& file = files[call.inode];
  const auto place = static_cast<std::size_t>(call.place);
  if (call.kind == FileCall::kTruncate) file.resize(place);
  if (call.kind != FileCall::kWrite) return;
  if (file.size() < place + call.bytes.size()) file.resize(place + call.bytes.size());
  std::copy(call.bytes.begin(), call.bytes.end(), file.begin() + static_cast<long>(place));
}

class StorePowerLoss : public kl::test::StoreFiles, public testing::WithParamInterface<unsigned int> {
 protected:
  // A writer's calls, and after each of them which entries were changed since the last flush.
  struct Event {
    FileCall call;
    std::size_t flushes;           // that were complete then
    std::set<unsigned int> burst;  // ids that were changed since
  };

  void SetUp() override {
    kl::test::linesOf([this] { Store(path, 1000); });
    Store store(path, 1000, Store::Durability::kPowerLoss);
    for (unsigned int id = 0; id < kIds; id += 2) change(store, id);
    flush(store);
    for (const char* suffix : kSuffixes) start[inodeOf(suffix)] = readFile(path + suffix);
    record(store);
  }

  void record(Store& store) {
    kl::test::ChangingCalls calls;
    calls.watch([this](const FileCall& call) { events.push_back({call, flushed.size() - 1, burst}); });
    for (unsigned int step = 0; step < 60; ++step) {
      if (random() % 8 == 0) flush(store);
      else change(store, static_cast<unsigned int>(random() % kIds));
    }
  }

  void change(Store& store, unsigned int id) {
    burst.insert(id);
    const auto choice = random() % 10;
    if (choice < 2 && store.entries().count(id) == 1) {
      store.remove(id);
      values.erase(id);
    } else {
      values.insert_or_assign(
          id, filled(static_cast<unsigned int>(random() % 200), static_cast<unsigned char>(choice)));
      store.set(id, values.at(id));
    }
  }

  void flush(Store& store) {
    store.doFlush();
    flushed.push_back(values);
    burst.clear();
  }

  // The files as they may be found after power went behind event `last`.
  Files leftBehind(std::size_t last, std::mt19937& dice) const {
    std::map<unsigned long long, std::size_t> synced;  // the last sync of each file
    for (std::size_t i = 0; i <= last; ++i)
      if (events[i].call.kind == FileCall::kSync) synced[events[i].call.inode] = i;
    Files files = start;
    for (std::size_t i = 0; i <= last; ++i) {
      const auto sync = synced.find(events[i].call.inode);
      const bool isDurable = sync != synced.end() && i < sync->second;
      if (isDurable || dice() % 2 == 0) apply(files, events[i].call);
    }
    return files;
  }

  // In the same files: their inodes count.
  void writeBack(const Files& files) const {
    for (const char* suffix : kSuffixes) kl::test::writeFile(path + suffix, files.at(inodeOf(suffix)));
  }

  void expectOnlyTheBurstIsLost(const Event& event, const std::string& where) {
    EXPECT_EQ(kl::test::linesOf([&] {
                Store store(path, 1000);
                for (unsigned int id = 0; id < kIds; ++id)
                  if (event.burst.count(id) == 0) expectAsFlushed(store, id, flushed[event.flushes]);
              }),
              "")
        << where;
  }

  static void expectAsFlushed(Store& store, unsigned int id,
                              const std::map<unsigned int, message>& expected) {
    const auto value = expected.find(id);
    EXPECT_EQ(store.entries().count(id), value == expected.end() ? 0U : 1U) << "id " << id;
    if (value != expected.end()) {
      EXPECT_TRUE(store.get(id) == value->second) << "id " << id;
    }
  }

  unsigned long long inodeOf(const char* suffix) const {
    struct stat file = {};
    (void)::stat((path + suffix).c_str(), &file);
    return file.st_ino;
  }

  kl::Runner loop;  // so that nothing is synced but by a flush, and nothing compacted
  std::mt19937 random{GetParam()};
  std::map<unsigned int, message> values;
  std::vector<std::map<unsigned int, message>> flushed;
  std::set<unsigned int> burst;
  Files start;
  std::vector<Event> events;
};

TEST_P(StorePowerLoss, CostsAtMostWhatWasChangedSinceTheLastFlush) {
  std::mt19937 dice(GetParam());
  for (std::size_t last = 0; last < events.size(); ++last)
    for (unsigned int round = 0; round < 4; ++round) {
      writeBack(leftBehind(last, dice));
      expectOnlyTheBurstIsLost(events[last],
                               "event " + std::to_string(last) + ", round " + std::to_string(round));
      if (HasFailure()) return;
    }
  RecordProperty("events", static_cast<int>(events.size() * 4));
}

INSTANTIATE_TEST_SUITE_P(Seeds, StorePowerLoss, testing::Range(1U, 6U));

}  // namespace

// A loss of power, simulated: of what was not synced any part is dropped, and of a write some bytes.  With durable
// lengths the store opens, and every entry that was not changed since the last flush is as it was.
//
// A file is what has its inode; its names are durable when the folder is synced.  Every former file is kept under
// another name, so that each inode can be given back its names and its bytes.

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <map>
#include <optional>
#include <random>
#include <set>

#include "kl/runner.h"
#include "kl/store.h"
#include "tests/lib/store/store_files.h"
#include "tests/support/calls/changing_calls.h"

namespace {

using kl::message;
using kl::Store;
using kl::test::Bytes;
using kl::test::FileCall;
using kl::test::filled;

constexpr unsigned int kIds = 30;
constexpr std::size_t kSectorBytes = 512;

using Inode = unsigned long long;

struct Disk {
  std::map<std::string, Inode> names;
  std::map<Inode, Bytes> files;
};

// The bytes of a write that are there.
enum class Part { kAll, kFirst, kSomeSectors };

void write(Bytes& file, const FileCall& call, std::size_t from, std::size_t end) {
  const std::size_t place = static_cast<std::size_t>(call.place);
  if (file.size() < place + end) file.resize(place + end);
  std::copy(call.bytes.begin() + static_cast<long>(from), call.bytes.begin() + static_cast<long>(end),
            file.begin() + static_cast<long>(place + from));
}

void writeSomeSectors(Bytes& file, const FileCall& call, std::mt19937& dice) {
  const std::size_t place = static_cast<std::size_t>(call.place);
  for (std::size_t from = 0; from < call.bytes.size();) {
    const std::size_t left = kSectorBytes - (place + from) % kSectorBytes;
    const std::size_t end = std::min(call.bytes.size(), from + left);
    if (dice() % 2 == 0) write(file, call, from, end);
    from = end;
  }
}

void apply(Disk& disk, const FileCall& call, Part part, std::mt19937& dice) {
  switch (call.kind) {
    case FileCall::kWrite:
      if (part == Part::kSomeSectors) writeSomeSectors(disk.files[call.inode], call, dice);
      else
        write(disk.files[call.inode], call, 0,
              part == Part::kAll ? call.bytes.size() : dice() % call.bytes.size());
      break;
    case FileCall::kTruncate: disk.files[call.inode].resize(static_cast<std::size_t>(call.place)); break;
    case FileCall::kRename:
      disk.names.erase(call.from);
      disk.names[call.to] = call.inode;
      break;
    case FileCall::kUnlink: disk.names.erase(call.from); break;
    case FileCall::kCreate: disk.names[call.from] = call.inode; break;
    case FileCall::kSync: break;
  }
}

bool isOfNames(const FileCall& call) {
  return call.kind == FileCall::kRename || call.kind == FileCall::kUnlink || call.kind == FileCall::kCreate;
}

Inode inodeOf(const std::string& path) {
  struct stat file = {};
  return ::stat(path.c_str(), &file) == 0 ? file.st_ino : 0;
}

class StorePowerLoss : public kl::test::StoreFiles, public testing::WithParamInterface<unsigned int> {
 protected:
  using Values = std::map<unsigned int, message>;

  // A writer's calls, and what holds after each of them.
  struct Event {
    FileCall call;
    std::size_t flushes;           // that were complete then
    std::set<unsigned int> burst;  // ids that were changed since
    bool isEmptied;                // the writer is at it
    std::optional<Values> whole;   // what a batch that the writer is at makes of them
  };

  StorePowerLoss() : kept(folder + "-kept") { std::filesystem::create_directory(kept); }
  ~StorePowerLoss() override {
    std::error_code ignored;
    std::filesystem::remove_all(kept, ignored);
  }

  void SetUp() override {
    kl::test::linesOf([this] { Store(path, 1000); });
    Store store(path, 1000, Store::Durability::kPowerLoss);
    for (unsigned int id = 0; id < kIds; id += 2) change(store, id);
    flush(store);
    for (const char* suffix : {".idx", ".dat", ".lock"}) {
      const std::string name = path + suffix;
      keep(name);
      start.names[name] = inodeOf(name);
      start.files[inodeOf(name)] = kl::test::readFile(name);
    }
    record(store);
  }

  void record(Store& store) {
    std::set<std::string> known = {path + ".lock"};
    kl::test::ChangingCalls calls;
    calls.watch([&](const FileCall& call) {
      if (call.kind == FileCall::kCreate && known.count(call.from) == 1) return;  // it is only opened
      if (call.kind == FileCall::kCreate) keep(call.from);
      events.push_back({call, flushed.size() - 1, burst, isEmptied, whole});
    });
    for (unsigned int step = 0; step < 80; ++step) doSomething(store);
  }

  void doSomething(Store& store) {
    const auto choice = random() % 32;
    if (choice < 4) flush(store);
    else if (choice < 6) compact(store);
    else if (choice == 6) empty(store);
    else if (choice < 10) batch(store);
    else change(store, static_cast<unsigned int>(random() % kIds));
  }

  void change(Store& store, unsigned int id) {
    burst.insert(id);
    const auto choice = random() % 10;
    if (choice < 2 && store.entries().count(id) == 1) {
      store.remove(id);
      values.erase(id);
    } else {
      const auto longest = choice == 9 ? 3000U : 200U;
      values.insert_or_assign(
          id, filled(static_cast<unsigned int>(random() % longest), static_cast<unsigned char>(choice)));
      store.set(id, values.at(id));
    }
  }

  void flush(Store& store) {
    store.doFlush();
    noteDurable();
  }

  // Its new files are durable before they are renamed.
  void compact(Store& store) {
    store.compact(false);
    noteDurable();
    ++compactions;
  }

  void empty(Store& store) {
    isEmptied = true;
    store.restart();
    isEmptied = false;
    values.clear();
    noteDurable();
    ++emptyings;
  }

  // Everything before it is durable with it.
  void batch(Store& store) {
    Values after = values;
    Store::Messages set;
    std::vector<unsigned int> removed;
    for (unsigned int id = 0; id < kIds; ++id) {
      const auto choice = random() % 4;
      if (choice == 0 && after.erase(id) == 1) removed.push_back(id);
      if (choice != 1) continue;
      after.insert_or_assign(id, filled(static_cast<unsigned int>(random() % 300), 7));
      set.insert_or_assign(id, after.at(id));
    }
    whole = after;
    EXPECT_TRUE(store.batch(set, removed));
    whole.reset();
    values = after;
    noteDurable();
    ++batches;
  }

  void noteDurable() {
    flushed.push_back(values);
    burst.clear();
  }

  // The files as they may be found after power went behind event `last`.
  Disk leftBehind(std::size_t last, std::mt19937& dice) const {
    std::map<Inode, std::size_t> synced;  // the last sync of each file, and of the folder
    for (std::size_t i = 0; i <= last; ++i)
      if (events[i].call.kind == FileCall::kSync) synced[events[i].call.inode] = i;
    Disk disk = start;
    for (std::size_t i = 0; i <= last; ++i) {
      const FileCall& call = events[i].call;
      const auto sync = synced.find(isOfNames(call) ? inodeOf(folder) : call.inode);
      const bool isDurable = sync != synced.end() && i < sync->second;
      if (const auto fate = dice() % 8; isDurable || fate < 3) apply(disk, call, Part::kAll, dice);
      else if (fate < 4 && call.kind == FileCall::kWrite) apply(disk, call, Part::kFirst, dice);
      else if (fate < 5 && call.kind == FileCall::kWrite) apply(disk, call, Part::kSomeSectors, dice);
    }
    return disk;
  }

  void keep(const std::string& name) const { (void)::link(name.c_str(), keptName(inodeOf(name)).c_str()); }
  std::string keptName(Inode inode) const { return kept + "/" + std::to_string(inode); }

  void writeBack(const Disk& disk) const {
    for (const auto& name : std::filesystem::directory_iterator(folder)) std::filesystem::remove(name);
    for (const auto& [name, inode] : disk.names) {
      const auto content = disk.files.find(inode);
      kl::test::writeFile(keptName(inode), content == disk.files.end() ? Bytes() : content->second);
      ASSERT_EQ(::link(keptName(inode).c_str(), name.c_str()), 0) << name;
    }
  }

  void expectOnlyTheBurstIsLost(const Event& event, const std::string& where) {
    bool isEmpty = false;
    const std::string lines = kl::test::linesOf([&] {
      Store store(path, 1000);
      isEmpty = isEmptyStore(store);
      if (isEmpty && event.isEmptied) return;
      if (event.whole && holds(store, *event.whole)) return;
      for (unsigned int id = 0; id < kIds; ++id)
        if (event.burst.count(id) == 0) expectAsFlushed(store, id, flushed[event.flushes]);
    });
    if (isEmpty && event.isEmptied) return;  // and it may say why
    EXPECT_EQ(lines, "") << where;
  }

  // The old index may be found beside the new data file; it fits if none of its slots has come to disk.
  static bool isEmptyStore(const Store& store) {
    return std::all_of(store.entries().begin(), store.entries().end(),
                       [](const auto& entry) { return entry.second.size == 0; });
  }

  static bool holds(Store& store, const Values& expected) {
    bool isSame = store.entries().size() == expected.size();
    for (const auto& [id, value] : expected)
      isSame = isSame && store.entries().count(id) == 1 && store.get(id) == value;
    return isSame;
  }

  static void expectAsFlushed(Store& store, unsigned int id, const Values& expected) {
    const auto value = expected.find(id);
    EXPECT_EQ(store.entries().count(id), value == expected.end() ? 0U : 1U) << "id " << id;
    if (value != expected.end()) {
      EXPECT_TRUE(store.get(id) == value->second) << "id " << id;
    }
  }

  kl::Runner loop;  // so that nothing is synced but by a flush, and nothing compacted by itself
  std::mt19937 random{GetParam()};
  std::string kept;
  Values values;
  std::vector<Values> flushed;
  std::set<unsigned int> burst;
  bool isEmptied = false;
  std::optional<Values> whole;
  unsigned int compactions = 0;
  unsigned int batches = 0;
  unsigned int emptyings = 0;
  Disk start;
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
  EXPECT_GT(compactions + emptyings, 0U);
  RecordProperty("events", static_cast<int>(events.size() * 4));
  RecordProperty("compactions", static_cast<int>(compactions));
  RecordProperty("emptyings", static_cast<int>(emptyings));
  RecordProperty("batches", static_cast<int>(batches));
}

INSTANTIATE_TEST_SUITE_P(Seeds, StorePowerLoss, testing::Range(1U, 9U));

}  // namespace

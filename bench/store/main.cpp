// The store beside the bare writes that it cannot do without, in one open-lock-unlock-close bracket; beside SQLite
// and LMDB as well.  A Runner that never runs keeps the store from syncing; the others are told not to sync.
//
// New entries are removed again, and what is removed was set just before, so that the number of entries stays; only one
// of both is measured.  Overwriting leaves a store's index alone; what makes it safe against being killed is measured
// against the second write of the limit.  Reopening is an opening, a look at one entry and a closing.
//
// With many free slots, what is set takes the first one behind all that are too small, and reopening finds all of them.
//
// "bare intent" is what a store cannot do without: the same bracket with a look at the lock file, a write
// of what will be written to it and its truncation.  On a file system with blocks a file that grows from nothing and
// becomes nothing again costs more than all the rest.

#include <algorithm>
#include <fstream>
#include <memory>

#include "bench/store/files.h"
#include "bench/store/free_slots.h"
#include "bench/store/peers.h"
#include "bench/support/paired.h"
#include "kl/runner.h"
#include "kl/store.h"

namespace {

using bench::Batch;
using bench::Work;

class Product {
 public:
  Product(const bench::Folder& folder, unsigned int count, unsigned int bytes)
      : path_(emptyStore(folder)), message_(bench::messageOf(bytes)), store_(path_, 3) {
    for (unsigned int id = 0; id < count; ++id) set(id);
  }
  void set(unsigned int id) { store_.set(id, message_); }
  void setAll(const std::vector<unsigned int>& ids) {
    kl::Store::Messages messages;
    for (const unsigned int id : ids) messages.emplace_hint(messages.end(), id, message_);
    bench::require(store_.batch(messages), "batch");
  }
  void get(unsigned int id) { (void)store_.get(id); }
  void remove(unsigned int id) { store_.remove(id); }
  void reopen() { (void)kl::Store(path_, 3).get(0); }

 private:
  // A store without its files says so on standard output, where the figures go.
  static std::string emptyStore(const bench::Folder& folder) {
    std::ofstream(folder.file("store.idx"));
    std::ofstream(folder.file("store.dat"));
    return folder.file("store");
  }

  std::string path_;
  kl::message message_;
  kl::Store store_;
};

// All of one number of entries of one size, made when the first of its cases runs.
struct Systems {
  Systems(unsigned int entries, unsigned int bytes)
      : count(entries),
        value(bench::messageOf(bytes).flattened()),
        bare(folder, entries, value),
        bareWithIntent(bare),
        product(folder, entries, bytes),
        sqlite(folder, entries, value),
        lmdb(folder, entries, value) {}

  unsigned int next() { return static_cast<unsigned int>((step_ += 7919) % count); }
  std::vector<unsigned int> nextHundred() {
    std::vector<unsigned int> ids(100);
    for (unsigned int& id : ids) id = next();
    std::sort(ids.begin(), ids.end());
    return ids;
  }

  unsigned int count;
  bench::Folder folder;
  std::vector<unsigned char> value;
  bench::BareFiles bare;
  bench::BareFilesWithIntent bareWithIntent;
  Product product;
  bench::Sqlite sqlite;
  bench::Lmdb lmdb;

 private:
  unsigned long long step_ = 0;
};

// A store with many free slots, and a limit with as many.  Those that are large enough are many, too, so that the store is
// seldom opened anew between two measurements; it would be found with cold caches.
struct FreeSlotSystems {
  FreeSlotSystems(unsigned int count, unsigned int bytes)
      : toSet(folder.file("set"), count, 4096, bytes),
        toReopen(folder.file("reopen"), count, 0, bytes),
        bare(folder, count, bench::messageOf(bytes).flattened()),
        bareWithIntent(bare) {}

  bench::Folder folder;
  bench::StoreWithFreeSlots toSet;
  bench::StoreWithFreeSlots toReopen;
  bench::BareFiles bare;
  bench::BareFilesWithIntent bareWithIntent;
};

template <class Systems>
class Lazy {
 public:
  Lazy(unsigned int count, unsigned int bytes) : count_(count), bytes_(bytes) {}
  Systems& get() {
    if (!systems_) systems_ = std::make_unique<Systems>(count_, bytes_);
    return *systems_;
  }

 private:
  unsigned int count_;
  unsigned int bytes_;
  std::unique_ptr<Systems> systems_;
};

class Cases {
 public:
  Cases(const std::string& title, unsigned int count, unsigned int bytes)
      : title_(title), hasBatches_(count >= 1'000), systems_(std::make_shared<Lazy<Systems>>(count, bytes)) {}

  void add() {
    const auto nothing = [](auto&, Systems&, unsigned) {};
    const auto setNew = [](auto& system, Systems& all, unsigned times) {
      for (unsigned i = 0; i < times; ++i) system.set(all.count + i);
    };
    const auto removeNew = [](auto& system, Systems& all, unsigned times) {
      for (unsigned i = 0; i < times; ++i) system.remove(all.count + i);
    };
    const auto overwrite = [](auto& system, Systems& all, unsigned times) {
      for (unsigned i = 0; i < times; ++i) system.set(all.next());
    };
    const auto get = [](auto& system, Systems& all, unsigned times) {
      for (unsigned i = 0; i < times; ++i) system.get(all.next());
    };
    const auto setAll = [](auto& system, Systems& all, unsigned times) {
      for (unsigned i = 0; i < times; ++i) system.setAll(all.nextHundred());
    };
    const auto reopen = [](auto& system, Systems&, unsigned times) {
      for (unsigned i = 0; i < times; ++i) system.reopen();
    };
    addChange("set new", setNew, nothing, removeNew);
    addChange("overwrite", overwrite, nothing, nothing);
    addCase("get", get, nothing, nothing);
    addChange("remove", removeNew, setNew, nothing);
    addCase("reopen", reopen, nothing, nothing);
    if (hasBatches_)
      addCase("batch of 100", setAll, nothing, nothing);  // the last: it leaves the slots in disorder
  }

 private:
  template <class System, class Operation>
  Batch batch(System Systems::*system, Operation operation) {
    return [systems = systems_, system, operation](unsigned times) {
      Systems& all = systems->get();
      operation(all.*system, all, times);
    };
  }

  // How one system does it.
  template <class System, class Run, class Before, class After>
  Work work(System Systems::*system, Run run, Before before, After after) {
    return {batch(system, run), batch(system, before), batch(system, after)};
  }

  template <class Run, class Before, class After>
  void addChange(const std::string& name, Run run, Before before, After after) {
    addCase(name, run, before, after);
    bench::addPair(name + ", " + title_ + ": bare intent", work(&Systems::bareWithIntent, run, before, after),
                   work(&Systems::bare, run, before, after));
  }

  template <class Run, class Before, class After>
  void addCase(const std::string& name, Run run, Before before, After after) {
    const std::string title = name + ", " + title_;
    const Work limit = work(&Systems::bare, run, before, after);
    bench::addPair(title, work(&Systems::product, run, before, after), limit);
    bench::addPair(title + ": SQLite", work(&Systems::sqlite, run, before, after), limit);
    bench::addPair(title + ": LMDB", work(&Systems::lmdb, run, before, after), limit);
  }

  std::string title_;
  bool hasBatches_;
  std::shared_ptr<Lazy<Systems>> systems_;
};

void addFreeSlots(const std::string& title, unsigned int count) {
  const auto systems = std::make_shared<Lazy<FreeSlotSystems>>(count, 200);
  const auto setAll = [count](auto& files, unsigned times) {
    for (unsigned i = 0; i < times; ++i) files.set(count + i);
  };
  const auto set = [=](unsigned times) {
    for (unsigned i = 0; i < times; ++i) systems->get().toSet.setNew();
  };
  const auto freeAgain = [=](unsigned times) { systems->get().toSet.freeAgain(times); };
  const Work limit{[=](unsigned times) { setAll(systems->get().bare, times); }};
  const Work intent{[=](unsigned times) { setAll(systems->get().bareWithIntent, times); }};
  bench::addPair("set new, " + title, Work{set, freeAgain}, limit);
  bench::addPair("set new, " + title + ": bare intent", intent, limit);
  bench::addPair("reopen, " + title, bench::repeated([=] { systems->get().toReopen.reopen(); }),
                 bench::repeated([=] { systems->get().bare.reopen(); }));
}

}  // namespace

int main(int argc, char** argv) {
  static const kl::Runner runner;
  Cases("100 of 200 B", 100, 200).add();
  Cases("10,000 of 200 B", 10000, 200).add();
  Cases("100,000 of 200 B", 100000, 200).add();
  Cases("100 of 2 KB", 100, 2048).add();
  Cases("10,000 of 2 KB", 10000, 2048).add();
  Cases("100,000 of 2 KB", 100000, 2048).add();
  addFreeSlots("1,000 free slots", 1000);
  addFreeSlots("100,000 free slots", 100000);
  bench::notePeer("SQLite", sqlite3_libversion());
  bench::notePeer("LMDB", bench::Lmdb::version());
  return bench::run(argc, argv);
}

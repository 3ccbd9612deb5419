#pragma once
// killed_writer.h: what a writer does to a store step by step, and a process that does it until a script ends it.

#include <functional>
#include <optional>
#include <vector>

#include "kl/store.h"
#include "tests/lib/store/store_files.h"
#include "tests/support/calls/changing_calls.h"

namespace kl::test {

constexpr unsigned int kLifetime = 5;
constexpr unsigned int kIds = 100;  // entries have lower ones

// The content of a store under one id: nothing, or this.
struct Value {
  message content;
  unsigned int lifetime;

  bool operator==(const Value& other) const { return content == other.content && lifetime == other.lifetime; }
};
using State = std::optional<Value>;
State stateOf(Store& store, unsigned int id);

// One operation, on a store and on the state of any one entry.
struct Step {
  std::function<void(Store&)> onStore;
  std::function<State(unsigned int id, const State& before)> onEntry;
};
using Steps = std::vector<Step>;

Step setting(unsigned int id, const message& m);
Step removal(unsigned int id);
Step touching(unsigned int id, unsigned int lifetime);
Step ageing();
Step compaction();

// Ids 0 to 9 are set.
Steps someEntries();

class KilledWriter : public StoreFiles {
 protected:
  // How far the writer has come, seen from outside.
  struct Progress {
    unsigned int begun;
    unsigned int done;
    unsigned int firstFailure;           // the changing call at which a write first failed; 0: none did
    unsigned long long stepsThatFailed;  // a bit for each step during which a write failed
  };

  KilledWriter();
  ~KilledWriter() override;

  // A store as prepare() leaves it, for a writer that has done nothing yet.
  void begin();
  void carryOut(const Steps& steps, Store& store);

  // Runs the steps on a store as prepare() leaves it, in a process of its own.  False if that came to its end.
  bool isKilled(const Steps& steps, const std::function<void(ChangingCalls&)>& script);

  // Opens the store as it was left, says nothing, and leaves the three files at rest.
  void expectStates(const std::function<bool(Store& store, unsigned int id)>& isExpected,
                    const std::string& where);

  // The ten entries.
  virtual void prepare();
  virtual State initial(unsigned int id) const;

  bool hasFailed(std::size_t step) const { return (progress->stepsThatFailed >> step & 1) != 0; }

  Progress* progress;
  Store::Durability durability = Store::Durability::kFlushed;
  unsigned int events = 0;
};

}  // namespace kl::test

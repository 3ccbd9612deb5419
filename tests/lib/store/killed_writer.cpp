#include "tests/lib/store/killed_writer.h"

#include <sys/mman.h>

#include <filesystem>

#include "tests/support/process/child.h"

namespace kl::test {
namespace {

// A step that changes one entry only.
Step ofOne(unsigned int id, std::function<void(Store&)> onStore, std::function<State(const State&)> onEntry) {
  return {std::move(onStore), [id, onEntry = std::move(onEntry)](unsigned int entry, const State& before) {
            return entry == id ? onEntry(before) : before;
          }};
}

}  // namespace

State stateOf(Store& store, unsigned int id) {
  const auto at = store.entries().find(id);
  if (at == store.entries().end()) return std::nullopt;
  return Value{store.get(id), at->second.lifetime};
}

Step setting(unsigned int id, const message& m) {
  return ofOne(
      id, [=](Store& store) { store.set(id, m); },
      [=](const State& before) {
        return Value{m, before ? before->lifetime : kLifetime};
      });
}

Step removal(unsigned int id) {
  return ofOne(
      id, [=](Store& store) { store.remove(id); }, [](const State&) { return State(); });
}

Step touching(unsigned int id, unsigned int lifetime) {
  return ofOne(
      id, [=](Store& store) { store.touch(id, lifetime); },
      [=](const State& before) {
        return before ? Value{before->content, lifetime} : before;
      });
}

Step ageing() {
  return {[](Store& store) { store.age(); },
          [](unsigned int, const State& before) {
            return before && before->lifetime > 1 ? Value{before->content, before->lifetime - 1} : State();
          }};
}

Step compaction() {
  return {[](Store& store) { store.compact(false); },
          [](unsigned int, const State& before) { return before; }};
}

Steps someEntries() {
  Steps steps;
  for (unsigned int id = 0; id < 10; ++id)
    steps.push_back(setting(id, filled(20 + 10 * id, static_cast<unsigned char>(id))));
  return steps;
}

KilledWriter::KilledWriter()
    : progress(static_cast<Progress*>(
          ::mmap(nullptr, sizeof(Progress), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0))) {}
KilledWriter::~KilledWriter() { ::munmap(progress, sizeof(Progress)); }

void KilledWriter::begin() {
  std::filesystem::remove_all(folder);
  std::filesystem::create_directory(folder);
  prepare();
  *progress = {};
}

void KilledWriter::carryOut(const Steps& steps, Store& store) {
  for (const Step& step : steps) {
    ++progress->begun;
    step.onStore(store);
    ++progress->done;
  }
}

bool KilledWriter::isKilled(const Steps& steps, const std::function<void(ChangingCalls&)>& script) {
  begin();
  const auto result = runInChild([&] {
    ChangingCalls calls;
    calls.whenOneFails([&] {
      if (progress->firstFailure == 0) progress->firstFailure = calls.calls();
      if (progress->begun > 0) progress->stepsThatFailed |= 1ULL << (progress->begun - 1);
    });
    script(calls);
    Store store(path, kLifetime, durability);
    carryOut(steps, store);
  });
  return result.exitStatus == ChangingCalls::kEndStatus;
}

void KilledWriter::expectStates(const std::function<bool(Store& store, unsigned int id)>& isExpected,
                                const std::string& where) {
  const std::string lines = linesOf([&] {
    Store store(path, kLifetime);
    for (unsigned int id = 0; id < kIds; ++id) ASSERT_TRUE(isExpected(store, id)) << where << ", id " << id;
  });
  ASSERT_EQ(lines, "") << where;
  EXPECT_TRUE(lockBytes().empty()) << where;
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(folder), {}), 3) << where;
}

void KilledWriter::prepare() {
  linesOf([this] {
    Store store(path, kLifetime);
    for (const Step& step : someEntries()) step.onStore(store);
  });
}

State KilledWriter::initial(unsigned int id) const {
  State state;
  for (const Step& step : someEntries()) state = step.onEntry(id, state);
  return state;
}

}  // namespace kl::test

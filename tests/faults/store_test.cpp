// A store while the system refuses: it says so in the fixed lines, it opens again, and nothing is lost but the entry
// in flight, or what a fixed line announces.

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <functional>
#include <map>
#include <optional>
#include <sstream>

#include "kl/runner.h"
#include "kl/store.h"
#include "tests/lib/store/store_files.h"
#include "tests/support/calls/faults.h"

namespace {

using kl::message;
using kl::Store;
using kl::test::exposed;
using kl::test::FaultRun;
using kl::test::filled;
using kl::test::linesOf;

// The values that may be under each number: more than one once a step told a failure, an empty message for none.
class Model {
 public:
  void set(unsigned int id, const message& m, bool isCertain) { change(id, m, isCertain); }
  void remove(unsigned int id, bool isCertain) { change(id, message(), isCertain); }
  void forgetAll() {
    for (auto& [id, values] : values_) values.emplace_back();
  }
  bool allows(unsigned int id, const message& m) const {
    const auto found = values_.find(id);
    if (found == values_.end()) return m == message();
    for (const message& value : found->second)
      if (value == m) return true;
    return false;
  }

 private:
  void change(unsigned int id, const message& m, bool isCertain) {
    std::vector<message>& values = values_[id];
    if (isCertain) values.clear();
    else values.emplace_back();
    values.push_back(m);
  }

  std::map<unsigned int, std::vector<message>> values_;
};

// A fault in the copying of a compaction, or in the reading of the index, empties a store.
bool empties(const std::string& lines) {
  static const char* const kLines[] = {"STORE: compact read failed",
                                       "STORE: compact write failed",
                                       "STORE: compact lseek failed",
                                       "STORE: readIndex",
                                       "STORE: openIdx",
                                       "STORE: restart"};
  return std::any_of(std::begin(kLines), std::end(kLines),
                     [&](const char* line) { return lines.find(line) != std::string::npos; });
}

class StoreFaultsOnPurpose : public kl::test::StoreFiles {
 protected:
  // The lines of one exposed step.
  std::string step(const std::function<void()>& body) {
    const std::string lines = linesOf([&] { exposed(body); });
    all += lines;
    if (empties(lines)) model.forgetAll();
    return lines;
  }

  void set(unsigned int id, const message& m) {
    const std::string lines = step([&] { store->set(id, m); });
    model.set(id, m, lines.empty());
  }
  void remove(unsigned int id) {
    const std::string lines = step([&] { (void)store->remove(id); });
    model.remove(id, lines.empty());
  }
  void open() {
    step([&] { store.emplace(path, 9); });
  }

  // Opened again without faults, the store has what the model allows.
  void expectOpens() {
    store.reset();
    std::string lines = linesOf([&] { store.emplace(path, 9); });
    std::string found;
    lines += linesOf([&] {
      for (unsigned int id = 0; id < 40; ++id)
        if (!model.allows(id, store->get(id))) found += " " + std::to_string(id);
    });
    const bool hasFiles = all.find("STORE: restart open") == std::string::npos;
    EXPECT_EQ(lines, hasFiles ? "" : "STORE: openIdx failed\n") << all;
    EXPECT_EQ(found, "") << all;
    store.reset();
    if (!all.empty()) std::fprintf(stderr, "%s", all.c_str());
  }

  void fill() {
    linesOf([this] {
      Store fresh(path, 9);
      for (unsigned int id = 0; id < 10; ++id) {
        fresh.set(id, filled(30 + id));
        model.set(id, filled(30 + id), true);
      }
    });
  }

  void expectFixedLines(const FaultRun& run) {
    EXPECT_EQ(run.child.exitStatus, 0);
    std::istringstream lines(run.child.err);
    for (std::string line; std::getline(lines, line);) EXPECT_EQ(line.rfind("STORE: ", 0), 0U) << line;
  }

  unsigned int tryAll(const std::function<void()>& scenario) {
    return kl::test::forEachFault(
        kl::test::everyFault(),
        [&] {
          std::filesystem::remove_all(folder);
          std::filesystem::create_directory(folder);
          scenario();
          expectOpens();
        },
        [&](const FaultRun& run) { expectFixedLines(run); });
  }

  std::optional<Store> store;
  Model model;
  std::string all;
};

TEST_F(StoreFaultsOnPurpose, ChangesAreToldOrDone) {
  EXPECT_GE(tryAll([this] {
              fill();
              open();
              set(3, filled(20));
              set(3, filled(300));
              set(20, filled(40));
              remove(5);
              set(21, filled(10));
              set(22, filled(500));
              step([&] { store->touch(22, 30); });
            }),
            100U);
}

TEST_F(StoreFaultsOnPurpose, AgeingRemovesOnlyWhatIsOld) {
  EXPECT_GE(tryAll([this] {
              fill();
              open();
              linesOf([&] { store->touch(2, 1); });
              const std::string lines = step([&] { store->age(); });
              model.remove(2, lines.empty());
            }),
            50U);
}

TEST_F(StoreFaultsOnPurpose, ACompactionKeepsEverythingOrSaysThatItDidNot) {
  EXPECT_GE(tryAll([this] {
              fill();
              open();
              linesOf([&] {
                for (const unsigned int id : {1U, 4U, 6U}) {
                  store->remove(id);
                  model.remove(id, true);
                }
              });
              step([&] { store->compact(false); });
              set(30, filled(60));
            }),
            30U);
}

TEST_F(StoreFaultsOnPurpose, AFreshStoreIsMadeOrIsEmpty) {
  EXPECT_GE(tryAll([this] {
              path = folder + "/deeper/s";
              open();
              set(1, filled(20));
            }),
            20U);
}

TEST_F(StoreFaultsOnPurpose, TheOlderLayoutIsConvertedOrLeft) {
  EXPECT_GE(tryAll([this] {
              writeIdx("00000011 00000009 00000003  ffffffff 00000005 00000007  00000002 0000000b 00000001");
              writeDat("0009 4d32 05000009 07  0000000000  0009 4d32 05000009 08 aaaa");
              model.set(17, kl::test::number(7), true);
              model.set(2, kl::test::number(8), true);
              open();
              set(30, filled(60));
            }),
            30U);
}

TEST_F(StoreFaultsOnPurpose, AFlushThatFailsLosesNothing) {
  EXPECT_GE(tryAll([this] {
              fill();
              const kl::Runner loop;
              open();
              set(3, filled(300));
              step([&] { store->doFlush(); });
            }),
            20U);
}

}  // namespace

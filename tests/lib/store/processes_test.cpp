// Two processes with one store.

#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <new>

#include "kl/runner.h"
#include "kl/store.h"
#include "tests/lib/store/store_files.h"
#include "tests/support/hex.h"
#include "tests/support/process/child_process.h"

namespace {

using kl::Store;
using kl::test::ChildProcess;
using kl::test::filled;
using kl::test::linesOf;

// The memory that both processes see.
struct Shared {
  std::atomic<bool> mayEnd{false};
  std::atomic<unsigned int> rounds{0};
};

class StoreProcesses : public kl::test::StoreFiles {
 protected:
  StoreProcesses()
      : shared(new (::mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1,
                           0)) Shared) {}
  ~StoreProcesses() override { ::munmap(shared, sizeof(Shared)); }

  void SetUp() override {
    linesOf([this] {
      Store store(path, 3);
      for (unsigned int id = 0; id < 20; ++id) store.set(id, filled(50 + id));
    });
  }

  // A process that runs `round` until it is told to end.
  template <class Body>
  ChildProcess startWriter(Store::Durability durability, Body round) {
    return ChildProcess([&] {
      Store store(path, 3, durability);
      while (!shared->mayEnd) {
        round(store, shared->rounds);
        ++shared->rounds;
      }
      ::_exit(0);
    });
  }

  int end(ChildProcess& writer) {
    shared->mayEnd = true;
    return writer.waitForEnd();
  }

  // Opens the store a thousand times beside a writer of entries 100 and up.
  void openBeside(ChildProcess writer) {
    while (shared->rounds < 1) {
    }
    const std::string lines = linesOf([&] {
      kl::Runner loop;  // the writer's compactions are enough
      for (unsigned int i = 0; i < 1000; ++i) {
        Store store(path, 3);
        for (unsigned int id = 0; id < 20; ++id) ASSERT_EQ(store.entries().count(id), 1U) << "opening " << i;
      }
    });
    EXPECT_EQ(lines, "");
    EXPECT_EQ(end(writer), 0);
    Store store(path, 3);
    for (unsigned int id = 0; id < 20; ++id) EXPECT_TRUE(store.get(id) == filled(50 + id));
  }

  static void oneRound(Store& store, unsigned int round) {
    const unsigned int id = 100 + round % 7;
    store.set(id, filled(round % 300));
    if (round % 3 == 0) store.remove(100 + round % 5);
    if (round % 5 == 0) store.touch(id, round);
  }

  Shared* shared;
};

TEST_F(StoreProcesses, AThousandOpenersBesideABusyWriterNeverEmptyTheStore) {
  openBeside(startWriter(Store::Durability::kFlushed, oneRound));
}

TEST_F(StoreProcesses, AThousandOpenersBesideAWriterOfDurableLengths) {
  openBeside(startWriter(Store::Durability::kPowerLoss, oneRound));
}

TEST_F(StoreProcesses, AStoreThatWasOpenedBeforeACompactionDoesNotSpoilTheNewFiles) {
  Store early(path, 3);
  Store other(path, 3);
  other.remove(4);
  other.compact(false);
  EXPECT_EQ(linesOf([&] {
              early.set(200, filled(80));
              EXPECT_EQ(Store(path, 3).entries().size(), 19U);
            }),
            "");
}

TEST_F(StoreProcesses, BlobsOfTwoWritersStayWhole) {
  const auto rewrite = [](Store& store, unsigned int round) {
    store.set(3, filled(53, static_cast<unsigned char>(round)));
  };
  ChildProcess other = startWriter(Store::Durability::kFlushed, rewrite);
  Store store(path, 3);
  for (unsigned int i = 0; i < 500; ++i) {
    store.set(3, filled(53, static_cast<unsigned char>(i)));
    store.touch(4, i + 10);
  }
  EXPECT_EQ(end(other), 0);
  kl::test::Bytes content = store.get(3).get_raw(0x30000001, {});
  ASSERT_EQ(content.size(), 53U);
  EXPECT_TRUE(store.get(3) == filled(53, content[0]));
}

}  // namespace

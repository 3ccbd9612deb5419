// What a store does when its files take no more: the size of files is limited for the length of one call.
// The limit holds for captured lines, too, so it is never a small one.

#include <sys/resource.h>

#include <csignal>

#include "kl/store.h"
#include "tests/store/store_files.h"

namespace {

using kl::message;
using kl::Store;
using kl::test::filled;
using kl::test::linesOf;
using kl::test::number;

// While it lives, no file of this process grows beyond `bytes`.
class FileSizeLimit {
 public:
  explicit FileSizeLimit(rlim_t bytes) : oldAction_(std::signal(SIGXFSZ, SIG_IGN)) {
    ::getrlimit(RLIMIT_FSIZE, &old_);
    const rlimit limit{bytes, old_.rlim_max};
    ::setrlimit(RLIMIT_FSIZE, &limit);
  }
  ~FileSizeLimit() {
    ::setrlimit(RLIMIT_FSIZE, &old_);
    (void)std::signal(SIGXFSZ, oldAction_);
  }

 private:
  rlimit old_;
  void (*oldAction_)(int);
};

class StoreFaults : public kl::test::StoreFiles {
 protected:
  void SetUp() override {
    linesOf([this] { Store(path, 3); });
  }

  // The lines of one set() with files of at most `limit` bytes.
  static std::string linesOfSet(Store& store, unsigned int id, const message& m, rlim_t limit) {
    return linesOf([&] {
      const FileSizeLimit full(limit);
      store.set(id, m);
    });
  }
};

TEST_F(StoreFaults, ASetThatFailsLeavesAFreeSlotThatDoesNotCount) {
  Store store(path, 3);
  for (unsigned int id = 0; id < 9; ++id) store.set(id, filled(20));
  const auto full = kl::test::readFile(path + ".dat").size();
  EXPECT_EQ(linesOfSet(store, 100, filled(500), full), "STORE: writeMsg write header failed\n");
  EXPECT_EQ(store.entries().count(100), 0U);
  for (unsigned int id = 0; id < 8; ++id) store.remove(id);
  EXPECT_EQ(kl::test::readFile(path + ".idx").size(), 12U * 10);
  store.set(200, filled(400));
  EXPECT_EQ(store.entries().at(200).slot, 9U);
}

TEST_F(StoreFaults, AMessageThatFitsInPartIsReportedAsAFailedWrite) {
  Store store(path, 3);
  EXPECT_EQ(linesOfSet(store, 1, filled(500), 100), "STORE: writeMsg write failed\n");
  EXPECT_TRUE(store.entries().empty());
}

TEST_F(StoreFaults, AnIndexThatTakesNoMoreIsReportedForTheEntryAndForItsSlot) {
  Store store(path, 3);
  for (unsigned int id = 0; id < 200; ++id) store.set(id, number(1));  // 2400 bytes of index, 1800 of data
  EXPECT_EQ(linesOfSet(store, 200, number(2), 2400),
            "STORE: writeIndexent write failed\nSTORE: writeIndexent write failed\n");
  EXPECT_EQ(store.entries().size(), 200U);
  EXPECT_TRUE(store.get(199) == number(1));
}

}  // namespace

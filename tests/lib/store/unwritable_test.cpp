// A store whose files may not be written.  Privileges are dropped, so that this holds for root as well.

#include <linux/capability.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <optional>

#include "kl/runner.h"
#include "kl/store.h"
#include "tests/lib/store/store_files.h"
#include "tests/support/hex.h"
#include "tests/support/process/child.h"

namespace {

using kl::message;
using kl::Store;
using kl::test::bytes;
using kl::test::filled;
using kl::test::hex;
using kl::test::linesOf;
using kl::test::number;

constexpr mode_t kReadOnly = 0400;
constexpr mode_t kWritable = 0600;
constexpr mode_t kReadOnlyFolder = 0500;
constexpr mode_t kWritableFolder = 0700;

const std::string kNoLock = "STORE: lock open failed\nSTORE: lock fnctl failed\n";
const std::string kNoUnlock = "STORE: unlock fnctl failed\n";

// The bits of files hold for this process from now on.
void dropPrivileges() {
  __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
  __user_cap_data_struct none[2] = {};
  EXPECT_EQ(::syscall(SYS_capset, &header, none), 0);
}

// Three entries.
class StoreUnwritable : public kl::test::StoreFiles {
 protected:
  void SetUp() override {
    linesOf([this] {
      Store store(path, 3);
      for (unsigned int id = 1; id <= 3; ++id) store.set(id, number(id));
    });
    index = idx();
    data = dat();
  }
  void TearDown() override { allow(folder, kWritableFolder); }

  static void allow(const std::string& name, mode_t mode) { EXPECT_EQ(::chmod(name.c_str(), mode), 0); }

  // Runs `body` in a process without privileges, and fails with what it fails.
  template <class Body>
  static void withoutPrivileges(Body body) {
    const auto result = kl::test::runInChild([&] {
      dropPrivileges();
      body();
    });
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(result.exitStatus, 0);
  }

  // Writable again, the store says nothing and has this many entries.
  void expectOpens(std::size_t count) {
    for (const char* suffix : {".idx", ".dat", ".lock"}) allow(path + suffix, kWritable);
    allow(folder, kWritableFolder);
    EXPECT_EQ(linesOf([&] { EXPECT_EQ(Store(path, 3).entries().size(), count); }), "");
  }

  std::string index;
  std::string data;
};

TEST_F(StoreUnwritable, AnIndexIsReplacedByAnEmptyOne) {
  allow(path + ".idx", kReadOnly);
  withoutPrivileges([&] {
    EXPECT_EQ(linesOf([&] {
                Store store(path, 3);
                EXPECT_TRUE(store.entries().empty());
                store.set(9, number(9));
              }),
              "STORE: openIdx failed\n");
  });
  EXPECT_EQ(idx(), hex(bytes("09000000 09000000 03000000")));
  EXPECT_EQ(dat(), hex(bytes("0900 4d32 05000009 09")));
}

TEST_F(StoreUnwritable, ADataFileIsMissedWithEveryMessageAndNothingElse) {
  allow(path + ".dat", kReadOnly);
  withoutPrivileges([&] {
    const kl::Runner loop;
    std::optional<Store> store;
    EXPECT_EQ(linesOf([&] { store.emplace(path, 3); }), "");
    EXPECT_EQ(linesOf([&] { EXPECT_TRUE(store->get(1) == message()); }),
              "STORE: openData failed\nSTORE: readMsg lseek failed\n");
    EXPECT_EQ(linesOf([&] { store->set(1, number(9)); }), "STORE: openData failed\n");  // in its slot
    EXPECT_EQ(linesOf([&] { store->compact(false); }), "STORE: openData failed\n");
    EXPECT_EQ(store->entries().size(), 3U);
    EXPECT_EQ(linesOf([&] { store->touch(2, 7); }), "");
    EXPECT_EQ(linesOf([&] { EXPECT_TRUE(store->remove(1)); }), "");
    EXPECT_EQ(linesOf([&] { store->set(9, filled(40)); }), "STORE: openData failed\n");
    EXPECT_EQ(store->entries().count(9), 0U);
  });
  expectOpens(2);
  EXPECT_EQ(Store(path, 3).entries().at(2).lifetime, 7U);
  EXPECT_TRUE(Store(path, 3).get(2) == number(2));
}

TEST_F(StoreUnwritable, ALockFileIsReportedByEachBracketAndTheFilesChangeAllTheSame) {
  allow(path + ".lock", kReadOnly);
  const std::string each = kNoLock + kNoUnlock;
  withoutPrivileges([&] {
    std::optional<Store> store;
    EXPECT_EQ(linesOf([&] { store.emplace(path, 3); }), "");
    EXPECT_EQ(linesOf([&] { store->set(9, number(9)); }), each + each);
    EXPECT_EQ(linesOf([&] { store->remove(1); }), each);
  });
  expectOpens(3);
  EXPECT_TRUE(Store(path, 3).get(9) == number(9));
}

TEST_F(StoreUnwritable, AFolderKeepsTheStoreFromCompactingAndItsFilesAreEmptiedInPlace) {
  allow(folder, kReadOnlyFolder);
  withoutPrivileges([&] {
    Store store(path, 3);
    EXPECT_EQ(linesOf([&] {
                store.set(1, number(9));
                store.set(9, number(9));
                store.remove(2);
              }),
              "");
    EXPECT_EQ(linesOf([&] { store.compact(false); }), "STORE: compact: could not open new data file\n");
    EXPECT_EQ(store.entries().size(), 3U);
    EXPECT_EQ(kl::test::readFile(path + ".idx").size(), 4U * 12);
    EXPECT_EQ(linesOf([&] { store.restart(); }), "");
    EXPECT_EQ(idx() + dat(), "");
    store.set(4, number(4));
  });
  expectOpens(1);
}

TEST_F(StoreUnwritable, EverythingLeavesTheFilesAsTheyAreAndTheStoreEmpty) {
  for (const char* suffix : {".idx", ".dat", ".lock"}) allow(path + suffix, kReadOnly);
  allow(folder, kReadOnlyFolder);
  withoutPrivileges([&] {
    std::optional<Store> store;
    EXPECT_EQ(linesOf([&] { store.emplace(path, 3); }),
              "STORE: openIdx failed\n" + kNoLock + "STORE: restart open .dat failed\n" + kNoUnlock);
    const std::string notWritten =
        kNoLock + "STORE: openIdx failed\nSTORE: writeIndexent lseek failed\n" + kNoUnlock;
    EXPECT_EQ(linesOf([&] { store->set(9, number(9)); }), notWritten + notWritten);  // the entry, and its end
    EXPECT_EQ(linesOf([&] {
                EXPECT_TRUE(store->entries().empty());
                EXPECT_TRUE(store->get(9) == message());
                EXPECT_FALSE(store->remove(1));
                store->touch(1, 7);
                store->age();
              }),
              "");
    EXPECT_EQ(linesOf([&] { store->compact(false); }), kNoLock + "STORE: openIdx failed\n" + kNoUnlock);
    EXPECT_EQ(linesOf([&] { EXPECT_FALSE(store->readIndex(false)); }), "STORE: openIdx failed\n");
    EXPECT_EQ(linesOf([&] { store->deleteFiles(); }), kNoLock + kNoUnlock);
  });
  EXPECT_EQ(idx(), index);
  EXPECT_EQ(dat(), data);
  expectOpens(3);
}

}  // namespace

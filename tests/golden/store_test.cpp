// Golden stores: the layout of today and the older one, with a free slot and with slack behind a record.

#include "kl/store.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "tests/golden/golden.h"
#include "tests/support/hex.h"

namespace golden {
namespace {

using kl::message;
using kl::Store;
using kl::StoreView;
using kl::test::hex;

message number(unsigned int value) {
  message m;
  m.insert_u32(0x08000005, value);
  return m;
}

class GoldenStore : public testing::Test {
 protected:
  GoldenStore() {
    char made[] = "/tmp/kl-golden-XXXXXX";
    folder_ = ::mkdtemp(made);
    path = folder_ + "/s";
  }
  ~GoldenStore() override {
    std::error_code ignored;
    std::filesystem::remove_all(folder_, ignored);
  }

  // Puts a golden store where the test's store is.
  void place(const std::string& name) const {
    for (const char* suffix : {".idx", ".dat"}) {
      const Bytes bytes = file(name + suffix);
      std::ofstream out(path + suffix, std::ios::binary);
      out.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
    }
  }

  void expectFiles(const std::string& name) const {
    EXPECT_EQ(hex(contents(path + ".idx")), hex(file(name + ".idx")));
    EXPECT_EQ(hex(contents(path + ".dat")), hex(file(name + ".dat")));
  }

  std::string path;

 private:
  std::string folder_;
};

void expectEntry(const StoreView::Entry* entry, unsigned int offset, unsigned int size, unsigned int slot,
                 unsigned int lifetime) {
  ASSERT_NE(entry, nullptr);
  EXPECT_EQ(entry->offset, offset);
  EXPECT_EQ(entry->size, size);
  EXPECT_EQ(entry->slot, slot);
  EXPECT_EQ(entry->lifetime, lifetime);
}

void expectTable(const StoreView& view) {
  EXPECT_TRUE(view.findings().empty());
  EXPECT_EQ(view.dataBytes(), 33u);
  ASSERT_EQ(view.freeSlots().size(), 1u);
  EXPECT_EQ(view.freeSlots()[0].offset, 0u);
  EXPECT_EQ(view.freeSlots()[0].size, 9u);
  ASSERT_EQ(view.entries().size(), 2u);
  expectEntry(view.find(9), 9, 12, 1, 3);
  expectEntry(view.find(17), 21, 12, 2, 5);
  EXPECT_TRUE(view.get(*view.find(9)) == number(0x01020304));
  EXPECT_TRUE(view.get(*view.find(17)) == number(6));
}

TEST_F(GoldenStore, IsRead) {
  place("table");
  const StoreView view(path);
  EXPECT_FALSE(view.isBigEndian());
  expectTable(view);

  Store store(path, 3);
  ASSERT_EQ(store.entries().size(), 2u);
  EXPECT_EQ(store.entries().at(17).offset, 21u);
  EXPECT_EQ(store.entries().at(17).lifetime, 5u);
  EXPECT_TRUE(store.get(9) == number(0x01020304));
  EXPECT_TRUE(store.get(17) == number(6));
  expectFiles("table");
}

TEST_F(GoldenStore, IsWritten) {
  Store store(path, 3);
  store.set(17, number(7));
  store.set(9, number(0x01020304));
  store.touch(17, 5);
  store.set(17, number(0x05060708));
  store.set(17, number(6));
  expectFiles("table");
}

TEST_F(GoldenStore, OfTheOlderLayoutIsReadAsItStands) {
  place("older");
  const StoreView view(path);
  EXPECT_TRUE(view.isBigEndian());
  expectTable(view);
  expectFiles("older");
}

TEST_F(GoldenStore, OfTheOlderLayoutIsConverted) {
  place("older");
  Store store(path, 3);
  ASSERT_EQ(store.entries().size(), 2u);
  EXPECT_EQ(store.entries().at(9).lifetime, 3u);
  EXPECT_EQ(store.entries().at(17).lifetime, 5u);
  EXPECT_TRUE(store.get(9) == number(0x01020304));
  EXPECT_TRUE(store.get(17) == number(6));
  expectFiles("converted");
}

TEST_F(GoldenStore, CompactedIsTheConvertedOne) {
  place("table");
  Store(path, 3).compact(false);
  expectFiles("converted");
}

}  // namespace
}  // namespace golden

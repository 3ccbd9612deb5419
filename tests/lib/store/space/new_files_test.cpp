#include "store/space/new_files.h"

#include <unistd.h>

#include <filesystem>

#include "base/file_io.h"
#include "tests/lib/store/store_files.h"

namespace {

using kl::NewFiles;
using kl::test::exists;
using kl::test::linesOf;

class StoreNewFiles : public kl::test::StoreFiles {
 protected:
  void SetUp() override {
    writeIdx("01");
    writeDat("02");
  }

  kl::Journal journal{path, false};
};

TEST_F(StoreNewFiles, TheyGoAgainUnlessTheyAreCommitted) {
  {
    NewFiles fresh(path);
    ASSERT_TRUE(fresh.create({0, 0}));
    EXPECT_TRUE(exists(path + ".dat.new"));
    EXPECT_TRUE(exists(path + ".idx.new"));
  }
  EXPECT_FALSE(exists(path + ".dat.new"));
  EXPECT_FALSE(exists(path + ".idx.new"));
  EXPECT_EQ(idx(), "01");
}

TEST_F(StoreNewFiles, ACommitPutsBothInPlace) {
  NewFiles fresh(path);
  ASSERT_TRUE(fresh.create({0, 0}));
  EXPECT_EQ(kl::writeAt(fresh.idxFd(), {"\x03", 1}, 0), 1);
  EXPECT_EQ(fresh.commit(journal), kl::Journal::Replaced::kBoth);
  EXPECT_EQ(idx(), "03");
  EXPECT_EQ(dat(), "");
  EXPECT_FALSE(exists(path + ".idx.new"));
}

TEST_F(StoreNewFiles, LeftOversOfAnEarlierPairAreOverwritten) {
  kl::test::writeFile(path + ".dat.new", {1, 2, 3});
  NewFiles fresh(path);
  ASSERT_TRUE(fresh.create({0, 0}));
  EXPECT_EQ(fresh.commit(journal), kl::Journal::Replaced::kBoth);
  EXPECT_EQ(dat(), "");
}

TEST_F(StoreNewFiles, WhatCannotBeMadeHasItsLine) {
  std::filesystem::create_directory(path + ".idx.new");
  EXPECT_EQ(linesOf([this] {
              EXPECT_FALSE(NewFiles(path).create({0, 0}));
            }),
            "STORE: compact: could not open new index file\n");
  std::filesystem::create_directory(path + ".dat.new");
  EXPECT_EQ(linesOf([this] {
              EXPECT_FALSE(NewFiles(path).create({0, 0}));
            }),
            "STORE: compact: could not open new data file\n");
}

}  // namespace

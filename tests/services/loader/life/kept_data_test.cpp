#include "services/loader/life/kept_data.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>

#include "tests/services/loader/fixture.h"
#include "tests/support/hex.h"

namespace {

using loader::Kept;
using loader::KeptData;

class KeptDataTest : public testing::Test {
 protected:
  void SetUp() override { ASSERT_NE(::mkdtemp(folder_), nullptr); }
  void TearDown() override { std::filesystem::remove_all(folder_); }

  // The data that a loader finds when it starts now.
  std::map<unsigned int, Kept> found() const {
    loader::Log log(-1);
    KeptData fresh(path(), log);
    fresh.open();
    return fresh.all();
  }
  std::string path() const { return std::string(folder_) + "/leave"; }

  static Kept someData(std::size_t bytes = 20) {
    kl::message m;
    m.insert_raw(0x30000001, std::vector<unsigned char>(bytes - 8));
    return {loader::test::flat(m), 7, {10, 24}, 3};
  }

  char folder_[32] = "/tmp/kept_data_XXXXXX";
  loader::Log log_{-1};
};

TEST_F(KeptDataTest, WhatIsPutIsFoundNowAndByTheNextLoader) {
  KeptData kept(path(), log_);
  kept.open();
  EXPECT_EQ(kept.find(32), nullptr);
  kept.put(32, someData());
  ASSERT_NE(kept.find(32), nullptr);
  EXPECT_EQ(*kept.find(32), someData());
  EXPECT_EQ(found(), kept.all());
  EXPECT_EQ(kept.latest(), 7u);
}

TEST_F(KeptDataTest, ALaterLeaveReplacesTheEarlierOne) {
  KeptData kept(path(), log_);
  kept.open();
  kept.put(32, someData());
  const Kept withoutData{{}, 9, {}, 3, 1800000000};
  kept.put(32, withoutData);
  EXPECT_EQ(found().at(32), withoutData);
}

TEST_F(KeptDataTest, WhoComesAgainKeepsItsDataButIsAwayNoMore) {
  KeptData kept(path(), log_);
  kept.open();
  Kept away = someData();
  away.wakeAt = 1800000000;
  kept.put(32, away);
  kept.endAbsence(32);
  kept.endAbsence(33);  // nothing to it
  Kept expected = someData();
  expected.awaySince = 0;
  EXPECT_EQ(*kept.find(32), expected);
  EXPECT_EQ(found().at(32), expected);
}

TEST_F(KeptDataTest, WithoutDataNothingStaysOfWhoComesAgain) {
  KeptData kept(path(), log_);
  kept.open();
  kept.put(32, {{}, 9, {}, 3});
  kept.endAbsence(32);
  EXPECT_EQ(kept.find(32), nullptr);
  EXPECT_TRUE(found().empty());
}

TEST_F(KeptDataTest, DataThatAreTooLongAreKeptInMemoryAndNoOlderOnesComeBack) {
  KeptData kept(path(), log_);
  kept.open();
  kept.put(32, someData());
  kept.put(32, someData(65535));
  EXPECT_EQ(kept.find(32)->data.size(), 65535u);
  EXPECT_TRUE(found().empty());
}

// The example of docs/leave.md.
TEST_F(KeptDataTest, ARecordIsAMessage) {
  kl::message data;
  data.insert(kl::STD_ID, 9);
  const Kept kept{loader::test::flat(data), 6, {500}, 2};
  const kl::message record = recordOf(kept);
  EXPECT_EQ(loader::keptOf(record), kept);
  EXPECT_EQ(kl::test::hex(loader::test::flat(record)),
            kl::test::hex(kl::test::bytes("4d32 04000010 0200000000000000 02000010 0600000000000000"
                                          "01000029 07 4d320100fe0909 03000088 0100 f4010000")));
}

}  // namespace

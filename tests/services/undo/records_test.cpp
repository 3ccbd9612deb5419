#include "services/undo/records.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "kl/conventions.h"
#include "kl/services.h"

namespace undo {
namespace {

namespace fs = std::filesystem;

kl::message record(unsigned int maker, const std::string& description = "") {
  kl::message m;
  m.insert(kl::UNDO_SOURCE, {maker});
  m.insert(kl::UNDO_DESCRIPTION, description);
  return m;
}

class UndoRecords : public testing::Test {
 protected:
  UndoRecords() {
    char name[] = "/tmp/undo-records-XXXXXX";
    folder_ = ::mkdtemp(name);
  }
  ~UndoRecords() override { fs::remove_all(folder_); }

  std::string folder_;
};

}  // namespace

TEST_F(UndoRecords, TheNewestComesFirst) {
  Records records(folder_);
  const unsigned int first = records.add(record(500));
  const unsigned int second = records.add(record(600));
  EXPECT_EQ(records.makers(), (Records::Makers{{second, 600}, {first, 500}}));
  EXPECT_GT(second, first);
}

TEST_F(UndoRecords, ARecordComesBackWithItsId) {
  Records records(folder_);
  const unsigned int id = records.add(record(500, "x"));
  kl::message expected = record(500, "x");
  expected.insert(kl::STD_ID, id);
  EXPECT_EQ(records.get(id), expected);
  EXPECT_EQ(records.get(id + 1), kl::message());
  EXPECT_EQ(records.get(0), kl::message());
}

TEST_F(UndoRecords, TheyAreThereAgainAfterARestart) {
  unsigned int first = 0;
  unsigned int second = 0;
  {
    Records records(folder_);
    first = records.add(record(500, "x"));
    second = records.add(record(600, "y"));
    EXPECT_TRUE(records.replace(first, record(500, "changed")));
  }
  Records records(folder_);
  EXPECT_EQ(records.makers(), (Records::Makers{{second, 600}, {first, 500}}));
  EXPECT_EQ(records.get(first).get(kl::UNDO_DESCRIPTION, ""), "changed");
}

TEST_F(UndoRecords, TheOriginIsKnownAgainAfterARestart) {
  kl::message m = record(500);
  m.insert(kl::UNDO_REPORTER, "netif");
  m.insert(kl::UNDO_USER, "alice");
  unsigned int id = 0;
  {
    Records records(folder_);
    id = records.add(m);
    EXPECT_EQ(records.originOf(id), (Origin{"netif", "alice"}));
  }
  Records records(folder_);
  EXPECT_EQ(records.originOf(id), (Origin{"netif", "alice"}));
  EXPECT_EQ(records.firstToGo({}), id);
  records.remove(id);
  EXPECT_EQ(records.originOf(id), Origin());
}

TEST_F(UndoRecords, AnIdIsNotUsedTwice) {
  unsigned int last = 0;
  {
    Records records(folder_);
    records.add(record(500));
    last = records.add(record(500));
    records.remove(last);
    EXPECT_EQ(records.add(record(500)), ++last);
    records.remove(last);
  }
  Records records(folder_);
  EXPECT_EQ(records.add(record(500)), last + 1);
}

TEST_F(UndoRecords, ARecordThatIsTooBigIsNotKept) {
  Records records(folder_);
  EXPECT_EQ(records.add(record(500, std::string(Records::kMostBytes, 'x'))), kl::BADID);
  EXPECT_TRUE(records.makers().empty());
  EXPECT_NE(records.add(record(500, std::string(Records::kMostBytes - 100, 'x'))), kl::BADID);
}

TEST_F(UndoRecords, ARecordThatBecomesTooBigIsGone) {
  Records records(folder_);
  const unsigned int id = records.add(record(500));
  EXPECT_FALSE(records.replace(id, record(500, std::string(Records::kMostBytes, 'x'))));
  EXPECT_TRUE(records.makers().empty());
  EXPECT_EQ(Records(folder_).makers().size(), 0u);
}

TEST_F(UndoRecords, WhatIsNoRecordIsRemovedFromTheFiles) {
  {
    kl::Store store(folder_ + "/records", 1);
    kl::message foreign;
    foreign.insert(kl::UNDO_DESCRIPTION, "no maker");
    store.set(7, foreign);
  }
  Records records(folder_);
  EXPECT_TRUE(records.makers().empty());
  EXPECT_EQ(records.add(record(500)), 8u);
  EXPECT_FALSE(kl::Store(folder_ + "/records", 1).entries().contains(7));
}

TEST_F(UndoRecords, DamagedFilesMeanNoRecords) {
  { Records(folder_).add(record(500)); }
  fs::resize_file(folder_ + "/records.dat", 3);
  Records records(folder_);
  EXPECT_TRUE(records.makers().empty());
  EXPECT_NE(records.add(record(500)), kl::BADID);
}

TEST_F(UndoRecords, WhenTheIdsComeRoundTheyBeginAgainWithoutRecords) {
  {
    kl::Store store(folder_ + "/records", 1);
    store.set(kl::BADID - 2, record(500));
  }
  Records records(folder_);
  EXPECT_EQ(records.makers().size(), 1u);
  EXPECT_EQ(records.add(record(600)), 1u);
  EXPECT_EQ(records.makers(), (Records::Makers{{1, 600}}));
}

}  // namespace undo

#include "kl/store.h"

#include "tests/lib/store/store_files.h"
#include "tests/support/hex.h"

namespace {

using kl::message;
using kl::Store;
using kl::test::bytes;
using kl::test::filled;
using kl::test::hex;
using kl::test::linesOf;
using kl::test::number;

class StoreTest : public kl::test::StoreFiles {
 protected:
  void SetUp() override {
    linesOf([this] { Store(path, 3); });
  }

  void expectFiles(const char* index, const char* data) {
    EXPECT_EQ(idx(), hex(bytes(index)));
    EXPECT_EQ(dat(), hex(bytes(data)));
  }
};

TEST_F(StoreTest, AWorkedSequence) {
  Store store(path, 3);
  store.set(17, number(7));
  expectFiles("11000000 09000000 03000000", "0900 4d32 05000009 07");
  store.set(9, number(0x01020304));
  expectFiles("11000000 09000000 03000000  09000000 0c000000 03000000",
              "0900 4d32 05000009 07  0c00 4d32 05000008 04030201");
  store.touch(17, 5);
  store.set(17, number(0x05060708));  // grows: a new slot, its lifetime stays
  expectFiles("ffffffff 09000000 05000000  09000000 0c000000 03000000  11000000 0c000000 05000000",
              "0900 4d32 05000009 07  0c00 4d32 05000008 04030201  0c00 4d32 05000008 08070605");
  store.set(17, number(6));  // shrinks: in place, the rest stays as it was
  expectFiles("ffffffff 09000000 05000000  09000000 0c000000 03000000  11000000 0c000000 05000000",
              "0900 4d32 05000009 07  0c00 4d32 05000008 04030201  0900 4d32 05000009 06 070605");
  store.set(1, number(2));  // the first free slot that is large enough
  expectFiles("01000000 09000000 03000000  09000000 0c000000 03000000  11000000 0c000000 05000000",
              "0900 4d32 05000009 02  0c00 4d32 05000008 04030201  0900 4d32 05000009 06 070605");
  EXPECT_TRUE(store.remove(9));
  expectFiles("01000000 09000000 03000000  ffffffff 0c000000 03000000  11000000 0c000000 05000000",
              "0900 4d32 05000009 02  0c00 4d32 05000008 04030201  0900 4d32 05000009 06 070605");
  EXPECT_TRUE(lockBytes().empty());
}

TEST_F(StoreTest, WhatIsSetIsThereAfterAReopening) {
  {
    Store store(path, 3);
    store.set(0, number(1));
    store.set(0xfffffffe, filled(500));
  }
  Store store(path, 3);
  EXPECT_TRUE(store.get(0) == number(1));
  EXPECT_TRUE(store.get(0xfffffffe) == filled(500));
  EXPECT_EQ(store.entries().size(), 2U);
}

TEST_F(StoreTest, UnknownIdsAreNeitherReadNorRemovedNorTouched) {
  Store store(path, 3);
  EXPECT_EQ(linesOf([&] {
              EXPECT_TRUE(store.get(1) == message());
              EXPECT_FALSE(store.remove(1));
              store.touch(1, 4);
            }),
            "");
  EXPECT_EQ(idx(), "");
}

TEST_F(StoreTest, TheIdOfFreeSlotsIsReserved) {
  Store store(path, 3);
  EXPECT_EQ(linesOf([&] { store.set(0xffffffff, number(1)); }), "STORE: set: id 0xffffffff is reserved\n");
  EXPECT_TRUE(store.entries().empty());
  EXPECT_EQ(idx(), "");
}

TEST_F(StoreTest, ASmallerMessageStaysInItsSlot) {
  Store store(path, 3);
  store.set(1, filled(100));
  const std::string before = idx();
  store.set(1, filled(100, 9));
  store.set(1, filled(5));
  EXPECT_EQ(idx(), before);
  EXPECT_TRUE(store.get(1) == filled(5));
}

TEST_F(StoreTest, ARemovedSlotIsTheFirstCandidate) {
  Store store(path, 3);
  for (unsigned int id = 0; id < 4; ++id) store.set(id, filled(50));
  store.remove(2);
  store.remove(1);  // in front of slot 2
  store.set(10, filled(50));
  EXPECT_EQ(store.entries().at(10).slot, 1U);
}

TEST_F(StoreTest, ASlotThatAGrowingMessageLeftIsTheLastCandidate) {
  Store store(path, 3);
  for (unsigned int id = 0; id < 3; ++id) store.set(id, filled(50));
  store.remove(2);
  store.set(0, filled(300));
  store.set(10, filled(50));
  EXPECT_EQ(store.entries().at(10).slot, 2U);
  store.set(11, filled(50));
  EXPECT_EQ(store.entries().at(11).slot, 0U);
}

TEST_F(StoreTest, AReopenedStoreTakesFreeSlotsInTheOrderOfTheIndex) {
  {
    Store store(path, 3);
    for (unsigned int id = 0; id < 4; ++id) store.set(id, filled(50));
    store.remove(1);
    store.remove(2);
  }
  Store store(path, 3);
  store.set(10, filled(50));
  EXPECT_EQ(store.entries().at(10).slot, 1U);
}

TEST_F(StoreTest, AnEntryOfLifetimeTwoLivesThroughOneAgeing) {
  Store store(path, 2);
  store.set(1, number(1));
  store.age();
  EXPECT_EQ(store.entries().at(1).lifetime, 1U);
  EXPECT_EQ(idx(), hex(bytes("01000000 09000000 01000000")));
  store.age();
  EXPECT_TRUE(store.entries().empty());
  EXPECT_EQ(idx(), hex(bytes("ffffffff 09000000 01000000")));
}

TEST_F(StoreTest, AnEntryOfLifetimeZeroGoesWithTheFirstAgeing) {
  Store store(path, 0);
  store.set(1, number(1));
  store.age();
  EXPECT_TRUE(store.entries().empty());
}

TEST_F(StoreTest, AgeingCompactsAsItGoes) {
  Store store(path, 1);
  for (unsigned int id = 0; id < 30; ++id) store.set(id, number(id));
  store.touch(29, 2);
  store.age();
  EXPECT_EQ(store.entries().size(), 1U);
  EXPECT_TRUE(store.get(29) == number(29));
}

TEST_F(StoreTest, ALifetimeThatWasTouchedIsThereAfterAReopening) {
  {
    Store store(path, 3);
    store.set(1, number(1));
    store.touch(1, 77);
  }
  EXPECT_EQ(Store(path, 3).entries().at(1).lifetime, 77U);
}

}  // namespace

// Bloated stores: the free slots that make one, and when it looks.  Without a Runner one is compacted at once, so that
// the index tells.

#include <cerrno>

#include "kl/store.h"
#include "tests/lib/store/store_files.h"
#include "tests/support/calls/changing_calls.h"

namespace {

using kl::message;
using kl::Store;
using kl::test::blobBytes;
using kl::test::ChangingCalls;
using kl::test::filled;
using kl::test::linesOf;

class StoreBloat : public kl::test::StoreFiles {
 protected:
  void SetUp() override {
    linesOf([this] { Store(path, 3); });
  }

  // A message whose blob takes that many bytes.
  static message ofBlob(unsigned int bytes) {
    unsigned int content = bytes;
    while (blobBytes(filled(content)) > bytes) --content;
    return filled(content);
  }

  static void fill(Store& store, unsigned int count, unsigned int bytesOfBlob) {
    for (unsigned int id = 0; id < count; ++id) store.set(id, ofBlob(bytesOfBlob));
  }
  static void removeAll(Store& store, unsigned int count) {
    for (unsigned int id = 0; id < count; ++id) store.remove(id);
  }

  std::size_t dataBytes() const { return kl::test::readFile(path + ".dat").size(); }

  // How many slots are left of nine of 100 bytes that were removed beside one entry.
  std::size_t slotsBeside(unsigned int bytesOfEntry) {
    Store store(path, 3);
    store.restart();
    store.set(100, ofBlob(bytesOfEntry));
    fill(store, 9, 100);
    EXPECT_EQ(dataBytes(), 900 + bytesOfEntry);
    removeAll(store, 9);
    return slots();
  }

  // Eight large free slots that are gone then count neither by number nor by size.
  template <class Body>
  void expectCountedAnewBehind(Body body) {
    Store store(path, 3);
    fill(store, 8, 3000);
    removeAll(store, 8);
    body(store);
    fill(store, 1, 30);
    removeAll(store, 1);
    EXPECT_EQ(slots(), 1U);
    store.set(100, ofBlob(5000));
    fill(store, 9, 30);
    removeAll(store, 9);
    EXPECT_EQ(slots(), 10U);  // 270 bytes of 5,270
  }
};

// An eighth is rounded down.
TEST_F(StoreBloat, MoreThanAnEighthMustBeFree) {
  EXPECT_EQ(slotsBeside(8 * 900 - 900), 10U);
  EXPECT_EQ(slotsBeside(8 * 900 - 900 + 7), 10U);
  EXPECT_EQ(slotsBeside(8 * 900 - 900 - 1), 1U);
}

TEST_F(StoreBloat, OneByteMoreThanAnEighthIsBloated) {
  Store store(path, 3);
  store.set(100, ofBlob(8 * 900 - 901));
  fill(store, 8, 100);
  store.set(8, ofBlob(101));
  EXPECT_EQ(dataBytes(), 8U * 900);
  removeAll(store, 9);
  EXPECT_EQ(slots(), 1U);
}

TEST_F(StoreBloat, ASlotThatAGrownEntryLeftCountsAndTheSetThatGrewItLooks) {
  Store store(path, 3);
  fill(store, 9, 30);
  fill(store, 8, 60);
  EXPECT_EQ(slots(), 17U);
  store.set(8, ofBlob(60));
  EXPECT_EQ(slots(), 9U);
}

TEST_F(StoreBloat, ASlotThatIsUsedAgainCountsNoMore) {
  Store store(path, 3);
  fill(store, 16, 30);
  removeAll(store, 8);
  fill(store, 4, 30);
  for (unsigned int id = 8; id < 12; ++id) store.remove(id);  // eight free ones again
  EXPECT_EQ(slots(), 16U);
  store.remove(12);
  EXPECT_EQ(slots(), 7U);
}

TEST_F(StoreBloat, ASetThatFailsDoesNotLook) {
  Store store(path, 3);
  fill(store, 9, 30);
  fill(store, 8, 60);
  {
    ChangingCalls calls;
    calls.failWrite(4, ENOSPC);  // the note, the old slot, the new one, the blob
    EXPECT_EQ(linesOf([&] { store.set(8, ofBlob(60)); }), "STORE: writeMsg write header failed\n");
  }
  EXPECT_EQ(store.entries().size(), 8U);
  EXPECT_EQ(slots(), 18U);
  store.set(20, ofBlob(90));  // one that succeeds does
  EXPECT_EQ(slots(), 9U);
}

TEST_F(StoreBloat, ABlobThatStaysInItsSlotDoesNotLook) {
  linesOf([this] {
    Store store(path, 3);
    fill(store, 9, 30);
    fill(store, 8, 60);
    ChangingCalls calls;
    calls.failWrite(4, ENOSPC);
    store.set(8, ofBlob(60));
    store.set(0, ofBlob(60));
    store.touch(1, 7);
  });
  EXPECT_EQ(slots(), 18U);
}

TEST_F(StoreBloat, AnEmptiedStoreHasNoFreeSlots) {
  expectCountedAnewBehind([](Store& store) { store.restart(); });
}

TEST_F(StoreBloat, ACompactedStoreHasNoFreeSlots) {
  expectCountedAnewBehind([](Store& store) { store.compact(false); });
}

TEST_F(StoreBloat, AnIndexThatIsReadAgainIsCountedAnew) {
  Store store(path, 3);
  fill(store, 6, 30);
  removeAll(store, 5);
  EXPECT_TRUE(store.readIndex(false));
  store.checkForBloat();
  EXPECT_EQ(slots(), 6U);
}

}  // namespace

#include <sys/stat.h>

#include <filesystem>

#include "kl/store.h"
#include "tests/lib/store/store_files.h"
#include "tests/support/hex.h"

namespace {

using kl::message;
using kl::Store;
using kl::test::filled;
using kl::test::linesOf;
using kl::test::number;

class StoreBlobs : public kl::test::StoreFiles {
 protected:
  void SetUp() override {
    linesOf([this] { Store(path, 3); });
  }

  // The lines of reading at the start of a data file that holds these bytes.
  std::string linesOfReading(std::string_view blob) {
    writeIdx("");
    writeDat("");
    Store store(path, 3);
    writeDat(blob);
    return linesOf([&] { EXPECT_TRUE(store.readMsg(0) == message()); });
  }
};

TEST_F(StoreBlobs, ABlobIsItsLengthAndTheMessage) {
  Store store(path, 3);
  std::vector<unsigned char> flat;
  number(7).flatten(flat);
  EXPECT_TRUE(store.writeMsg(2, flat));
  EXPECT_EQ(dat(), kl::test::hex(kl::test::bytes("0000 0900 4d32 05000009 07")));
  EXPECT_TRUE(store.readMsg(2) == number(7));
}

TEST_F(StoreBlobs, ALengthOfZeroOrOneIsReported) {
  EXPECT_EQ(linesOfReading("0000 4d32"), "STORE: readMsg invalid header: msg len 0\n");
  EXPECT_EQ(linesOfReading("0100 4d32"), "STORE: readMsg invalid header: msg len 1\n");
}

TEST_F(StoreBlobs, ABlobWithoutPayloadIsAnEmptyMessage) { EXPECT_EQ(linesOfReading("0200"), ""); }

TEST_F(StoreBlobs, EveryCutBlobIsReported) {
  const auto blob = kl::test::bytes("0900 4d32 05000009 07");
  for (std::size_t length = 0; length < blob.size(); ++length) {
    const std::string digits = kl::test::hex({blob.begin(), blob.begin() + static_cast<long>(length)});
    EXPECT_EQ(linesOfReading(digits),
              length < 2 ? "STORE: readMsg read header failed\n" : "STORE: readMsg read failed\n");
  }
}

TEST_F(StoreBlobs, ABlobLongerThanItsSlotIsReadWhole) {
  Store store(path, 3);
  store.set(1, number(7));
  std::vector<unsigned char> flat;
  filled(5000).flatten(flat);
  EXPECT_TRUE(store.writeMsg(0, flat));
  EXPECT_TRUE(store.get(1) == filled(5000));
}

TEST_F(StoreBlobs, TheLongestMessageComesBack) {
  Store store(path, 3);
  unsigned int content = 65000;
  while (kl::test::blobBytes(filled(content + 1)) <= 65535) ++content;
  ASSERT_EQ(kl::test::blobBytes(filled(content)), 65535U);
  store.set(1, filled(content));
  EXPECT_TRUE(store.get(1) == filled(content));
}

TEST_F(StoreBlobs, AMessageThatIsTooLongIsStoredWithAWrappedLength) {
  Store store(path, 3);
  unsigned int content = 65000;
  while (kl::test::blobBytes(filled(content)) < 65537) ++content;
  store.set(1, filled(content));
  EXPECT_EQ(std::filesystem::file_size(path + ".dat"), 65537U);
  EXPECT_EQ(linesOf([&] { EXPECT_TRUE(store.get(1) == message()); }),
            "STORE: readMsg invalid header: msg len 1\n");
}

TEST_F(StoreBlobs, ADataFileThatIsMissingIsReportedOnReadAndWrite) {
  Store store(path, 3);
  std::filesystem::remove(path + ".dat");
  EXPECT_EQ(linesOf([&] { EXPECT_TRUE(store.readMsg(0) == message()); }),
            "STORE: openData failed\nSTORE: readMsg lseek failed\n");
  EXPECT_EQ(linesOf([&] { EXPECT_FALSE(store.writeMsg(0, {1})); }), "STORE: openData failed\n");
}

TEST_F(StoreBlobs, AnIndexThatIsMissingIsReportedOnWrite) {
  Store store(path, 3);
  store.closeIdx();
  std::filesystem::remove(path + ".idx");
  Store::Entry entry;
  EXPECT_EQ(linesOf([&] { EXPECT_FALSE(store.writeIndexent(1, entry)); }),
            "STORE: openIdx failed\nSTORE: writeIndexent lseek failed\n");
}

// After the first of them, the index lacks a slot; what is said stays the same.
TEST_F(StoreBlobs, EachSetWithoutFilesReportsTheSame) {
  Store store(path, 3);
  store.restart();
  store.deleteFiles();
  const std::string lines =
      "STORE: openIdx failed\nSTORE: writeIndexent lseek failed\n"
      "STORE: openIdx failed\nSTORE: writeIndexent lseek failed\n";
  EXPECT_EQ(linesOf([&] { store.set(1, filled(10)); }), lines);
  EXPECT_EQ(linesOf([&] { store.set(2, filled(20)); }), lines);
  EXPECT_TRUE(store.entries().empty());
}

TEST_F(StoreBlobs, FilesThatCannotBeSoughtInAreReported) {
  Store store(path, 3);
  store.closeIdx();
  for (const char* suffix : {".idx", ".dat"}) {
    std::filesystem::remove(path + suffix);
    ASSERT_EQ(::mkfifo((path + suffix).c_str(), 0600), 0);
  }
  Store::Entry entry;
  EXPECT_EQ(linesOf([&] { EXPECT_FALSE(store.writeIndexent(1, entry)); }),
            "STORE: writeIndexent lseek failed\n");
  EXPECT_EQ(linesOf([&] { EXPECT_FALSE(store.writeMsg(0, {1})); }), "STORE: writeMsg lseek failed\n");
  EXPECT_EQ(linesOf([&] { EXPECT_TRUE(store.readMsg(0) == message()); }), "STORE: readMsg lseek failed\n");
}

TEST_F(StoreBlobs, FilesAreOpenedOnceAndClosedOnce) {
  Store store(path, 3);
  EXPECT_TRUE(store.openData());
  std::filesystem::remove(path + ".dat");
  EXPECT_TRUE(store.openData());
  store.closeData();
  store.closeData();
  EXPECT_EQ(linesOf([&] { EXPECT_FALSE(store.openData()); }), "STORE: openData failed\n");
}

}  // namespace

#include "store/files/index_reader.h"

#include <fcntl.h>
#include <unistd.h>

#include "base/file_io.h"
#include "tests/lib/store/store_files.h"

namespace {

using kl::IndexReader;

class StoreIndexReader : public kl::test::StoreFiles {
 protected:
  // The ids of a file of `slots` slots that number themselves, and `more` bytes behind the last.
  std::vector<unsigned int> idsOf(unsigned int slots, std::size_t more) {
    kl::test::Bytes file;
    for (unsigned int i = 0; i < slots; ++i) {
      const auto slot = kl::encodeSlot({i, 0, 0});
      file.insert(file.end(), slot.begin(), slot.end());
    }
    file.insert(file.end(), more, 0xee);
    kl::test::writeFile(path, file);
    const int fd = kl::openFile(path.c_str(), O_RDONLY);
    IndexReader reader(fd);
    std::vector<unsigned int> ids;
    while (const unsigned char* bytes = reader.next())
      ids.push_back(kl::decodeSlot(bytes, kl::ByteOrder::kLittle).id);
    EXPECT_EQ(reader.end(), IndexReader::End::kReached);
    ::close(fd);
    return ids;
  }
};

TEST_F(StoreIndexReader, GivesEverySlotOnce) {
  for (const unsigned int slots : {0U, 1U, 339U, 340U, 341U, 1000U}) {
    const auto ids = idsOf(slots, 0);
    ASSERT_EQ(ids.size(), slots);
    for (unsigned int i = 0; i < slots; ++i) ASSERT_EQ(ids[i], i);
  }
}

TEST_F(StoreIndexReader, APartialSlotIsTheEnd) {
  for (std::size_t more = 1; more < 12; ++more) {
    EXPECT_EQ(idsOf(0, more).size(), 0U);
    EXPECT_EQ(idsOf(340, more).size(), 340U);
  }
}

TEST_F(StoreIndexReader, TellsAFileWithoutPlacesFromAFault) {
  IndexReader closed(-1);
  EXPECT_EQ(closed.next(), nullptr);
  EXPECT_EQ(closed.end(), IndexReader::End::kSeekFailed);
  const int aFolder = kl::openFile(folder.c_str(), O_RDONLY);
  IndexReader unreadable(aFolder);
  EXPECT_EQ(unreadable.next(), nullptr);
  EXPECT_EQ(unreadable.end(), IndexReader::End::kReadFailed);
  ::close(aFolder);
}

TEST_F(StoreIndexReader, FilesAgreeIfTheirSlotsFillTheDataFileAndEachHasASize) {
  writeIdx("01000000 09000000 03000000");
  writeDat("0900 4d32 05000009 01");
  EXPECT_TRUE(kl::filesAgree(path + ".idx", path + ".dat"));
  writeIdx("01000000 09000000 03000000  00000000 00000000 00000000");
  EXPECT_FALSE(kl::filesAgree(path + ".idx", path + ".dat"));
  writeIdx("01000000 08000000 03000000");
  EXPECT_FALSE(kl::filesAgree(path + ".idx", path + ".dat"));
}

}  // namespace

#include "tools/klctl/values/message_file.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "tests/support/hex.h"
#include "tests/tools/klctl/expect_failure.h"
#include "tools/klctl/ask/pipe.h"

namespace klctl {
namespace {

using kl::test::bytes;

const Bytes kSeven = bytes("4d32 05000009 07");      // u32 global(5) = 7
const Bytes kText = bytes("4d32 01000021 02 6162");  // string global(1) = "ab"
const Bytes kFrames = bytes("07000000 4d320500000907 09000000 4d3201000021026162");

// Two slots in use and between them a free one with an old record; the first slot is larger than its record.
const Bytes kData = bytes("0900 4d320500000907 ffffff  0900 4d320500000909  0b00 4d3201000021026162");
const Bytes kIndex = bytes(
    "07000000 0c000000 03000000"
    "ffffffff 09000000 00000000"
    "09000000 0b000000 05000000");

std::vector<Bytes> found(const MessageFile& file) {
  std::vector<Bytes> result;
  for (const FoundMessage& message : file.messages) result.push_back(message.bytes);
  return result;
}

MessageFile split(const Bytes& file, const Bytes& index = {}, FileFormat format = FileFormat::kGuess) {
  return splitMessages(file, index, format);
}

}  // namespace

TEST(MessageFile, ABareMessageIsTheWholeFile) {
  EXPECT_EQ(found(split(kSeven)), std::vector<Bytes>{kSeven});
  EXPECT_EQ(split(kSeven).fault, "");
  EXPECT_EQ(found(split(bytes("4d32"))), std::vector<Bytes>{bytes("4d32")});
}

TEST(MessageFile, FramesFollowEachOther) {
  const MessageFile file = split(kFrames);
  EXPECT_EQ(found(file), (std::vector<Bytes>{kSeven, kText}));
  EXPECT_EQ(file.messages[0].title, "frame at byte 0");
  EXPECT_EQ(file.messages[1].title, "frame at byte 11");
  EXPECT_EQ(file.fault, "");
}

TEST(MessageFile, AFrameThatIsCutOffIsAFaultAndThoseBeforeItCount) {
  for (std::size_t length = 12; length < kFrames.size(); ++length) {
    const MessageFile file =
        split(Bytes(kFrames.begin(), kFrames.begin() + static_cast<std::ptrdiff_t>(length)));
    EXPECT_EQ(found(file), std::vector<Bytes>{kSeven}) << length;
    EXPECT_EQ(file.fault, "the file ends inside the frame at byte 11") << length;
  }
}

TEST(MessageFile, AStoreWithItsIndexGivesTheEntriesInUse) {
  const MessageFile file = split(kData, kIndex);
  EXPECT_EQ(found(file), (std::vector<Bytes>{kSeven, kText}));
  EXPECT_EQ(file.messages[0].title, "entry 7, lifetime 3");
  EXPECT_EQ(file.messages[1].title, "entry 9, lifetime 5");
}

TEST(MessageFile, AStoreOfTheOtherByteOrderIsReadToo) {
  const MessageFile file = split(bytes("0009 4d320500000907"), bytes("00000007 00000009 00000003"));
  EXPECT_EQ(found(file), std::vector<Bytes>{kSeven});
  EXPECT_EQ(file.messages[0].title, "entry 7, lifetime 3");
}

TEST(MessageFile, AStoreWithoutItsIndexGivesEveryRecordThatIsWhole) {
  const MessageFile file = split(kData);
  EXPECT_EQ(found(file), (std::vector<Bytes>{kSeven, bytes("4d320500000909"), kText}));
  EXPECT_EQ(file.messages[2].title, "record at byte 21");
  EXPECT_EQ(file.fault, "");
}

TEST(MessageFile, AnIndexOfAnotherFileIsNotUsed) {
  EXPECT_EQ(split(kData, bytes("07000000 ffffffff 03000000")).messages.size(), 3u);
  EXPECT_EQ(split(kData, bytes("0700")).messages.size(), 3u);
}

TEST(MessageFile, ARecordThatDoesNotFitItsSlotIsAFaultAndTheOthersCount) {
  Bytes data = kData;
  data[0] = 0xff;
  const MessageFile file = split(data, kIndex);
  EXPECT_EQ(found(file), std::vector<Bytes>{kText});
  EXPECT_EQ(file.fault, "entry 7 does not fit its slot at byte 0");
}

TEST(MessageFile, AnEmptyFileHoldsNothing) {
  EXPECT_TRUE(split({}).messages.empty());
  EXPECT_EQ(split({}).fault, "");
}

TEST(MessageFile, EveryPrefixOfEveryFormatEndsCleanly) {
  for (const Bytes& whole : {kSeven, kFrames, kData, kIndex})
    for (const FileFormat format :
         {FileFormat::kGuess, FileFormat::kBare, FileFormat::kFramed, FileFormat::kStore})
      for (std::size_t length = 0; length <= whole.size(); ++length) {
        const Bytes part(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(length));
        (void)split(part, {}, format);
        (void)split(kData, part, format);
        (void)split(part, kIndex, format);
      }
}

TEST(MessageFile, BytesThatMeanNothingAreNoStore) {
  EXPECT_EQ(split(bytes("0102030405"), {}, FileFormat::kStore).fault, "no message is in the file");
}

TEST(MessageFile, IsReadWithTheIndexBesideIt) {
  char name[] = "/tmp/klctl-store-XXXXXX";
  const std::filesystem::path folder = ::mkdtemp(name);
  const auto write = [&](const char* file, const Bytes& content) {
    std::ofstream(folder / file, std::ios::binary)
        .write(reinterpret_cast<const char*>(content.data()), static_cast<std::streamsize>(content.size()));
  };
  write("p.dat", kData);
  EXPECT_EQ(readMessageFile(folder / "p.dat", FileFormat::kGuess).messages.size(), 3u);
  write("p.idx", kIndex);
  EXPECT_EQ(readMessageFile(folder / "p.dat", FileFormat::kGuess).messages.size(), 2u);
  EXPECT_EQ(failureOf([&] { (void)readMessageFile(folder / "none", FileFormat::kGuess); }).sentence,
            "cannot read " + (folder / "none").string() + ": No such file or directory");
  EXPECT_EQ(failureOf([&] { (void)readMessageFile(folder, FileFormat::kGuess); }).sentence,
            "cannot read " + folder.string() + ": Is a directory");
  std::filesystem::remove_all(folder);
}

}  // namespace klctl

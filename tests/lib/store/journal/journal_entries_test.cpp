#include "store/journal/journal_entries.h"

#include <fcntl.h>

#include <cstdint>
#include <string>

#include "base/descriptor.h"
#include "tests/lib/store/store_files.h"
#include "tests/support/hex.h"

namespace {

using kl::FileIds;
using kl::FileLengths;
using kl::Intent;
using kl::IntentReader;
using kl::test::Bytes;
using kl::test::bytes;
using kl::test::hex;

class StoreIntent : public kl::test::StoreFiles {
 protected:
  // A set that appends slot 2 at 21 for id 9, and frees slot 0.
  Bytes written() {
    const Bytes blob = bytes("0400 4d32");
    Intent intent({0x11, 0x22});
    intent.setLengthsBefore({24, 21});
    intent.willRestoreSlot(0, {9, 3, 5});
    intent.willWriteSlot(0, {kl::kFreeId, 3, 5});
    intent.willWriteSlot(2, {9, 4, 5});
    intent.willWriteBlob(21, {blob.data(), blob.size()});
    return fileOf(intent);
  }

  Bytes fileOf(Intent& intent) {
    const kl::Descriptor file(path.c_str(), O_RDWR | O_CREAT | O_TRUNC);
    EXPECT_TRUE(intent.write(file.fd(), 0));
    return kl::test::readFile(path);
  }
};

TEST_F(StoreIntent, AnIntentInBytes) {
  EXPECT_EQ(hex(written()), hex(bytes("4b4c494e 94000000 61f40f9c"
                                      "1100000000000000 2200000000000000 1800000000000000 1500000000000000"
                                      "03000000 0000000000000000 0c000000 09000000 03000000 05000000"
                                      "00000000 0000000000000000 0c000000 ffffffff 03000000 05000000"
                                      "00000000 1800000000000000 0c000000 09000000 04000000 05000000"
                                      "01000000 1500000000000000 04000000 0400 4d32")));
}

TEST_F(StoreIntent, IsReadAsItWasWritten) {
  const Bytes entry = written();
  IntentReader intent;
  ASSERT_TRUE(intent.read(entry.data(), entry.size()));
  EXPECT_EQ(intent.ids(), (FileIds{0x11, 0x22}));
  EXPECT_EQ(intent.before().idx, 24U);
  EXPECT_EQ(intent.before().data, 21U);
  ASSERT_EQ(intent.steps().size(), 4U);
  EXPECT_EQ(intent.steps()[0].kind, Intent::Kind::kRestore);
  EXPECT_EQ(intent.steps()[2].offset, 24U);
  const auto& last = intent.steps()[3];
  EXPECT_EQ(last.kind, Intent::Kind::kWriteData);
  EXPECT_EQ(last.offset, 21U);
  const auto* data = static_cast<const unsigned char*>(last.bytes.data);
  EXPECT_EQ(hex({data, data + last.bytes.size}), hex(bytes("0400 4d32")));
}

TEST_F(StoreIntent, NoPartOfAnIntentIsOne) {
  const Bytes entry = written();
  IntentReader intent;
  for (std::size_t size = 0; size < entry.size(); ++size)
    EXPECT_FALSE(intent.read(entry.data(), size)) << size;
}

TEST_F(StoreIntent, AnIntentWithAWrongByteIsNone) {
  Bytes entry = written();
  IntentReader intent;
  for (unsigned char& byte : entry) {
    byte = static_cast<unsigned char>(byte ^ 1);
    EXPECT_FALSE(intent.read(entry.data(), entry.size()));
    byte = static_cast<unsigned char>(byte ^ 1);
  }
}

// The checksum, by its description in words.
std::uint32_t checksumOf(Bytes body) {
  const std::uint64_t length = body.size();
  body.resize((body.size() + 7) / 8 * 8);
  std::uint64_t sums[5] = {};
  const auto take = [](std::uint64_t& sum, std::uint64_t number) {
    sum = (sum ^ number) * 0x9e3779b97f4a7c15;
    sum ^= sum >> 32;
  };
  for (std::size_t at = 0; at < body.size(); at += 8) {
    std::uint64_t number = 0;
    for (std::size_t i = 8; i > 0; --i) number = number << 8 | body[at + i - 1];
    take(sums[at / 8 % 4], number);
  }
  for (std::size_t i = 0; i < 4; ++i) take(sums[4], sums[i]);
  take(sums[4], length);
  return static_cast<std::uint32_t>(sums[4]);
}

// A whole intent with these steps.
Bytes intentOf(const std::string& steps) {
  Bytes body = bytes("1100000000000000 2200000000000000 1800000000000000 1500000000000000 " + steps);
  const std::uint32_t numbers[] = {0x4e494c4b, static_cast<std::uint32_t>(12 + body.size()),
                                   checksumOf(body)};
  Bytes entry;
  for (const std::uint32_t number : numbers)
    for (unsigned int i = 0; i < 4; ++i) entry.push_back(static_cast<unsigned char>(number >> 8 * i));
  entry.insert(entry.end(), body.begin(), body.end());
  return entry;
}

TEST_F(StoreIntent, AnEntryWithStepsThatAreNoneIsNoIntent) {
  const auto isIntent = [](const std::string& steps) {
    const Bytes entry = intentOf(steps);
    return IntentReader().read(entry.data(), entry.size());
  };
  EXPECT_TRUE(isIntent(""));
  EXPECT_TRUE(isIntent("02000000 2000000000000000 00000000"));
  EXPECT_TRUE(isIntent("01000000 1500000000000000 04000000 0400 4d32"));
  EXPECT_FALSE(isIntent("01000000 1500000000000000 05000000 0400 4d32"));  // a byte is missing
  EXPECT_FALSE(isIntent("01000000 1500000000000000 03000000 0400 4d32"));  // one is left
  EXPECT_FALSE(isIntent("01000000 1500000000000000 ffffffff 0400 4d32"));
  EXPECT_FALSE(isIntent("04000000 1500000000000000 00000000"));  // nothing that could be done
  EXPECT_FALSE(isIntent("02000000 2000000000000000 000000"));
}

TEST_F(StoreIntent, NoByteOfALongPayloadMayBeAnother) {
  for (std::size_t length = 30; length < 46; ++length) {
    const Bytes payload(length, 0);
    Intent intent({1, 2});
    intent.willWriteBlob(0, {payload.data(), payload.size()});
    Bytes entry = fileOf(intent);
    IntentReader reader;
    EXPECT_TRUE(reader.read(entry.data(), entry.size()));
    for (std::size_t at = entry.size() - length; at < entry.size(); ++at) {
      entry[at] = 0x80;
      EXPECT_FALSE(reader.read(entry.data(), entry.size())) << length << " bytes, byte " << at;
      entry[at] = 0;
    }
  }
}

TEST_F(StoreIntent, AnEndIsMarkedByTheNumberOfSlotsAndOne) {
  EXPECT_EQ(kl::endMarkBytes({0, 0}), 1U);
  EXPECT_EQ(kl::endMarkBytes({36, 99}), 4U);
  const Bytes zeros(4);
  EXPECT_EQ(kl::decodeEndMark(zeros.data(), 4), 3);
  EXPECT_EQ(kl::decodeEndMark(zeros.data(), 0), -1);
  const Bytes other = bytes("00000001");
  EXPECT_EQ(kl::decodeEndMark(other.data(), 4), -1);
}

TEST_F(StoreIntent, CommitsAndDurableLengthsAreReadAsTheyWereWritten) {
  FileIds ids;
  FileLengths lengths;
  const auto commit = kl::encodeCommit({7, 8});
  EXPECT_EQ(hex({commit.begin(), commit.end()}),
            hex(bytes("4b4c434f 1c000000 ae218103 0700000000000000 0800000000000000")));
  ASSERT_TRUE(kl::decodeCommit(commit.data(), commit.size(), ids));
  EXPECT_EQ(ids, (FileIds{7, 8}));
  const auto durable = kl::encodeDurable({1, 2}, {36, 99});
  EXPECT_EQ(hex({durable.begin(), durable.end()}),
            hex(bytes("4b4c4455 2c000000 499efbad"
                      "0100000000000000 0200000000000000 2400000000000000 6300000000000000")));
  ASSERT_TRUE(kl::decodeDurable(durable.data(), durable.size(), ids, lengths));
  EXPECT_EQ(lengths.idx, 36U);
  EXPECT_EQ(lengths.data, 99U);
  for (std::size_t size = 0; size < commit.size(); ++size)
    EXPECT_FALSE(kl::decodeCommit(commit.data(), size, ids));
  for (std::size_t size = 0; size < durable.size(); ++size)
    EXPECT_FALSE(kl::decodeDurable(durable.data(), size, ids, lengths));
}

}  // namespace

#include "services/loader/transport/buffer.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>

namespace {

using loader::Buffer;

void append(Buffer& buffer, const std::string& text) {
  buffer.append({reinterpret_cast<const unsigned char*>(text.data()), text.size()});
}

std::string textOf(const Buffer& buffer) { return {buffer.bytes().begin(), buffer.bytes().end()}; }

TEST(LoaderBuffer, BytesComeOutInTheOrderInWhichTheyWentIn) {
  Buffer buffer;
  append(buffer, "abc");
  append(buffer, "def");
  EXPECT_EQ(textOf(buffer), "abcdef");
  buffer.dropFront(2);
  EXPECT_EQ(textOf(buffer), "cdef");
  append(buffer, "gh");
  buffer.dropBack(1);
  EXPECT_EQ(textOf(buffer), "cdefg");
  buffer.clear();
  EXPECT_TRUE(buffer.empty());
}

TEST(LoaderBuffer, AQueueThatNeverRunsEmptyDoesNotGrowWithWhatPassedThrough) {
  Buffer buffer;
  const std::string piece(1000, 'x');
  append(buffer, piece);
  const unsigned char* lowest = nullptr;
  const unsigned char* highest = nullptr;
  for (int i = 0; i < 100000; ++i) {
    append(buffer, piece);
    buffer.dropFront(piece.size());
    if (i < 10) continue;  // until the memory has its size
    const unsigned char* at = buffer.bytes().data();
    lowest = lowest == nullptr ? at : std::min(lowest, at);
    highest = std::max(highest, at);
  }
  EXPECT_EQ(textOf(buffer), piece);
  EXPECT_LT(highest - lowest, 8000);
}

TEST(LoaderBuffer, RandomStepsAgreeWithAString) {
  Buffer buffer;
  std::string model;
  unsigned int seed = 4711;
  for (int step = 0; step < 20000; ++step) {
    seed = seed * 1664525 + 1013904223;
    const std::size_t amount = (seed >> 8) % 700;
    switch (seed >> 30) {
      case 0:
        buffer.dropFront(std::min(amount, model.size()));
        model.erase(0, amount);
        break;
      case 1: {
        const std::size_t count = std::min(amount / 4, model.size());
        buffer.dropBack(count);
        model.resize(model.size() - count);
        break;
      }
      default: {
        const std::string piece(amount / 2, static_cast<char>('a' + step % 26));
        append(buffer, piece);
        model += piece;
      }
    }
    ASSERT_EQ(textOf(buffer), model) << "step " << step;
  }
}

TEST(LoaderBuffer, AnEmptyOneKeepsLittle) {
  Buffer buffer;
  append(buffer, std::string(1000, 'x'));
  buffer.dropFront(1000);
  EXPECT_EQ(buffer.memory(), 0u);
  append(buffer, std::string(400, 'x'));
  const unsigned char* at = buffer.bytes().data();
  buffer.dropFront(400);
  EXPECT_LE(buffer.memory(), Buffer::kKeptBytes);
  append(buffer, std::string(400, 'x'));
  EXPECT_EQ(buffer.bytes().data(), at) << "what is usual costs no allocation";
}

class ChargedBuffer : public testing::Test {
 protected:
  ChargedBuffer() { buffer_.chargeTo(&account_, loader::Resource::kQueueBytes); }
  std::size_t charged() const { return account_.used(loader::Resource::kQueueBytes); }

  loader::Accounts accounts_{loader::Limits(), 0};
  loader::Account& account_ = accounts_.ofUser(1000, 0);
  Buffer buffer_;
};

TEST_F(ChargedBuffer, ItsMemoryIsChargedAndNotItsBytes) {
  append(buffer_, std::string(5000, 'x'));
  EXPECT_GE(charged(), 5000u);
  EXPECT_EQ(charged(), buffer_.memory());
  buffer_.dropFront(4999);
  EXPECT_EQ(charged(), buffer_.memory());
  buffer_.dropFront(1);
  EXPECT_EQ(buffer_.memory(), 0u);
  EXPECT_EQ(charged(), 0u);
}

TEST_F(ChargedBuffer, ALittleIsNotCharged) {
  for (int i = 0; i < 20; ++i) append(buffer_, std::string(100, 'x'));
  EXPECT_EQ(charged(), 0u);
  EXPECT_LE(buffer_.memory(), Buffer::kFreeBytes);
}

TEST_F(ChargedBuffer, WhatAPieceWouldBeChargedIsKnownBefore) {
  unsigned int seed = 4711;
  for (int step = 0; step < 3000; ++step) {
    seed = seed * 1664525 + 1013904223;
    const std::size_t amount = (seed >> 8) % 9000;
    const std::size_t expected = charged() + buffer_.growthFor(amount);
    append(buffer_, std::string(amount, 'x'));
    ASSERT_LE(charged(), expected) << "step " << step;
    buffer_.dropFront(
        std::min<std::size_t>(buffer_.size(), amount / 2 + static_cast<unsigned int>(step) % 3000));
    ASSERT_EQ(charged(), buffer_.memory() > Buffer::kFreeBytes ? buffer_.memory() : 0);
  }
}

TEST_F(ChargedBuffer, MemoryIsNotMuchMoreThanWhatIsInIt) {
  for (int i = 0; i < 1000; ++i) append(buffer_, std::string(1000, 'x'));
  EXPECT_LT(buffer_.memory(), 1000000u * 5 / 4 + 1000);
  while (buffer_.size() > 20000) {
    buffer_.dropFront(1000);
    ASSERT_LE(buffer_.memory(), std::max<std::size_t>(64 * 1024, 4 * buffer_.size())) << buffer_.size();
  }
}

TEST_F(ChargedBuffer, WhatIsMovedIntoItIsItsOwn) {
  Buffer other;
  append(other, std::string(9000, 'y'));
  append(buffer_, std::string(70000, 'x'));
  buffer_ = std::move(other);
  EXPECT_EQ(buffer_.size(), 9000u);
  EXPECT_EQ(charged(), buffer_.memory());
  buffer_.clear();
  EXPECT_EQ(charged(), 0u);
}

}  // namespace

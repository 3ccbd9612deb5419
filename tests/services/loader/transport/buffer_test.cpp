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

}  // namespace

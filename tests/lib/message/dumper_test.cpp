#include <gtest/gtest.h>

#include <sstream>
#include <string>

#include "kl/message.h"
#include "tests/lib/message/allocation_count.h"

namespace {

using kl::Dumper;

std::string text(const Dumper& d) { return std::string(d.data(), d.used()); }

class DumperTest : public testing::Test {
 protected:
  char room[100];
  Dumper out{room, sizeof room};
};

TEST_F(DumperTest, WritesTextAsItIs) {
  out << "abc"
      << "";
  out.write("d\0e", 3);
  EXPECT_EQ(text(out), std::string("abcd\0e", 6));
}

TEST_F(DumperTest, WritesNumbersInHexadecimalOfFixedWidth) {
  out << 0x1aFu << " " << 0x123456789abcdefULL << " " << static_cast<unsigned char>(0x0b);
  EXPECT_EQ(text(out), "0x000001af 0x0123456789abcdef 0b");
}

TEST_F(DumperTest, EndsALineWithOneByte) {
  kl::doEndl<Dumper>(out);
  EXPECT_EQ(text(out), "\n");
}

TEST(DumperRoom, DropsWhatDoesNotFitWithoutNotice) {
  char room[11] = "..........";
  Dumper out(room, 10);
  out << "------------------------";
  EXPECT_EQ(out.used(), 10u);
  EXPECT_EQ(std::string(room, 11), std::string("----------\0", 11));
  out << "x" << 7u;
  EXPECT_EQ(out.used(), 10u);
}

TEST(DumperRoom, OfNothingIsFine) {
  Dumper out(nullptr, 0);
  out << "x" << 1u;
  EXPECT_EQ(out.used(), 0u);
}

TEST_F(DumperTest, TakesNothingFromTheHeap) {
  const kl::test::AllocationCount before;
  {
    char own[50];
    Dumper inner(own, sizeof own);
    inner << "abc" << 1u << 2ULL << static_cast<unsigned char>(3);
    kl::doEndl<Dumper>(inner);
  }
  EXPECT_EQ(before.since(), 0u);
}

TEST(DoEndl, OnAStreamIsANewlineAndAFlush) {
  struct Flushed : std::stringbuf {
    bool flushed = false;
    int sync() override { return flushed = true, 0; }
  } buffer;
  std::ostream out(&buffer);
  kl::doEndl<std::ostream>(out);
  EXPECT_EQ(buffer.str(), "\n");
  EXPECT_TRUE(buffer.flushed);
}

}  // namespace

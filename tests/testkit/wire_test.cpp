#include "testkit/wire.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <string>

#include "kl/test.h"

namespace kl::test {
namespace {

std::vector<unsigned char> bytesOf(const std::string& text) { return {text.begin(), text.end()}; }

std::string readHere(std::size_t most = 100) {
  std::array<char, 100> bytes{};
  const ssize_t got = ::recv(3, bytes.data(), most, MSG_DONTWAIT);
  return got > 0 ? std::string(bytes.data(), static_cast<std::size_t>(got)) : "";
}

class WireTest : public testing::Test {
 protected:
  WireTest() { wire_.open(); }
  Wire wire_;
};

TEST_F(WireTest, BytesArriveWhenTheyAreDueAndInOrder) {
  wire_.delay(10);
  wire_.send(bytesOf("late "), 0);
  wire_.delay(0);
  wire_.send(bytesOf("behind"), 1);
  EXPECT_FALSE(wire_.isDue(9));
  wire_.write(9);
  EXPECT_EQ(readHere(), "");
  EXPECT_EQ(wire_.nextDue(), 10u);
  wire_.write(10);
  EXPECT_EQ(readHere(), "late behind");
  EXPECT_FALSE(wire_.nextDue());
}

TEST_F(WireTest, PiecesAreWrittenOneByOne) {
  wire_.cut(2);
  wire_.send(bytesOf("abc"), 0);
  wire_.write(0);
  EXPECT_EQ(readHere(), "ab");
  wire_.write(0);
  EXPECT_EQ(readHere(), "c");
}

TEST_F(WireTest, FramesAreReadWhole) {
  std::vector<std::string> frames;
  const auto keep = [&](std::span<const unsigned char> body) {
    frames.emplace_back(body.begin(), body.end());
  };
  EXPECT_EQ(wire_.read(keep), Wire::Outcome::kNothing);
  ASSERT_EQ(::write(3, "\3\0\0\0abc\2\0\0\0d", 12), 12);
  EXPECT_EQ(wire_.read(keep), Wire::Outcome::kBytes);
  EXPECT_EQ(frames, std::vector<std::string>{"abc"});
  ASSERT_EQ(::write(3, "e", 1), 1);
  EXPECT_EQ(wire_.read(keep), Wire::Outcome::kBytes);
  EXPECT_EQ(frames, (std::vector<std::string>{"abc", "de"}));
  ASSERT_EQ(::write(3, "\0\0\1\0", 4), 4);
  EXPECT_EQ(wire_.read(keep), Wire::Outcome::kTooLong);
  ::close(3);
  EXPECT_EQ(wire_.read(keep), Wire::Outcome::kEnd);
}

TEST(WirePlace, WhoHadDescriptorThreeHasItAgain) {
  ::close(3);
  const std::string name = testing::TempDir() + "wire_test_" + std::to_string(::getpid());
  const int fd = ::open(name.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  ASSERT_EQ(fd, 3);
  {
    Wire wire;
    wire.open();
    ASSERT_EQ(::write(3, "x", 1), 1);
  }
  EXPECT_EQ(::write(3, "mine", 4), 4);
  EXPECT_EQ(::lseek(3, 0, SEEK_END), 4);
  ::unlink(name.c_str());
}

}  // namespace
}  // namespace kl::test

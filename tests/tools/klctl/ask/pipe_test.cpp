#include "tools/klctl/ask/pipe.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <thread>

namespace klctl {
namespace {

class Pipe : public testing::Test {
 protected:
  Pipe() { EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends_), 0); }
  ~Pipe() override {
    for (const int end : ends_)
      if (end >= 0) ::close(end);
  }
  void closeEnd(int i) {
    ::close(ends_[i]);
    ends_[i] = -1;
  }

  int ends_[2] = {-1, -1};
};

const Deadline kNow = std::chrono::steady_clock::now();

}  // namespace

TEST_F(Pipe, CarriesByteStringsWhole) {
  Bytes received;
  for (const Bytes& sent : {Bytes{}, Bytes{1, 2, 3}, Bytes(255, 7)}) {
    EXPECT_TRUE(sendBytes(ends_[0], sent));
    EXPECT_EQ(receiveBytes(ends_[1], received, {}), Received::kWhole);
    EXPECT_EQ(received, sent);
  }
}

TEST_F(Pipe, CarriesMoreThanTheSocketHolds) {
  const Bytes sent(4 << 20, 0x5a);
  std::thread sender([&] { EXPECT_TRUE(sendBytes(ends_[0], sent)); });
  Bytes received;
  EXPECT_EQ(receiveBytes(ends_[1], received, {}), Received::kWhole);
  sender.join();
  EXPECT_EQ(received, sent);
}

TEST_F(Pipe, NothingBeforeTheDeadlineIsLate) {
  Bytes received;
  EXPECT_EQ(receiveBytes(ends_[1], received, kNow), Received::kLate);
}

TEST_F(Pipe, HalfOfItBeforeTheDeadlineIsLate) {
  const unsigned char half[] = {8, 0, 0, 0, 'h', 'a', 'l', 'f'};
  ASSERT_EQ(::write(ends_[0], half, sizeof half), static_cast<ssize_t>(sizeof half));
  Bytes received;
  EXPECT_EQ(receiveBytes(ends_[1], received, kNow), Received::kLate);
}

TEST_F(Pipe, WhatIsThereAtTheDeadlineIsTaken) {
  EXPECT_TRUE(sendBytes(ends_[0], {1, 2}));
  Bytes received;
  EXPECT_EQ(receiveBytes(ends_[1], received, kNow), Received::kWhole);
}

TEST_F(Pipe, AClosedOtherSideEndsBothDirections) {
  closeEnd(1);
  EXPECT_FALSE(sendBytes(ends_[0], {1}));  // and no SIGPIPE
  Bytes received;
  EXPECT_EQ(receiveBytes(ends_[0], received, {}), Received::kEnded);
}

TEST_F(Pipe, AnEndInTheMiddleIsAnEnd) {
  const unsigned char half[] = {8, 0, 0, 0, 'h', 'a', 'l', 'f'};
  ASSERT_EQ(::write(ends_[0], half, sizeof half), static_cast<ssize_t>(sizeof half));
  closeEnd(0);
  Bytes received;
  EXPECT_EQ(receiveBytes(ends_[1], received, {}), Received::kEnded);
}

}  // namespace klctl

// Output that is held back for a while.

#include "base/held_output.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <string>
#include <thread>

#include "tests/support/process/child.h"

namespace {

using kl::heldOutput;

constexpr char kTwo[] = "firstsecond";

const unsigned char* bytesOf(const char* text) { return reinterpret_cast<const unsigned char*>(text); }

// Holds kTwo as two frames; what is written is kept.
class HeldOutput : public testing::Test {
 protected:
  HeldOutput() {
    EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends_.data()), 0);
    heldOutput.begin(ends_[0], this, [](void* writer, const unsigned char* bytes, std::size_t count) {
      static_cast<HeldOutput*>(writer)
          ->written.append(reinterpret_cast<const char*>(bytes), count)
          .append("|");
    });
  }
  ~HeldOutput() override {
    (void)heldOutput.take();
    heldOutput.end();
    for (const int fd : ends_) ::close(fd);
  }

  static void holdTwo() {
    heldOutput.hold(bytesOf(kTwo), 5);
    heldOutput.hold(bytesOf(kTwo), 11);
  }

  // The bytes that came through the socket, which nobody but attempt() writes to.
  std::string received() const {
    std::array<char, 100> text;
    const ssize_t got = ::recv(ends_[1], text.data(), text.size(), MSG_DONTWAIT);
    return got > 0 ? std::string(text.data(), static_cast<std::size_t>(got)) : "";
  }

  std::string written;
  std::array<int, 2> ends_{};
};

TEST_F(HeldOutput, IsWrittenOnceAndInOnePiece) {
  heldOutput.write();
  EXPECT_EQ(written, "");
  holdTwo();
  EXPECT_EQ(heldOutput.frames(), 2u);
  EXPECT_EQ(heldOutput.bytes(), 11u);
  heldOutput.write();
  heldOutput.write();
  EXPECT_EQ(written, "firstsecond|");
  EXPECT_FALSE(heldOutput.isHere());
  heldOutput.hold(bytesOf(kTwo), 5);
  EXPECT_EQ(heldOutput.frames(), 1u);
}

TEST_F(HeldOutput, IsGivenToOneWhoTakesIt) {
  holdTwo();
  EXPECT_EQ(heldOutput.take(), 11u);
  EXPECT_EQ(heldOutput.take(), 0u);
  heldOutput.write();
  heldOutput.attempt();
  EXPECT_EQ(written, "");
  EXPECT_EQ(received(), "");
}

TEST_F(HeldOutput, IsAnotherThreadsBusinessInNoWay) {
  holdTwo();
  std::thread([] {
    EXPECT_FALSE(heldOutput.isHere());
    heldOutput.write();
    heldOutput.noteTick(12345);
    heldOutput.writeOld();
  }).join();
  EXPECT_EQ(written, "");
  EXPECT_TRUE(heldOutput.isHere());
}

TEST_F(HeldOutput, IsWrittenAtAnotherTick) {
  heldOutput.noteTick(7);
  holdTwo();
  heldOutput.noteTick(7);
  EXPECT_EQ(written, "");
  heldOutput.noteTick(8);
  EXPECT_EQ(written, "firstsecond|");
  holdTwo();
  heldOutput.noteTick(7);  // the ticks wrap around
  EXPECT_EQ(written, "firstsecond|firstsecond|");
}

TEST_F(HeldOutput, IsWrittenAtALaterTickByAThreadThatReadsNoClock) {
  holdTwo();
  const std::clock_t begin = std::clock();
  while (std::clock() - begin < CLOCKS_PER_SEC / 25) {  // 40 ms are two ticks, whatever the kernel's own are
  }
  heldOutput.writeOld();
  EXPECT_EQ(written, "firstsecond|");
}

TEST_F(HeldOutput, BelongsToOneWriter) {
  EXPECT_TRUE(heldOutput.mayHold(this));
  EXPECT_FALSE(heldOutput.mayHold(nullptr));
  heldOutput.end();
  EXPECT_FALSE(heldOutput.mayHold(this));
}

TEST_F(HeldOutput, AnAttemptSendsItOnceAndNothingIsHeldFromThenOn) {
  holdTwo();
  heldOutput.attempt();
  heldOutput.attempt();
  EXPECT_EQ(received(), "firstsecond");
  EXPECT_EQ(written, "");
  EXPECT_FALSE(heldOutput.mayHold(this));
}

TEST_F(HeldOutput, AnAttemptDoesNotWait) {
  const std::string filling(4096, 'x');
  while (::send(ends_[0], filling.data(), filling.size(), MSG_DONTWAIT) > 0) {
  }
  holdTwo();
  heldOutput.attempt();  // of a socket that would wait
  EXPECT_EQ(heldOutput.bytes(), 0u);
}

TEST_F(HeldOutput, AnAttemptAtALostPeerIsNoSignal) {
  ::close(ends_[1]);
  const kl::test::ChildResult result = kl::test::runInChild([] {
    holdTwo();
    heldOutput.attempt();
  });
  EXPECT_EQ(result.signal, 0);
  EXPECT_EQ(result.exitStatus, 0);
  ends_[1] = -1;
}

TEST_F(HeldOutput, IsWrittenAtEachKindOfExitFromAnyThread) {
  for (void (*leave)() : {+[] { std::exit(3); }, +[] { std::quick_exit(3); },
                          +[] { std::thread([] { std::exit(3); }).join(); }}) {
    const kl::test::ChildResult result = kl::test::runInChild([&] {
      heldOutput.begin(-1, nullptr, [](void*, const unsigned char* bytes, std::size_t count) {
        EXPECT_EQ(::write(STDOUT_FILENO, bytes, count), 11);
      });
      holdTwo();
      leave();
    });
    EXPECT_EQ(result.out, "firstsecond");
    EXPECT_EQ(result.exitStatus, 3);
  }
}

TEST_F(HeldOutput, IsNotAForkedChilds) {
  holdTwo();
  const kl::test::ChildResult result = kl::test::runInChild(
      [] { std::printf("%zu %d", heldOutput.bytes(), static_cast<int>(heldOutput.isHere())); });
  EXPECT_EQ(result.out, "0 0");
  EXPECT_EQ(heldOutput.bytes(), 11u);
}

}  // namespace

#include "kl/embed.h"

#include <fcntl.h>
#include <gtest/gtest.h>

#include <array>
#include <cstdlib>
#include <random>
#include <string>

#include "tests/support/calls/scripted_calls.h"

namespace kl {
namespace {

class StoppableLoop : public ThinRunner {
 public:
  void stop() { stop_ = true; }
};

bool isReadable(int fd, int ms = 0) {
  pollfd one{fd, POLLIN, 0};
  return ::poll(&one, 1, ms) == 1;
}

// Pipes, timers and hooks whose callbacks change each other at random and write down that they ran.
class RandomUse {
 public:
  RandomUse(StoppableLoop& loop, unsigned int seed, int most) : loop_(loop), random_(seed), left_(most) {
    for (auto& pipe : pipes_) {
      EXPECT_EQ(::pipe2(pipe.data(), O_CLOEXEC | O_NONBLOCK), 0);
      loop_.addSocket(pipe[0], this, bind<RandomUse, &RandomUse::onByte>(), POLLIN);
    }
    loop_.addBeforeSleep(this, bind<RandomUse, &RandomUse::onHook>());
    loop_.addTimer(this, bind<RandomUse, &RandomUse::onBeat>(), 0);
  }
  ~RandomUse() {
    for (const auto& pipe : pipes_)
      for (const int fd : pipe) ::close(fd);
  }
  RandomUse(const RandomUse&) = delete;
  RandomUse& operator=(const RandomUse&) = delete;

  const std::string& told() const { return told_; }

 private:
  void onByte(int fd, unsigned int) {
    char byte = 0;
    EXPECT_EQ(::read(fd, &byte, 1), 1);
    note('0' + numberOf(fd));
  }
  void onTimer() { note('t'); }
  void onHook() { note('h'); }
  void onOtherHook() { note('o'); }
  // There is always something to do.
  void onBeat() {
    loop_.addTimer(this, bind<RandomUse, &RandomUse::onBeat>(), 0);
    note('b');
  }

  int numberOf(int fd) const {
    for (int i = 0; i < 3; ++i)
      if (pipes_[static_cast<unsigned int>(i)][0] == fd) return i;
    return 9;
  }

  void note(int letter) {
    told_ += static_cast<char>(letter);
    if (--left_ == 0) return loop_.stop();
    const auto& pipe = pipes_[random_() % 3];
    switch (random_() % 8) {
      case 0:
      case 1: (void)!::write(pipe[1], "", 1); return;
      case 2: loop_.addTimer(this, bind<RandomUse, &RandomUse::onTimer>(), 0); return;
      case 3: loop_.addDelayedTimer(this, bind<RandomUse, &RandomUse::onTimer>(), 0); return;
      case 4: loop_.addBeforeSleep(this, bind<RandomUse, &RandomUse::onOtherHook>()); return;
      case 5: loop_.removeBeforeSleep(this, bind<RandomUse, &RandomUse::onOtherHook>()); return;
      case 6: (void)loop_.removeSocket(pipe[0]); return;
      default:
        if (!loop_.changeSocket(pipe[0], POLLIN))
          loop_.addSocket(pipe[0], this, bind<RandomUse, &RandomUse::onByte>(), POLLIN);
    }
  }

  StoppableLoop& loop_;
  std::mt19937 random_;
  int left_;
  std::array<std::array<int, 2>, 3> pipes_{};
  std::string told_;
};

TEST(EmbeddedLoops, CallWhatRunCallsInItsOrder) {
  const test::ScriptedClock clock(1000);
  for (unsigned int seed = 1; seed <= 60; ++seed) {
    StoppableLoop plain;
    RandomUse expected(plain, seed, 150);
    plain.run();
    StoppableLoop inner;
    RandomUse used(inner, seed, 150);
    EmbeddedLoop embedded(inner);
    do {
      ASSERT_TRUE(isReadable(embedded.descriptor(), 5000));
    } while (embedded.pass());
    ASSERT_EQ(used.told(), expected.told()) << seed;
    EXPECT_FALSE(embedded.pass());
    ASSERT_EQ(used.told(), expected.told()) << "it has ended";
  }
}

struct EmbeddedLoopTest : ::testing::Test {
  ~EmbeddedLoopTest() override {
    for (const int fd : pipe_)
      if (fd >= 0) ::close(fd);
  }
  void openPipe() { ASSERT_EQ(::pipe2(pipe_, O_CLOEXEC | O_NONBLOCK), 0); }
  void closePipe() {
    for (int& fd : pipe_) ::close(std::exchange(fd, -1));
  }
  void watchPipe() {
    loop_.addSocket(pipe_[0], this, bind<EmbeddedLoopTest, &EmbeddedLoopTest::onByte>(), POLLIN);
  }
  void onByte(int fd, unsigned int) {
    char byte = 0;
    (void)!::read(fd, &byte, 1);
    ++calls_;
  }
  void onTimer() { ++calls_; }

  int pipe_[2] = {-1, -1};
  StoppableLoop loop_;
  EmbeddedLoop embedded_{loop_};
  int calls_ = 0;
};

TEST_F(EmbeddedLoopTest, AreQuietWhileThereIsNothingToDo) {
  openPipe();
  watchPipe();
  const int fd = embedded_.descriptor();
  EXPECT_FALSE(isReadable(fd));
  EXPECT_TRUE(embedded_.pass()) << "and it does not wait";
  EXPECT_EQ(calls_, 0);
  (void)!::write(pipe_[1], "", 1);
  EXPECT_TRUE(isReadable(fd));
  EXPECT_TRUE(embedded_.pass());
  EXPECT_EQ(calls_, 1);
  EXPECT_FALSE(isReadable(fd));
  EXPECT_EQ(embedded_.descriptor(), fd);
}

TEST_F(EmbeddedLoopTest, WakeForTimers) {
  const int fd = embedded_.descriptor();
  loop_.addTimer(this, bind<EmbeddedLoopTest, &EmbeddedLoopTest::onTimer>(), 2);
  embedded_.pass();
  while (calls_ == 0) {
    ASSERT_TRUE(isReadable(fd, 5000));
    embedded_.pass();
  }
  EXPECT_FALSE(isReadable(fd));
}

TEST_F(EmbeddedLoopTest, KnowADescriptorThatWasClosedAndOpenedAnew) {
  openPipe();
  watchPipe();
  const int fd = embedded_.descriptor();
  const int before = pipe_[0];
  loop_.removeSocket(pipe_[0]);
  closePipe();
  openPipe();
  ASSERT_EQ(pipe_[0], before);
  watchPipe();
  embedded_.pass();
  EXPECT_FALSE(isReadable(fd));
  (void)!::write(pipe_[1], "", 1);
  EXPECT_TRUE(isReadable(fd));
  embedded_.pass();
  EXPECT_EQ(calls_, 1);
  loop_.removeSocket(pipe_[0]);
  (void)!::write(pipe_[1], "", 1);
  embedded_.pass();
  EXPECT_FALSE(isReadable(fd)) << "nobody watches it any more";
}

TEST_F(EmbeddedLoopTest, TakeFilesForReadyAsPollDoes) {
  char name[] = "/tmp/embed_XXXXXX";
  const int file = ::mkstemp(name);
  ASSERT_GE(file, 0);
  ::unlink(name);
  loop_.addSocket(file, this, bind<EmbeddedLoopTest, &EmbeddedLoopTest::onByte>(), POLLIN);
  EXPECT_TRUE(isReadable(embedded_.descriptor()));
  embedded_.pass();
  EXPECT_EQ(calls_, 1);
  EXPECT_TRUE(isReadable(embedded_.descriptor(), 5000));
  loop_.removeSocket(file);
  ::close(file);
  embedded_.pass();
  EXPECT_FALSE(isReadable(embedded_.descriptor()));
}

TEST_F(EmbeddedLoopTest, WakeForBytesThatWereReadAhead) {
  openPipe();
  watchPipe();
  const int fd = embedded_.descriptor();
  loop_.setReadAhead(pipe_[0], true);
  embedded_.pass();
  EXPECT_EQ(calls_, 1);
  EXPECT_TRUE(isReadable(fd, 5000));
  loop_.setReadAhead(pipe_[0], false);
  embedded_.pass();
  EXPECT_EQ(calls_, 1);
  EXPECT_FALSE(isReadable(fd));
}

}  // namespace
}  // namespace kl

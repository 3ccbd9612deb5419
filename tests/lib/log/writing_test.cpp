#include <cerrno>
#include <vector>

#include "base/held_output.h"
#include "tests/lib/log/fixture.h"

namespace kl {
namespace {

using test::say;
using Pauses = std::vector<unsigned int>;
using Sizes = std::vector<std::size_t>;

class LogWriting : public test::ConnectedLogClient {
 protected:
  LogWriting() { (void)service.receive(); }

  Source* source = logger.registerSource({5});
  test::ScriptedSocket calls;
};

TEST_F(LogWriting, AnAttemptThatMustWaitIsRepeatedAfterAPause) {
  calls.nextWrites({-EAGAIN, -EAGAIN});
  say(logger, source, "abc");
  EXPECT_EQ(calls.writes(), (Sizes{7, 7, 7}));
  EXPECT_EQ(calls.pauses(), (Pauses{100000, 100000}));
  EXPECT_EQ(service.received(), "0007 0001 6162 63");
  EXPECT_EQ(output(), "sleeping\nsleeping\n");
}

TEST_F(LogWriting, WhatIsHeldBackForTheLoaderLeavesBeforeAPause) {
  static constexpr unsigned char kByte = 'x';
  heldOutput.begin(-1, &calls, [](void* socket, const unsigned char*, std::size_t) {
    EXPECT_EQ(static_cast<test::ScriptedSocket*>(socket)->pauses(), Pauses{});
    EXPECT_EQ(static_cast<test::ScriptedSocket*>(socket)->writes(), Sizes{7});
  });
  heldOutput.hold(&kByte, 1);
  calls.nextWrites({-EAGAIN});
  say(logger, source, "abc");
  EXPECT_EQ(heldOutput.take(), 0u);
  heldOutput.end();
  EXPECT_EQ(calls.pauses(), Pauses{100000});
}

TEST_F(LogWriting, ALineThatNeedsNoPauseLeavesWhatIsHeldBack) {
  static constexpr unsigned char kByte = 'x';
  heldOutput.begin(-1, nullptr, [](void*, const unsigned char*, std::size_t) { ADD_FAILURE(); });
  heldOutput.hold(&kByte, 1);
  say(logger, source, "abc");
  EXPECT_EQ(heldOutput.take(), 1u);
  heldOutput.end();
}

TEST_F(LogWriting, FourAttemptsAndThreePausesAreAllThereIs) {
  calls.nextWrites({-EAGAIN, -EAGAIN, -EAGAIN, -EAGAIN});
  say(logger, source, "abc");
  EXPECT_EQ(calls.writes(), (Sizes{7, 7, 7, 7}));
  EXPECT_EQ(calls.pauses(), (Pauses{100000, 100000, 100000}));
  EXPECT_EQ(service.received(), "");
  EXPECT_EQ(output(), "sleeping\nsleeping\nsleeping\ndopping line\n");
}

TEST_F(LogWriting, ALineThatWasGivenUpLeavesTheConnection) {
  calls.nextWrites({-EAGAIN, -EAGAIN, -EAGAIN, -EAGAIN});
  say(logger, source, "abc");
  say(logger, source, "d");
  EXPECT_EQ(service.received(), "0005 0001 64");
}

TEST_F(LogWriting, ARecordInTwoPiecesArrivesAndIsToldAsLost) {
  calls.nextWrites({3});
  say(logger, source, "abc");
  EXPECT_EQ(calls.writes(), (Sizes{7, 4}));
  EXPECT_EQ(service.received(), "0007 0001 6162 63");
  EXPECT_EQ(output(), "sleeping\ndopping line\n");
}

TEST_F(LogWriting, WhatTheLastAttemptWroteIsNotCountedAsWritten) {
  calls.nextWrites({1, 1, 1, 1});
  say(logger, source, "abc");
  EXPECT_EQ(calls.writes(), (Sizes{7, 6, 5, 4}));
  EXPECT_EQ(service.received(), "0007 0001");
  EXPECT_EQ(output(), "sleeping\nsleeping\nsleeping\npartial write written=3\ndopping line\n");
}

TEST_F(LogWriting, SaysTheSizeOfTheLastPart) {
  calls.nextWrites({2, -EAGAIN});
  EXPECT_EQ(logger.writeRaw("abcdef", 6), 4u);
  calls.nextWrites({2, -EAGAIN, -EAGAIN, -EAGAIN});
  EXPECT_EQ(logger.writeRaw("abcdef", 6), 2u);
  calls.nextWrites({-EPIPE});
  EXPECT_EQ(logger.writeRaw("abcdef", 6), 0u);
}

TEST_F(LogWriting, AWholeRecordIsTrueAndAnyOtherIsFalse) {
  EXPECT_TRUE(logger.writeMsg("abcdef", 6, true));
  calls.nextWrites({2});
  EXPECT_FALSE(logger.writeMsg("abcdef", 6, false));
}

TEST_F(LogWriting, ARegistrationInTwoPiecesDoesNotCount) {
  calls.nextWrites({2});
  Source* other = logger.registerSource({6});
  EXPECT_FALSE(other->registered);
  EXPECT_EQ(service.received(), "000a 0000 0000 0002 0006");
  say(logger, other, "a");
  EXPECT_TRUE(other->registered);
  EXPECT_EQ(service.received(), "000a 0000 0000 0002 0006 0005 0002 61");
}

TEST_F(LogWriting, ALineBehindAFailedRegistrationIsDropped) {
  source->registered = false;
  calls.nextWrites({-EAGAIN, -EAGAIN, -EAGAIN, -EAGAIN});
  say(logger, source, "abc");
  EXPECT_EQ(calls.writes(), (Sizes{10, 10, 10, 10}));
  EXPECT_EQ(output(), "sleeping\nsleeping\nsleeping\ndopping line\nregisteration failed, dropping a line\n");
}

TEST_F(LogWriting, AnyOtherErrorEndsTheConnection) {
  calls.nextWrites({2, -EIO});
  say(logger, source, "abc");
  EXPECT_EQ(output(), "sleeping\nwriteRaw failed: Input/output error\nret=-1, len=5\ndopping line\n");
  EXPECT_EQ(service.received(), "0007");
  EXPECT_TRUE(service.isLeft());
}

TEST_F(LogWriting, ALongTextIsContinuedWhereverAnAttemptEnded) {
  const std::string text = std::string(1000, 'a') + std::string(1000, 'b');
  std::vector<unsigned char> whole{0x07, 0xd4, 0x00, 0x01};
  whole.insert(whole.end(), text.begin(), text.end());
  for (const std::deque<int>& pieces :
       {std::deque<int>{2, 1, 2}, {4, 1, 1998}, {2003}, {-EAGAIN, 3, 1}, {1, 1500, 2}}) {
    calls.nextWrites(pieces);
    say(logger, source, text);
    EXPECT_EQ(service.receive(), whole);
  }
}

TEST_F(LogWriting, AReaderThatDoesNotReadLosesLinesAndGetsThemAgainWhenItReads) {
  std::string text(60000, 'x');
  while (calls.pauses().empty()) say(logger, source, text);
  (void)service.receive();
  (void)output();
  say(logger, source, "abc");
  EXPECT_EQ(service.received(), "0007 0001 6162 63");
  EXPECT_EQ(output(), "");
}

}  // namespace
}  // namespace kl

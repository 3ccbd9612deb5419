// Messages as frames on the loader's socket.

#include "looper/framing.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <string>
#include <thread>
#include <vector>

#include "base/held_output.h"
#include "tests/lib/looper/sends.h"
#include "tests/support/calls/scripted_calls.h"
#include "tests/support/doubles/loader_double.h"
#include "tests/support/hex.h"
#include "tests/support/process/child.h"

namespace kl {
namespace {

using Bytes = std::vector<unsigned char>;

Bytes firstOf(const Bytes& bytes, std::size_t count) {
  return {bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(count)};
}

Bytes afterFirst(const Bytes& bytes, std::size_t count) {
  return {bytes.begin() + static_cast<std::ptrdiff_t>(count), bytes.end()};
}

// A pair of sockets: ours, non-blocking, and the peer's, played by the loader double.
struct Pair {
  Pair() : Pair(makeEnds()) {}
  explicit Pair(const std::array<int, 2>& ends) : ours(ends[0]), peer(ends[1]), frames(ours) {}
  ~Pair() { ::close(ours); }

  static std::array<int, 2> makeEnds() {
    std::array<int, 2> ends{};
    EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM, 0, ends.data()), 0);
    EXPECT_EQ(::fcntl(ends[0], F_SETFL, O_NONBLOCK), 0);
    return ends;
  }

  bool readFrame(message& m, int timeout = 0) {
    Timeout limit(timeout);
    return frames.readFrame(m, limit);
  }

  unsigned int read(Bytes& bytes, int timeout = 0) {
    Timeout limit(timeout);
    return frames.read(bytes.data(), static_cast<unsigned int>(bytes.size()), limit);
  }

  int ours;
  test::LoaderDouble peer;
  FrameSocket frames;
};

// A message whose flattened form has exactly this many bytes: magic 2, the array 6, each element 2 and its own.
message ofLength(std::size_t length) {
  std::vector<Bytes> parts;
  std::size_t left = length - 2 - 6;
  while (left > 60000) {
    parts.emplace_back(50000, static_cast<unsigned char>(parts.size()));
    left -= 50002;
  }
  parts.emplace_back(left - 2, static_cast<unsigned char>('x'));
  message m;
  m.insert_raw_array(0xb0000001, parts);
  EXPECT_EQ(m.max_length(), length);
  return m;
}

message numbered(unsigned int n) {
  message m;
  m.insert_u32(0x08000001, n);
  return m;
}

TEST(Framing, TheLengthComesFirstLittleEndian) {
  Pair pair;
  message m;
  m.insert_raw(0x30000001, Bytes(35, 0xaa));  // 2 + 4 + 1 + 35 = 42 bytes
  pair.frames.writeFrame(m);
  const Bytes frame = pair.peer.receiveFrame();
  EXPECT_EQ(test::hex(firstOf(frame, 11)), "2a00 0000 4d32 0100 0031 23");
  EXPECT_EQ(frame.size(), 46u);
}

TEST(Framing, AFrameComesBackAsTheMessageThatItWas) {
  Pair pair;
  pair.peer.sendBytes(test::bytes("06000000 4d32 03000001"));
  message m;
  ASSERT_TRUE(pair.readFrame(m));
  message expected;
  expected.insert_bool(3, true);
  EXPECT_EQ(m, expected);
  EXPECT_FALSE(pair.frames.holdsBytes());
}

TEST(Framing, AMessageOffTheSocketFlattensInTheOrderItCameIn) {
  Pair pair;
  const Bytes body = test::bytes("4d32 01000021 0161 02000021 0162 01000088 0100 05000000 02000088 0000");
  Bytes frame{static_cast<unsigned char>(body.size()), 0, 0, 0};
  frame.insert(frame.end(), body.begin(), body.end());
  pair.peer.sendBytes(frame);
  message m;
  ASSERT_TRUE(pair.readFrame(m));
  Bytes again;
  m.flatten(again);
  EXPECT_EQ(test::hex(again), test::hex(body));
}

TEST(Framing, OneReadTakesTwoFramesAndServesThemOneByOne) {
  Pair pair;
  pair.peer.send(numbered(1));
  pair.peer.send(numbered(2));
  message m;
  ASSERT_TRUE(pair.readFrame(m));
  EXPECT_EQ(m, numbered(1));
  EXPECT_TRUE(pair.frames.holdsBytes());
  ASSERT_TRUE(pair.readFrame(m));
  EXPECT_EQ(m, numbered(2));
  EXPECT_FALSE(pair.frames.holdsBytes());
  EXPECT_FALSE(pair.readFrame(m));
}

TEST(Framing, NothingThereIsAnsweredAtOnceWithoutTimeout) {
  Pair pair;
  const test::ScriptedPoll poll([](const auto&) { return 0; });
  message m = numbered(7);
  EXPECT_FALSE(pair.readFrame(m, 0));
  EXPECT_EQ(m, numbered(7));
  EXPECT_TRUE(poll.timeouts().empty());
}

TEST(Framing, AFrameSplitAtEveryByteIsPutTogether) {
  message m;
  m.insert_string(0x20000001, "split me");
  m.insert_u32_array(0x88000001, {1, 2, 3});
  const Bytes frame = test::frameOf(m);
  for (std::size_t cut = 1; cut < frame.size(); ++cut) {
    Pair pair;
    pair.peer.sendBytes(firstOf(frame, cut));
    std::thread rest([&] { pair.peer.sendBytes(afterFirst(frame, cut)); });
    message got;
    EXPECT_TRUE(pair.readFrame(got)) << cut;
    rest.join();
    EXPECT_EQ(got, m) << cut;
  }
}

TEST(Framing, AFrameThatComesByteByByteIsCompletedWithoutTimeout) {
  const Bytes frame = test::frameOf(numbered(1000));
  Pair pair;
  test::ScriptedClock clock(0);
  std::size_t sent = 0;
  const test::ScriptedPoll poll([&](const auto&) {
    clock.advance(1000);  // far more than the time-out allows
    pair.peer.sendBytes({frame[sent++]});
    return 1;
  });
  message m;
  EXPECT_TRUE(pair.readFrame(m, 5));
  EXPECT_EQ(m, numbered(1000));
  std::vector<int> expected(frame.size(), -1);
  expected[0] = 50;  // only the wait for the first byte has a limit
  EXPECT_EQ(poll.timeouts(), expected);
}

TEST(Framing, WhoMayWaitPollsBeforeReading) {
  Pair pair;
  const test::ScriptedPoll poll([&](const auto&) {
    pair.peer.send(numbered(1));
    return 1;
  });
  message m;
  EXPECT_TRUE(pair.readFrame(m, -1));
  EXPECT_EQ(poll.timeouts(), std::vector<int>{-1});
}

TEST(Framing, ATimeoutThatPassesIsNoError) {
  Pair pair;
  const test::ScriptedClock clock(0);
  const test::ScriptedPoll poll([](const auto&) { return 0; });
  message m;
  EXPECT_FALSE(pair.readFrame(m, 300));
  EXPECT_EQ(poll.timeouts(), std::vector<int>{3000});
}

TEST(Framing, AnInterruptedPollIsRepeatedWithWhatIsLeft) {
  Pair pair;
  test::ScriptedClock clock(0);
  int calls = 0;
  const test::ScriptedPoll poll([&](const auto&) {
    clock.advance(100);
    errno = EINTR;
    return ++calls < 4 ? -1 : 0;
  });
  message m;
  EXPECT_FALSE(pair.readFrame(m, 250));
  EXPECT_EQ(poll.timeouts(), (std::vector<int>{2500, 1500, 500, 0}));
}

TEST(FramingFaults, APollThatFailsEndsTheProcess) {
  const test::ChildResult result = test::runInChild([] {
    Pair pair;
    const test::ScriptedPoll poll([](const auto&) {
      errno = ENOMEM;
      return -1;
    });
    message m;
    (void)pair.readFrame(m, 10);
  });
  EXPECT_EQ(result.err, "LOOPER:: read_raw pool failed: errno=12\n");
  EXPECT_EQ(result.exitStatus, 1);
}

// Sends the bytes, ends the connection and says how a reader of frames ends.
test::ChildResult readersEnd(const Bytes& bytes) {
  return test::runInChild([&] {
    Pair pair;
    pair.peer.sendBytes(bytes);
    pair.peer.close();
    message m;
    while (pair.readFrame(m)) {
    }
  });
}

TEST(FramingFaults, EndOfFileEndsTheProcess) {
  const test::ChildResult result = readersEnd({});
  EXPECT_EQ(result.err, "LOOPER: read_raw read failed: EOF\n");
  EXPECT_EQ(result.exitStatus, 1);
}

TEST(FramingFaults, EveryPrefixOfAFrameAndThenTheEndOfFileEndsTheProcess) {
  const Bytes frame = test::frameOf(numbered(1000));
  for (std::size_t length = 1; length <= frame.size(); ++length) {
    const test::ChildResult result = readersEnd(firstOf(frame, length));
    EXPECT_EQ(result.err, "LOOPER: read_raw read failed: EOF\n") << length;
    EXPECT_EQ(result.exitStatus, 1) << length;
  }
}

TEST(FramingFaults, ALengthIsAClaimAndCostsNoMemory) {
  const test::ChildResult result = test::runInChild([] {
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
    const rlimit limit{256u << 20, 256u << 20};
    ::setrlimit(RLIMIT_AS, &limit);
#endif
    Pair pair;
    pair.peer.sendBytes(test::bytes("ffffffff 4d32"));
    pair.peer.close();
    message m;
    (void)pair.readFrame(m);
  });
  EXPECT_EQ(result.err, "LOOPER: read_raw read failed: EOF\n");
  EXPECT_EQ(result.exitStatus, 1);
}

TEST(FramingFaults, AReadErrorEndsTheProcess) {
  const test::ChildResult result = test::runInChild([] {
    FrameSocket frames(-1);
    Timeout timeout(0);
    message m;
    (void)frames.readFrame(m, timeout);
  });
  EXPECT_EQ(result.err, "LOOPER: read_raw read failed: -1, errno: 9\n");
  EXPECT_EQ(result.exitStatus, 1);
}

TEST(FramingFaults, WritingToALostPeerEndsTheProcessWithALineAndNoSignal) {
  const test::ChildResult result = test::runInChild([] {
    Pair pair;
    pair.peer.close();
    pair.frames.writeFrame(numbered(1));
  });
  EXPECT_EQ(result.err, "LOOPER: write_raw write failed: -1, errno: 32\n");
  EXPECT_EQ(result.exitStatus, 1);
}

TEST(FramingFaults, AWriteThatTakesNothingEndsTheProcess) {
  const test::ChildResult result = test::runInChild([] {
    Pair pair;
    test::letSendsTakeNothing(true);
    pair.frames.writeFrame(numbered(1));
  });
  EXPECT_EQ(result.err, "LOOPER: write_raw write failed: EOF\n");
  EXPECT_EQ(result.exitStatus, 1);
}

TEST(FramingFaults, AFrameOfLengthZeroIsAnEmptyMessage) {
  Pair pair;
  pair.peer.sendBytes(test::bytes("00000000"));
  pair.peer.send(numbered(2));
  message m = numbered(1);
  EXPECT_TRUE(pair.readFrame(m));
  EXPECT_EQ(m, message());
  EXPECT_TRUE(pair.readFrame(m));
  EXPECT_EQ(m, numbered(2));
}

TEST(FramingFaults, BytesThatAreNoMessageGiveWhatWasReadBeforeTheFault) {
  Pair pair;
  pair.peer.sendBytes(test::bytes("04000000 deadbeef"));
  pair.peer.sendBytes(test::bytes("09000000 4d32 0100000907 0000"));
  message m = numbered(1);
  EXPECT_TRUE(pair.readFrame(m));
  EXPECT_EQ(m, message());
  EXPECT_TRUE(pair.readFrame(m));
  EXPECT_EQ(m, numbered(7));
}

TEST(Framing, AMessageOf65535BytesIsSentAndOneOf65536IsNot) {
  Pair pair;
  std::size_t got = 0;
  std::thread reader([&] { got = pair.peer.receiveFrame().size(); });
  pair.frames.writeFrame(ofLength(65535));
  reader.join();
  EXPECT_EQ(got, 65539u);
  pair.frames.writeFrame(ofLength(65536));
  pair.frames.writeFrame(ofLength(300000));
  EXPECT_TRUE(pair.peer.isSilent());
  pair.frames.writeFrame(numbered(3));
  EXPECT_EQ(pair.peer.receive(), numbered(3));
}

TEST(Framing, TheReaderAcceptsFramesThatTheWriterDoesNotSend) {
  for (const std::size_t length : {65535u, 65536u, 1000000u}) {
    Pair pair;
    const message sent = ofLength(length);
    std::thread writer([&] {
      pair.peer.send(sent);
      pair.peer.send(numbered(4));
    });
    message m;
    EXPECT_TRUE(pair.readFrame(m, -1));
    EXPECT_EQ(m, sent);
    EXPECT_TRUE(pair.readFrame(m, -1));
    EXPECT_EQ(m, numbered(4));
    writer.join();
  }
}

TEST(Framing, AWriterWaitsForAReaderThatStalls) {
  Pair pair;
  const message m = ofLength(20000);
  bool waited = false;
  {
    const test::ScriptedPoll poll([&](const std::vector<pollfd*>& entries) {
      EXPECT_EQ(entries[0]->events, POLLOUT);
      waited = true;
      EXPECT_EQ(pair.peer.receive(), m);  // it reads one frame whenever the writer cannot go on
      return 1;
    });
    for (int n = 0; n < 100; ++n) pair.frames.writeFrame(m);
    EXPECT_TRUE(waited);
    EXPECT_EQ(poll.timeouts(), std::vector<int>(poll.timeouts().size(), -1));
  }
}

TEST(Framing, RawBytesComeExactlyAsManyAsAskedFor) {
  Pair pair;
  Bytes three(3);
  EXPECT_EQ(pair.read(three), 0u);
  pair.peer.sendBytes({1, 2, 3, 4, 5});
  EXPECT_EQ(pair.read(three), 3u);
  EXPECT_EQ(three, (Bytes{1, 2, 3}));
  EXPECT_TRUE(pair.frames.holdsBytes());
  Bytes two(2);
  EXPECT_EQ(pair.read(two), 2u);
  EXPECT_EQ(two, (Bytes{4, 5}));
  Bytes none;
  EXPECT_EQ(pair.read(none), 0u);
}

TEST(Framing, RawBytesOnceBegunAreCompleted) {
  Pair pair;
  pair.peer.sendBytes({1});
  const test::ScriptedPoll poll([&](const auto&) {
    pair.peer.sendBytes({2});
    return 1;
  });
  Bytes two(2);
  EXPECT_EQ(pair.read(two, 0), 2u);
  EXPECT_EQ(two, (Bytes{1, 2}));
  EXPECT_EQ(poll.timeouts(), std::vector<int>{-1});
}

// --- Holding back

TEST(Framing, OnlyAWholeFrameThatWaitsIsOne) {
  const Bytes frame = test::frameOf(numbered(1));
  for (std::size_t more = 0; more <= frame.size(); ++more) {
    Pair pair;
    Bytes bytes = frame;
    bytes.insert(bytes.end(), frame.begin(), frame.begin() + static_cast<std::ptrdiff_t>(more));
    pair.peer.sendBytes(bytes);
    message m;
    EXPECT_FALSE(pair.frames.holdsFrame());
    ASSERT_TRUE(pair.readFrame(m));
    EXPECT_EQ(pair.frames.holdsFrame(), more == frame.size()) << more;
  }
}

// With one frame taken and another that waits.
struct BusyPair : Pair {
  BusyPair() {
    peer.send(numbered(1));
    peer.send(numbered(2));
    message m;
    EXPECT_TRUE(readFrame(m));
  }
};

TEST(Framing, WithoutLeaveToHoldNothingIsHeld) {
  BusyPair pair;
  pair.frames.writeFrame(numbered(3));
  EXPECT_EQ(pair.peer.receive(), numbered(3));
  pair.frames.beginHolding();
  pair.frames.endHolding();
  pair.frames.writeFrame(numbered(4));
  EXPECT_EQ(pair.peer.receive(), numbered(4));
}

TEST(Framing, WhatIsHeldLeavesInFrontOfWhateverIsWrittenNext) {
  BusyPair pair;
  const test::Sends sends(pair.ours);
  pair.frames.beginHolding();
  pair.frames.writeFrame(numbered(3));
  pair.frames.writeFrame(numbered(4));
  EXPECT_TRUE(pair.peer.isSilent());
  const Bytes frame = test::frameOf(numbered(5));
  pair.frames.write(frame.data(), frame.size());
  EXPECT_EQ(sends.sizes(), (std::vector<std::size_t>{2 * frame.size(), frame.size()}));
  for (const unsigned int n : {3u, 4u, 5u}) EXPECT_EQ(pair.peer.receive(), numbered(n));
}

TEST(Framing, WhatIsHeldLeavesBeforeTheSocketIsRead) {
  BusyPair pair;
  pair.frames.beginHolding();
  pair.frames.writeFrame(numbered(3));
  message m;
  ASSERT_TRUE(pair.readFrame(m));
  EXPECT_TRUE(pair.peer.isSilent());  // that one had been read
  EXPECT_FALSE(pair.readFrame(m));
  EXPECT_EQ(pair.peer.receive(), numbered(3));
}

TEST(Framing, TheEndOfHoldingWritesWhatIsHeld) {
  BusyPair pair;
  pair.frames.beginHolding();
  pair.frames.writeFrame(numbered(3));
  pair.frames.endHolding();
  EXPECT_EQ(pair.peer.receive(), numbered(3));
}

TEST(Framing, FramesOfEverySizeKeepTheirOrderAroundTheBounds) {
  for (const std::size_t length :
       {100u, 511u, 512u, 513u, 5000u, 8000u, 16379u, 16380u, 16381u, 60000u, 65535u}) {
    BusyPair pair;
    pair.frames.beginHolding();
    const message large = ofLength(length);
    std::thread reader([&] {
      for (unsigned int n = 0; n < 50; ++n) {
        EXPECT_EQ(pair.peer.receive(), numbered(n)) << length;
        EXPECT_TRUE(pair.peer.receive() == large) << length;
      }
    });
    for (unsigned int n = 0; n < 50; ++n) {
      pair.frames.writeFrame(numbered(n));
      pair.frames.writeFrame(large);
      EXPECT_LE(heldOutput.bytes(), kMostHeldBytes);
    }
    pair.frames.endHolding();
    reader.join();
  }
}

TEST(Framing, WhatIsTooLargeLeavesWhatIsHeldAsItIs) {
  BusyPair pair;
  pair.frames.beginHolding();
  pair.frames.writeFrame(numbered(3));
  EXPECT_EQ(pair.frames.writeFrame(ofLength(65536)), 65536u);
  EXPECT_EQ(pair.frames.writeFrame(ofLength(300000)), 300000u);
  pair.frames.writeFrame(numbered(4));
  pair.frames.endHolding();
  EXPECT_EQ(pair.peer.receive(), numbered(3));
  EXPECT_EQ(pair.peer.receive(), numbered(4));
  EXPECT_TRUE(pair.peer.isSilent());
}

TEST(Framing, WritingNothingWritesNothing) {
  Pair pair;
  pair.frames.write(nullptr, 0);
  EXPECT_TRUE(pair.peer.isSilent());
}

}  // namespace
}  // namespace kl

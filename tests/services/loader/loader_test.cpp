// Bytes at the loader's socket: whole frames, cut frames and garbage.

#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include "kl/conventions.h"
#include "kl/services.h"
#include "tests/support/doubles/loader_process.h"
#include "tests/support/doubles/raw_peer.h"
#include "tests/support/hex.h"
#include "tests/support/process/child_process.h"

namespace {

using kl::test::bytes;
using kl::test::frameOf;
using kl::test::hello;
using kl::test::LoaderProcess;
using kl::test::notification;
using kl::test::RawPeer;
using kl::test::replyTo;
using kl::test::request;
using Bytes = std::vector<unsigned char>;

class Frames : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(witness_.connect());
    ASSERT_EQ(witness_.registerAs(500), 500u);
  }
  void TearDown() override {
    // The loader still routes, whatever came in.
    RawPeer late = RawPeer::registered();
    ASSERT_TRUE(late.send(request({500, 1}, kl::CMD_GET, 77)));
    const auto asked = witness_.receiveCommand(kl::CMD_GET);
    ASSERT_TRUE(asked);
    ASSERT_TRUE(witness_.send(replyTo(*asked)));
    EXPECT_TRUE(late.receiveReply(77));
  }

  RawPeer registered(unsigned int id) {
    RawPeer peer = RawPeer::registered(id);
    EXPECT_TRUE(peer.meet(500, witness_));
    return peer;
  }

  // A registered peer that sends this is disconnected, who knows it is told, and the log says why.
  void expectGarbage(std::span<const unsigned char> stream, const std::string& reason) {
    RawPeer peer = registered(600);
    ASSERT_TRUE(peer.sendBytes(stream));
    EXPECT_TRUE(peer.isDisconnected());
    const auto told = witness_.receiveCommand(kl::CMD_DISCONNECTED);
    ASSERT_TRUE(told);
    EXPECT_EQ(told->get(kl::SYS_FROM, {}), std::vector<unsigned int>{600});
    EXPECT_TRUE(loader_.logs(reason)) << loader_.log();
  }
  void expectGarbage(const kl::message& m, const std::string& reason) { expectGarbage(frameOf(m), reason); }

  // Messages of the loader's own.
  unsigned long long sentByLoader() {
    kl::message m = request({1}, kl::CMD_GETOBJ, 99, {7});
    m.insert(kl::STD_ID, 1);
    EXPECT_TRUE(witness_.send(m));
    return witness_.receiveReply(99).value_or(kl::message()).get(kl::SVC_MESSAGES_OUT, 0);
  }

  LoaderProcess loader_;
  RawPeer witness_;
};

TEST_F(Frames, FramesSplitAtEveryByteAreCarried) {
  const Bytes first = frameOf(hello(600));
  for (std::size_t split = 1; split < first.size(); split += 7) {
    RawPeer peer;
    ASSERT_TRUE(peer.connect());
    ASSERT_TRUE(peer.sendBytes({first.data(), split}));
    ASSERT_TRUE(peer.isQuiet(1));
    ASSERT_TRUE(peer.sendBytes({first.data() + split, first.size() - split}));
    ASSERT_TRUE(peer.receive()) << "split at " << split;
    ASSERT_TRUE(peer.meet(500, witness_));
    peer.close();
    ASSERT_TRUE(witness_.receiveCommand(kl::CMD_DISCONNECTED));
  }
  RawPeer peer = registered(600);
  for (const unsigned char byte : frameOf(request({500, 1}, kl::CMD_GET, 5, {7})))
    ASSERT_TRUE(peer.sendBytes({&byte, 1}));
  const auto got = witness_.receive();
  ASSERT_TRUE(got);
  EXPECT_EQ(got->get(kl::SYS_FROM, {}), (std::vector<unsigned int>{600, 7}));
}

TEST_F(Frames, ManyFramesInOneWriteAreAllCarriedInOrder) {
  RawPeer peer = registered(600);
  Bytes stream;
  for (unsigned int id = 0; id < 500; ++id) {
    const Bytes frame = frameOf(request({500, 1}, kl::CMD_GET, id, {7}));
    stream.insert(stream.end(), frame.begin(), frame.end());
  }
  ASSERT_TRUE(peer.sendBytes(stream));
  for (unsigned int id = 0; id < 500; ++id) {
    const auto got = witness_.receive();
    ASSERT_TRUE(got);
    EXPECT_EQ(got->get(kl::SYS_REQID, 0), id);
  }
}

TEST_F(Frames, ALengthAloneKeepsNobodyWaiting) {
  RawPeer peer = registered(600);
  ASSERT_TRUE(peer.sendBytes(bytes("10000000")));
  EXPECT_TRUE(peer.isQuiet(50));
  peer.close();
  EXPECT_TRUE(witness_.receiveCommand(kl::CMD_DISCONNECTED));
  EXPECT_TRUE(loader_.logs("ended within a frame"));
}

TEST_F(Frames, ALengthPastTheEndOfTheStreamEndsItsSender) {
  RawPeer peer = registered(600);
  ASSERT_TRUE(peer.sendBytes(bytes("ff000000 4d32 0100ff88")));
  peer.halfClose();
  EXPECT_TRUE(peer.isDisconnected());
  EXPECT_TRUE(witness_.receiveCommand(kl::CMD_DISCONNECTED));
  EXPECT_TRUE(loader_.logs("ended within a frame"));
}

// A notification whose body has exactly this size.
Bytes bodyOf(std::size_t size) {
  kl::message m = notification({500, 1}, {7});
  Bytes body;
  m.flatten(body);
  while (body.size() < size) {  // raw fields of at most 60000 bytes
    const std::size_t left = size - body.size();
    const std::size_t piece = left > 60006 + 6 + 256 ? 60006 : left;
    const std::size_t value = piece - 6;
    const Bytes header{
        1, 0, 0, 0x30, static_cast<unsigned char>(value), static_cast<unsigned char>(value >> 8)};
    body.insert(body.end(), header.begin(), header.end());
    body.resize(body.size() + value, 0x5a);
  }
  return body;
}

TEST_F(Frames, ABodyOf65535BytesIsCarried) {
  RawPeer peer = registered(600);
  const Bytes body = bodyOf(65535);
  ASSERT_EQ(body.size(), 65535u);
  ASSERT_TRUE(peer.sendBody(body));
  const auto got = witness_.receiveBody();
  ASSERT_TRUE(got);
  const Bytes user = bytes("0a00ff21 04 726f6f74");  // SYS_USER "root", which the loader adds
  ASSERT_EQ(got->size(), 65535 + user.size());       // one hop less, one more on the way back
  EXPECT_TRUE(std::equal(user.begin(), user.end(), got->end() - 9));
  EXPECT_EQ(kl::message(*got).get(kl::SYS_FROM, {}), (std::vector<unsigned int>{600, 7}));
  EXPECT_TRUE(std::equal(body.end() - 50000, body.end(), got->end() - 50009));
}

TEST_F(Frames, ALengthOf65536BytesAndMoreIsGarbage) {
  expectGarbage(bytes("00000100"), "announced a frame of more than 65535 bytes");
  const std::size_t before = loader_.memory();  // an emulator has translated what the others run, too
  for (const char* prefix : {"00000100", "00000001", "01000001", "ffffffff"})
    expectGarbage(bytes(prefix), "announced a frame of more than 65535 bytes");
  EXPECT_LT(loader_.memory(), before + (1u << 20));
}

// The loader's own service gets nothing that is larger than what others get.
TEST_F(Frames, AFrameOf16MiBToTheLoaderIsNotRead) {
  expectGarbage(bytes("00000100"), "announced a frame of more than 65535 bytes");
  const std::size_t before = loader_.memory();  // an emulator has translated what the frame runs through, too
  RawPeer peer = registered(600);
  Bytes frame = frameOf(request({1}, kl::CMD_GETALL, 5, {7}));
  frame.resize(16u << 20, 0);
  frame[3] = 1;  // the length is 16 MiB and a little
  (void)peer.sendBytes(frame);
  EXPECT_TRUE(peer.isDisconnected());
  ASSERT_TRUE(witness_.receiveCommand(kl::CMD_DISCONNECTED));
  EXPECT_LT(loader_.memory(), before + (1u << 20));
}

TEST_F(Frames, ALengthOfZeroIsGarbage) { expectGarbage(bytes("00000000"), "sent bytes that are no message"); }

TEST_F(Frames, BytesThatDoNotUnflattenAreGarbage) {
  expectGarbage(bytes("03000000 4d32 00"), "sent bytes that are no message");
}

TEST_F(Frames, TheOlderFormatIsGarbage) {
  expectGarbage(bytes("02000000 0000"), "sent bytes that are no message");
}

TEST_F(Frames, ASystemFieldThatStandsTwiceIsGarbage) {
  expectGarbage(bytes("16000000 4d32 0100ff88 0100 f4010000 0700ff09 01 0700ff09 02"),
                "sent a system field twice");
}

TEST_F(Frames, ASystemFieldOfAnotherTypeIsGarbage) {
  kl::message m = notification({500});
  m.insert_u32(0x08ff000a, 7);  // the number of SYS_USER
  expectGarbage(m, "sent a system field of another type");
}

TEST_F(Frames, AMessageWithoutAPathIsGarbage) {
  expectGarbage(kl::errorMsg(kl::ERROR_FAILED, ""), "sent a message without a path");
}

TEST_F(Frames, PathsThatLeadNowhereAreGarbage) {
  expectGarbage(notification({kl::PATH_SELF, 1}), "sent a path that begins with PATH_SELF");
  expectGarbage(notification(std::vector<unsigned int>(33, 500)), "sent a path of more than 32 hops");
}

TEST_F(Frames, AControlMessageForSomebodyElseIsGarbage) {
  for (const std::vector<unsigned int>& path : {std::vector<unsigned int>{500}, {kl::PATH_ALL}, {1, 0}}) {
    kl::message m;
    m.insert(kl::SYS_TO, path);
    m.insert(kl::SYS_CTRL, kl::CTRL_LEAVE);
    expectGarbage(m, "sent a control message for somebody else");
    EXPECT_TRUE(witness_.isQuiet(20));
  }
}

TEST_F(Frames, WhoRegistersTwiceIsDisconnected) { expectGarbage(hello(601), "sent a second registration"); }

constexpr const char* kTooManyFail = "too many connections come to nothing; new ones have to wait";

// How many come in a tick is up to the machine: they come until there were too many in one.
TEST_F(Frames, ManyThatComeToNothingAreToldAndHaveToWait) {
  for (int rounds = 0; rounds < 200 && !loader_.logs(kTooManyFail, 0); ++rounds) {
    std::vector<RawPeer> peers(50);
    for (RawPeer& peer : peers) ASSERT_TRUE(peer.connect());
    for (RawPeer& peer : peers) ASSERT_TRUE(peer.sendBytes(bytes("05000000 ffffffffff")));
    for (RawPeer& peer : peers) ASSERT_TRUE(peer.isDisconnected());
  }
  EXPECT_TRUE(loader_.logs(kTooManyFail));
}

TEST_F(Frames, WhoComesAndGoesInOrderHoldsNobodyUp) {
  for (int rounds = 0; rounds < 4; ++rounds) {
    std::vector<RawPeer> peers(50);
    for (RawPeer& peer : peers) ASSERT_TRUE(peer.connect());
    for (RawPeer& peer : peers) ASSERT_NE(peer.registerAs(0), 0u);
  }
  EXPECT_FALSE(loader_.logs(kTooManyFail, 0));
}

// A child has them all, each knows everybody, and the loader meets their ends in one pass.
TEST_F(Frames, ThoseWhoEndTogetherAreAnnouncedToWhoStaysAndNotToEachOther) {
  constexpr unsigned int kMany = 60;
  kl::test::Pipe ready;
  kl::test::ChildProcess child([&] {
    std::vector<RawPeer> peers(kMany);
    for (RawPeer& peer : peers)
      if (!peer.connect() || peer.registerAs(0) == 0) ::_exit(1);
    for (RawPeer& peer : peers) (void)peer.send(notification({kl::PATH_ALL}));
    ready.say('!');
    ::pause();
  });
  ASSERT_TRUE(ready.hear<char>());
  for (unsigned int i = 0; i < kMany; ++i) ASSERT_TRUE(witness_.receiveCommand(kl::CMD_NOTIFY)) << i;
  const unsigned long long before = sentByLoader();
  loader_.signal(SIGSTOP);
  ASSERT_EQ(child.end(SIGKILL), 128 + SIGKILL);
  loader_.signal(SIGCONT);
  for (unsigned int i = 0; i < kMany; ++i) ASSERT_TRUE(witness_.receiveCommand(kl::CMD_DISCONNECTED)) << i;
  EXPECT_LT(sentByLoader(), before + 10 * kMany);
}

TEST_F(Frames, ManyBadPeersCostNothingThatStays) {
  const std::size_t before = loader_.descriptors();
  for (int i = 0; i < 300; ++i) {
    RawPeer peer;
    ASSERT_TRUE(peer.connect());
    ASSERT_TRUE(peer.sendBytes(bytes("05000000 ffffffffff")));
    ASSERT_TRUE(peer.isDisconnected());
  }
  EXPECT_EQ(loader_.descriptors(), before);
}

}  // namespace

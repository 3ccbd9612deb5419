// Peers that read too little or write too much, and what the others notice of them.

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <optional>

#include "kl/conventions.h"
#include "kl/runner.h"
#include "kl/services.h"
#include "services/loader/transport/connection.h"
#include "tests/support/doubles/loader_process.h"
#include "tests/support/doubles/raw_peer.h"
#include "tests/support/hex.h"
#include "tests/support/process/child_process.h"

namespace {

using kl::test::frameOf;
using kl::test::LoaderProcess;
using kl::test::notification;
using kl::test::RawPeer;
using kl::test::replyTo;
using kl::test::request;
using Clock = std::chrono::steady_clock;

constexpr char kSmallQueues[] = "[loader]\nqueue_limit = 65536\nstall_seconds = 0\n";
constexpr char kImpatient[] = "[loader]\nqueue_limit = 65536\nstall_seconds = 1\n";

kl::message large(kl::message m) {
  m.insert_raw(0x30000001, std::vector<unsigned char>(20000));
  return m;
}

// One connection, in a thread that stands still as long as the test wants.
class StandingStill : public testing::Test, public loader::ConnectionHost {
 protected:
  static constexpr unsigned int kTicks = 5;

  void SetUp() override {
    int ends[2];
    ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, ends), 0);
    other_ = loader::Descriptor(ends[0]);
    connection_.emplace(sockets_, *this, area_, turns_, loader::Descriptor(ends[1]),
                        loader::Connection::Origin::kAccepted, loader::Patience{1 << 20, kTicks});
  }

  void fillQueue() {
    const std::vector<unsigned char> bytes(4 << 20);
    out_.append(bytes);
    connection_->onOutput();
    ASSERT_GT(out_.size(), 1U << 20);
  }
  std::size_t readAll() const {
    std::vector<unsigned char> bytes(1 << 20);
    std::size_t all = 0;
    for (ssize_t n = 0; (n = ::read(other_.get(), bytes.data(), bytes.size())) > 0;)
      all += static_cast<std::size_t>(n);
    return all;
  }

  // The pass after a time in which nothing ran.
  void wakeUp() {
    ::usleep((kTicks + 2) * 10000);
    runner_.runSocks(kl::getJiffies());
  }

  void onBatch() override {}
  const char* onFrame(std::span<const unsigned char>) override {
    connection_->attach(out_);
    return nullptr;
  }
  void onPendingReadable() override { connection_->serve(); }
  void onConnectionClosed(const std::string& reason) override {
    end_ = reason;
    connection_->close();
  }
  void writeQueues() override {}

  kl::Runner runner_;
  loader::Sockets sockets_{runner_};
  loader::ReadArea area_;
  loader::Work work_;
  loader::Turns turns_{work_};
  loader::Buffer out_;
  loader::Descriptor other_;
  std::optional<loader::Connection> connection_;
  std::string end_;
};

TEST_F(StandingStill, AProcessThatRegisteredMeanwhileIsTaken) {
  const std::vector<unsigned char> frame = frameOf(notification({1}));
  ASSERT_EQ(::send(other_.get(), frame.data(), frame.size(), 0), static_cast<ssize_t>(frame.size()));
  wakeUp();
  EXPECT_EQ(end_, "");
  EXPECT_FALSE(connection_->isPending());
}

TEST_F(StandingStill, AProcessThatDidNotRegisterIsNot) {
  wakeUp();
  EXPECT_EQ(end_, "does not register");
}

TEST_F(StandingStill, AProcessThatReadMeanwhileIsKept) {
  connection_->attach(out_);
  fillQueue();
  ASSERT_GT(readAll(), 0u);
  wakeUp();
  EXPECT_EQ(end_, "");
  EXPECT_TRUE(connection_->isOpen());
}

TEST_F(StandingStill, AProcessThatReadNothingIsNot) {
  connection_->attach(out_);
  fillQueue();
  wakeUp();
  EXPECT_EQ(end_, "reads nothing while its queue is full");
}

class Peers : public testing::Test {
 protected:
  void connectAll() {
    for (auto& [peer, id] : {std::pair<RawPeer*, unsigned int>{&a_, 500}, {&b_, 501}, {&mute_, 502}}) {
      ASSERT_TRUE(peer->connect());
      ASSERT_EQ(peer->registerAs(id), id);
    }
    ASSERT_TRUE(mute_.meet(501, b_));  // which hears of its end
  }

  // A request from a_ to b_ and back.
  void roundTrip(unsigned int id) {
    ASSERT_TRUE(a_.send(request({501, 1}, kl::CMD_GET, id, {7})));
    const auto asked = b_.receiveCommand(kl::CMD_GET);
    ASSERT_TRUE(asked);
    ASSERT_TRUE(b_.send(replyTo(*asked)));
    ASSERT_TRUE(a_.receiveReply(id));
  }

  // The answer is number 99.
  bool askForRow(unsigned int id) {
    kl::message m = request({1}, kl::CMD_GETOBJ, 99, {7});
    m.insert(kl::STD_ID, id);
    return a_.send(m);
  }

  unsigned long long row(unsigned int id, unsigned int field) {
    if (!askForRow(id)) return 0;
    const auto answer = a_.receiveReply(99);
    if (!answer) return 0;
    return (field & 0xf8000000) == 0x10000000 ? answer->get_u64(field, 0) : answer->get_u32(field, 0);
  }

  // Sends notifications to the mute peer until the loader's queue for it takes none of ten.
  void fillQueueOfMute() {
    unsigned long long lost = 0;
    for (int i = 0; i < 1000 && lost < 10; ++i) {
      const unsigned long long before = row(502, kl::SVC_DROPS);
      for (int k = 0; k < 10; ++k) ASSERT_TRUE(a_.send(large(notification({502}))));
      lost = row(502, kl::SVC_DROPS) - before;
    }
    ASSERT_EQ(lost, 10u);
  }

  RawPeer a_;
  RawPeer b_;
  RawPeer mute_;
};

TEST_F(Peers, APeerThatNeverReadsSlowsNobodyAndItsLossesAreCounted) {
  const LoaderProcess loader(kSmallQueues);
  connectAll();
  fillQueueOfMute();
  EXPECT_LT(row(502, kl::SVC_QUEUE), 65536u + 21000);
  ASSERT_TRUE(a_.send(request({502, 3}, kl::CMD_GET, 5, {7})));
  const auto answer = a_.receiveReply(5);
  ASSERT_TRUE(answer);
  unsigned int code = 0;
  EXPECT_TRUE(kl::isError(*answer, &code));
  EXPECT_EQ(code, kl::ERROR_BUSY);
  for (unsigned int i = 0; i < 100; ++i) roundTrip(1000 + i);  // each fails after seconds without its reply
  EXPECT_TRUE(mute_.receiveCommand(kl::CMD_NOTIFY));           // it is still connected and may catch up
}

// The loader stands still, so that everything is there in its first pass.
TEST_F(Peers, WhoAsksOnceIsAnsweredBeforeTheThousandRequestsOfAnother) {
  const LoaderProcess loader;
  connectAll();
  loader.signal(SIGSTOP);
  std::vector<unsigned char> pipelined;
  for (unsigned int i = 0; i < 1000; ++i) {
    const std::vector<unsigned char> frame = frameOf(request({1}, kl::CMD_GETALL, i, {7}));
    pipelined.insert(pipelined.end(), frame.begin(), frame.end());
  }
  ASSERT_TRUE(b_.sendBytes(pipelined));
  ASSERT_TRUE(askForRow(501));
  loader.signal(SIGCONT);
  const auto answer = a_.receiveReply(99);
  ASSERT_TRUE(answer);
  EXPECT_LT(answer->get(kl::SVC_MESSAGES_IN, 0ULL), 200u);  // the replies to b_ so far
  for (unsigned int i = 0; i < 1000; ++i) {
    const auto reply = b_.receive();
    ASSERT_TRUE(reply) << i;
    EXPECT_EQ(reply->get(kl::SYS_REQID, 5000), i);
  }
}

TEST_F(Peers, WhoAsksOnceIsAnsweredBeforeTheThousandsOfPathsInAFrame) {
  const LoaderProcess loader;
  connectAll();
  loader.signal(SIGSTOP);
  std::vector<unsigned int> path{kl::PATH_MULTI};
  for (unsigned int i = 0; i < 5000; ++i) path.insert(path.end(), {2, 502, i});
  ASSERT_TRUE(b_.send(notification(path)));
  ASSERT_TRUE(b_.send(notification({502, 5000})));
  ASSERT_TRUE(askForRow(502));
  loader.signal(SIGCONT);
  const auto answer = a_.receiveReply(99);
  ASSERT_TRUE(answer);
  EXPECT_LT(answer->get(kl::SVC_MESSAGES_IN, 0ULL), 4500u);
  for (unsigned int i = 0; i <= 5000; ++i) {
    const auto copy = mute_.receiveCommand(kl::CMD_NOTIFY);
    ASSERT_TRUE(copy) << i;
    EXPECT_EQ(copy->get(kl::SYS_TO, {}), std::vector<unsigned int>{i});
  }
}

TEST_F(Peers, AQueueThatOnePeerHasFilledTakesTheRequestOfAnother) {
  const LoaderProcess loader(kSmallQueues);
  connectAll();
  fillQueueOfMute();
  ASSERT_TRUE(a_.send(request({502, 3}, kl::CMD_GET, 5, {7})));
  const auto busy = a_.receiveReply(5);
  ASSERT_TRUE(busy);
  unsigned int code = 0;
  EXPECT_TRUE(kl::isError(*busy, &code));
  EXPECT_EQ(code, kl::ERROR_BUSY);
  ASSERT_TRUE(b_.send(request({502, 3}, kl::CMD_GET, 6, {7})));
  const auto asked = mute_.receiveCommand(kl::CMD_GET);
  ASSERT_TRUE(asked);
  EXPECT_EQ(asked->get(kl::SYS_REQID, 0), 6u);
}

TEST_F(Peers, APeerThatCatchesUpGetsWhatWaited) {
  const LoaderProcess loader(kSmallQueues);
  connectAll();
  fillQueueOfMute();
  const unsigned long long delivered = row(502, kl::SVC_MESSAGES_IN) - 1;  // the first was its confirmation
  for (unsigned long long i = 0; i < delivered; ++i) ASSERT_TRUE(mute_.receiveCommand(kl::CMD_NOTIFY)) << i;
  EXPECT_TRUE(mute_.isQuiet(20));
  EXPECT_EQ(row(502, kl::SVC_QUEUE), 0u);
  ASSERT_TRUE(a_.send(request({502, 3}, kl::CMD_GET, 5, {7})));
  EXPECT_TRUE(mute_.receiveCommand(kl::CMD_GET));
}

TEST_F(Peers, APeerThatDoesNotReadForTooLongIsDisconnected) {
  const LoaderProcess loader(kImpatient);
  connectAll();
  fillQueueOfMute();
  const auto told = b_.receiveCommand(kl::CMD_DISCONNECTED);
  ASSERT_TRUE(told);
  EXPECT_EQ(told->get(kl::SYS_FROM, {}), std::vector<unsigned int>{502});
  EXPECT_TRUE(loader.logs("reads nothing while its queue is full; disconnected"));
  EXPECT_TRUE(mute_.isDisconnected());
}

TEST_F(Peers, APeerThatHasClosedItsReadingEndIsDisconnected) {
  const LoaderProcess loader(kSmallQueues);
  connectAll();
  ASSERT_EQ(::shutdown(mute_.fd(), SHUT_RD), 0);
  ASSERT_TRUE(a_.send(request({502, 3}, kl::CMD_GET, 5, {7})));
  const auto answer = a_.receiveReply(5);
  ASSERT_TRUE(answer);
  unsigned int code = kl::ERROR_OK;
  EXPECT_TRUE(kl::isError(*answer, &code));
  EXPECT_EQ(code, kl::ERROR_BRKPATH);
}

// Thousands of questions of those who have ended must not cost the others more than to pass them over.
TEST_F(Peers, WhatAPeerThatHasEndedAskedIsNotWorkedOut) {
  constexpr unsigned int kQuestions = 3000;
  const LoaderProcess loader;
  connectAll();
  const std::vector<unsigned char> one = frameOf(request({1}, kl::CMD_GETALL, 1, {7}));
  std::vector<unsigned char> all;
  for (unsigned int i = 0; i < kQuestions; ++i) all.insert(all.end(), one.begin(), one.end());
  const unsigned long long before = row(1, kl::SVC_MESSAGES_OUT);
  loader.signal(SIGSTOP);
  ASSERT_TRUE(mute_.sendBytes(all));
  mute_.close();
  loader.signal(SIGCONT);
  ASSERT_TRUE(b_.receiveCommand(kl::CMD_DISCONNECTED)) << "everything of it has been handled";
  EXPECT_GE(row(1, kl::SVC_MESSAGES_IN), kQuestions);
  EXPECT_LT(row(1, kl::SVC_MESSAGES_OUT) - before, kQuestions / 4) << "what its first turn takes";
}

TEST_F(Peers, APeerThatNeverRegistersIsDisconnected) {
  const LoaderProcess loader(kImpatient);
  connectAll();
  RawPeer silent;
  ASSERT_TRUE(silent.connect());
  EXPECT_TRUE(silent.isDisconnected());
  EXPECT_TRUE(loader.logs("does not register; disconnected"));
  roundTrip(1);  // who has registered may be silent
}

TEST_F(Peers, APeerThatHasNotRegisteredMayNotMakeTheLoaderKeepMuch) {
  const LoaderProcess loader;
  connectAll();
  RawPeer large;
  ASSERT_TRUE(large.connect());
  ASSERT_TRUE(large.sendBytes(std::vector<unsigned char>{0, 0, 1, 0}));  // 65536
  EXPECT_TRUE(large.isDisconnected());
  EXPECT_TRUE(loader.logs("announced a registration of more than 65535 bytes; disconnected"));
  RawPeer whole;
  ASSERT_TRUE(whole.connect());
  kl::message hello = kl::test::hello(600);
  hello.insert_raw(0x30000002, std::vector<unsigned char>(65000));
  ASSERT_TRUE(whole.send(hello));
  EXPECT_TRUE(whole.receive());
  roundTrip(1);
}

TEST_F(Peers, APeerThatLeavesAFrameUnfinishedIsDisconnected) {
  const LoaderProcess loader(kImpatient);
  connectAll();
  ASSERT_TRUE(mute_.sendBytes(kl::test::bytes("00f00000 4d32 0100ff88")));
  const auto told = b_.receiveCommand(kl::CMD_DISCONNECTED);
  ASSERT_TRUE(told);
  EXPECT_EQ(told->get(kl::SYS_FROM, {}), std::vector<unsigned int>{502});
  EXPECT_TRUE(loader.logs("left a frame unfinished; disconnected"));
  roundTrip(1);
}

TEST_F(Peers, APeerThatSendsAFrameByteByByteIsDisconnectedAllTheSame) {
  const LoaderProcess loader(kImpatient);
  connectAll();
  const std::vector<unsigned char> frame = frameOf(large(notification({500})));
  std::size_t sent = 0;
  while (sent < frame.size() && mute_.sendBytes({&frame[sent], 1}) && !mute_.isDisconnected(20)) ++sent;
  EXPECT_LT(sent, frame.size());
  EXPECT_TRUE(loader.logs("left a frame unfinished; disconnected"));
}

TEST_F(Peers, FramesThatFollowEachOtherInPiecesAreFinishedFrames) {
  const LoaderProcess loader(kImpatient);
  connectAll();
  const std::vector<unsigned char> frame = frameOf(notification({500}));
  std::vector<unsigned char> stream(frame.begin(), frame.begin() + 5);
  const auto end = Clock::now() + std::chrono::milliseconds(2500);
  while (Clock::now() < end) {  // there is always one that is not whole yet
    ASSERT_TRUE(mute_.sendBytes(stream));
    stream.assign(frame.begin() + 5, frame.end());
    stream.insert(stream.end(), frame.begin(), frame.begin() + 5);
    (void)b_.isQuiet(50);
  }
  EXPECT_EQ(loader.log().find("disconnected"), std::string::npos) << loader.log();
}

// Bytes that are sent while the loader stands still count as sent in time.
TEST_F(Peers, APeerThatEndedItsFrameWhileTheLoaderStoodStillIsHeard) {
  const LoaderProcess loader(kImpatient);
  connectAll();
  const std::vector<unsigned char> frame = frameOf(notification({500}));
  ASSERT_TRUE(mute_.sendBytes({frame.data(), 5}));
  (void)b_.isQuiet(100);  // it has been read
  loader.signal(SIGSTOP);
  ASSERT_TRUE(mute_.sendBytes({frame.data() + 5, frame.size() - 5}));
  (void)b_.isQuiet(1500);
  loader.signal(SIGCONT);
  EXPECT_TRUE(a_.receiveCommand(kl::CMD_NOTIFY));
  EXPECT_EQ(loader.log().find("disconnected"), std::string::npos) << loader.log();
}

TEST_F(Peers, OfManyThatDoNotRegisterTheOldestMakeRoom) {
  const LoaderProcess loader;
  connectAll();
  std::vector<RawPeer> silent(256);
  for (RawPeer& peer : silent) ASSERT_TRUE(peer.connect());
  RawPeer late;
  ASSERT_TRUE(late.connect());
  EXPECT_EQ(late.registerAs(600), 600u);
  EXPECT_TRUE(silent[0].isDisconnected());
  EXPECT_TRUE(loader.logs("has not registered, as too many others of its user; disconnected"));
  EXPECT_EQ(silent[1].registerAs(601), 601u);
  roundTrip(1);
}

TEST_F(Peers, APeerThatReadsALittleIsNotDisconnected) {
  const LoaderProcess loader(kImpatient);
  connectAll();
  fillQueueOfMute();
  const auto end = Clock::now() + std::chrono::milliseconds(2500);
  while (Clock::now() < end) {
    ASSERT_TRUE(mute_.receive());
    for (int i = 0; i < 3; ++i) ASSERT_TRUE(a_.send(large(notification({502}))));
    (void)b_.isQuiet(50);
  }
  EXPECT_EQ(loader.log().find("disconnected"), std::string::npos) << loader.log();
}

TEST_F(Peers, APeerThatSendsHalfAFrameHoldsNobodyUp) {
  const LoaderProcess loader;
  connectAll();
  ASSERT_TRUE(mute_.sendBytes(kl::test::bytes("00f00000 4d32 0100ff88")));
  for (unsigned int i = 0; i < 50; ++i) roundTrip(i);
}

TEST_F(Peers, AFloodReachesItsBoundAndNotTheOthers) {
  const LoaderProcess loader(kSmallQueues);
  connectAll();
  const kl::test::ChildProcess flooder([] {
    RawPeer peer;
    if (!peer.connect() || peer.registerAs(600) != 600) ::_exit(1);
    const std::vector<unsigned char> frame = frameOf(large(notification({502})));
    while (peer.sendBytes(frame)) {
    }
  });
  while (row(502, kl::SVC_DROPS) < 1000) ASSERT_FALSE(HasFatalFailure());
  for (unsigned int i = 0; i < 50; ++i) roundTrip(i);  // each fails after seconds without its reply
  EXPECT_LT(loader.memory(), 64u << 20);
}

TEST_F(Peers, AFloodOfRequestsIsAnsweredBusyUpToABound) {
  const LoaderProcess loader(kSmallQueues);
  connectAll();
  const std::vector<unsigned char> frame = frameOf(request({502}, kl::CMD_GET, 1, {7}));
  for (int i = 0; i < 5000; ++i) ASSERT_TRUE(b_.sendBytes(frame));
  roundTrip(2);  // b_'s answers to its flood come first and are passed over by now
  EXPECT_LE(row(502, kl::SVC_REQUESTS), 4096u);
}

TEST_F(Peers, APeerThatDiesWithAFullQueueLeavesNothingBehind) {
  const LoaderProcess loader(kSmallQueues);
  connectAll();
  fillQueueOfMute();
  const std::size_t before = loader.descriptors();
  mute_.close();
  ASSERT_TRUE(b_.receiveCommand(kl::CMD_DISCONNECTED));
  EXPECT_EQ(loader.descriptors(), before - 1);
  ASSERT_TRUE(a_.send(request({502}, kl::CMD_GET, 5, {7})));
  const auto answer = a_.receiveReply(5);
  ASSERT_TRUE(answer);
  unsigned int code = 0;
  EXPECT_TRUE(kl::isError(*answer, &code));
  EXPECT_EQ(code, kl::ERROR_BRKPATH);
}

}  // namespace

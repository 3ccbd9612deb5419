// The message loop of a process: registration, the ways out and in, the queue, the end.

#include <gtest/gtest.h>
#include <unistd.h>

#include <csignal>
#include <cstring>
#include <functional>
#include <future>
#include <memory>
#include <string>
#include <vector>

#include "kl/backtrace.h"
#include "kl/looper.h"
#include "kl/utilities.h"
#include "tests/lib/looper/fixture.h"
#include "tests/support/calls/scripted_calls.h"
#include "tests/support/hex.h"
#include "tests/support/journal.h"
#include "tests/support/process/child.h"

namespace kl {
namespace {

using test::Connected;
using test::ConnectedAs;
using test::ctrl;
using test::errorOf;
using test::Ids;
using test::Recorder;
using test::replyTo;
using test::requestTo;
using test::to;

// Keeps what it handles itself, and drops what carries the field kDrop.
constexpr field<bool> kDrop{0x00000005};

class RecordingLooper : public Looper {
 public:
  using Looper::Looper;
  void handle(const message& m) override { seen.push_back(m); }
  bool filterMessage(const message& m) override { return m.has(kDrop); }
  std::vector<message> seen;
};

using Recording = ConnectedAs<RecordingLooper>;

message numbered(message m, unsigned int n) {
  m.insert(STD_ID, n);
  return m;
}

// --- Beginning --------------------------------------------------------------------------------------

TEST(LooperStart, RegistersWithItsTwelveValues) {
  test::LoaderDouble loader;
  loader.sendReady();
  const Looper looper(Looper::kInherited, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 0x01020304);
  // 71 bytes: SYS_CTRL 5; the values in field 1; SYS_TO [1]
  EXPECT_EQ(test::hex(loader.receiveFrame()),
            test::hex(test::bytes("47000000 4d32 0d00ff0905 01000088 0c00 01000000 02000000 03000000 04000000"
                                  "05000000 06000000 07000000 08000000 09000000 0a000000 0b000000 04030201"
                                  "0100ff88 0100 01000000")));
  EXPECT_TRUE(loader.isSilent());
}

TEST(LooperStart, ConnectsToTheLoadersSocket) {
  test::ListeningLoader listener;
  std::future<int> accepted = std::async(std::launch::async, [&] {
    const int fd = listener.accept();
    const message ready = ctrl(8);
    const std::vector<unsigned char> frame = test::frameOf(ready);
    EXPECT_EQ(::write(fd, frame.data(), frame.size()), static_cast<ssize_t>(frame.size()));
    return fd;
  });
  const Looper looper(Looper::kConnect, 34);
  test::LoaderDouble loader(accepted.get());
  const message hello = loader.receive();
  EXPECT_EQ(hello.get(SYS_CTRL, 0), 5u);
  EXPECT_EQ(hello.get_u32_array(0x88000001), (Ids{34, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}));
}

TEST(LooperStart, KeepsWhatTheLoaderSays) {
  message note;
  note.insert_string(0x20000009, "from the configuration");
  message ready;
  ready.insert_u32(0x08000001, 34);
  ready.insert_u32(0x08000002, 7);
  ready.insert_u32(0x08000003, 2);
  ready.insert_message(0x28000005, note);
  const Connected net(ready);
  EXPECT_EQ(net.looper->getLoaderValue(1), 34u);
  EXPECT_EQ(net.looper->getLoaderValue(2), 7u);
  EXPECT_EQ(net.looper->getLoaderValue(3), 2u);
  EXPECT_EQ(net.looper->getLoaderValue(4), 0u);
  EXPECT_EQ(net.looper->getLoaderData(), note);
  EXPECT_FALSE(net.looper->isLeaving());
}

TEST(LooperStart, WhatTheLoaderDoesNotSayIsZero) {
  const Connected net;
  for (const unsigned int n : {0u, 1u, 2u, 3u}) EXPECT_EQ(net.looper->getLoaderValue(n), 0u);
  EXPECT_EQ(net.looper->getLoaderData(), message());
}

TEST(LooperStart, IsTheProcesssLooperAndRunner) {
  EXPECT_EQ(getLooper(), nullptr);
  {
    const Connected net;
    EXPECT_EQ(getLooper(), &*net.looper);
    EXPECT_EQ(getRunner(), &*net.looper);
    EXPECT_EQ(net.looper->getHandlerID(), BADID);
  }
  EXPECT_EQ(getLooper(), nullptr);
}

void expectUnconfirmed(const test::ChildResult& result) {
  EXPECT_EQ(result.err, "could not receive confirmation to CTRL_READY from loader\n");
  EXPECT_NE(result.exitStatus, 0);
}

TEST(LooperStart, AbortsWithoutAConfirmationWithin1000Ticks) {
  expectUnconfirmed(test::runInChild([] {
    const test::LoaderDouble loader;
    const test::ScriptedClock clock(0);
    const test::ScriptedPoll poll([](const auto&) { return 0; });
    const Looper looper(Looper::kInherited);
  }));
}

TEST(LooperStart, WaitsTenSecondsForTheConfirmation) {
  test::LoaderDouble loader;
  const test::ScriptedClock clock(0);
  const test::ScriptedPoll poll([&](const auto&) {
    loader.sendReady();
    return 1;
  });
  const Looper looper(Looper::kInherited);
  EXPECT_EQ(poll.timeouts(), std::vector<int>{10000});
}

TEST(LooperStart, AbortsWhenTheFirstMessageIsNoConfirmation) {
  for (const message& wrong : {ctrl(7), to({7}), requestTo({1}, CMD_GET)})
    expectUnconfirmed(test::runInChild([&] {
      test::LoaderDouble loader;
      loader.send(wrong);
      loader.sendReady();
      const Looper looper(Looper::kInherited);
    }));
}

// --- The table of handlers ---------------------------------------------------------------------------

TEST(LooperHandlers, ATakenNumberIsRefusedAndNothingChanges) {
  Connected net;
  Recorder first;
  Recorder second;
  EXPECT_TRUE(net.looper->addHandler(7, &first));
  EXPECT_FALSE(net.looper->addHandler(7, &second));
  EXPECT_EQ(first.getHandlerID(), 7u);
  EXPECT_EQ(second.getHandlerID(), BADID);
  message m = to({7});
  net.looper->dispatchMessage(m);
  EXPECT_EQ(first.seen.size(), 1u);
  EXPECT_EQ(second.seen.size(), 0u);
}

TEST(LooperHandlers, ARemovedHandlerIsGone) {
  Connected net;
  Recorder handler;
  EXPECT_FALSE(net.looper->removeHandler(7));
  net.looper->addHandler(7, &handler);
  EXPECT_TRUE(net.looper->hasHandler(7));
  EXPECT_TRUE(net.looper->removeHandler(7));
  EXPECT_FALSE(net.looper->hasHandler(7));
  EXPECT_FALSE(net.looper->removeHandler(7));
}

// Removes others when it hears of a disconnection.
class Remover : public Handler {
 public:
  Remover(test::Journal& journal, Ids victims) : journal_(journal), victims_(std::move(victims)) {}
  void cmdDisconnected(const message&) override {
    journal_.note(std::to_string(getHandlerID()));
    for (const unsigned int id : victims_) getLooper()->removeHandler(id);
  }

 private:
  test::Journal& journal_;
  Ids victims_;
};

TEST(LooperHandlers, ADisconnectionReachesThemInAscendingOrderWhileTheyComeAndGo) {
  Connected net;
  test::Journal journal;
  Remover a(journal, {});
  Remover b(journal, {2, 3});  // itself and the next one
  Remover c(journal, {});
  Remover d(journal, {});
  net.looper->addHandler(4, &d);
  net.looper->addHandler(3, &c);
  net.looper->addHandler(2, &b);
  net.looper->addHandler(1, &a);
  net.looper->handleCmd(requestTo({}, CMD_DISCONNECTED), CMD_DISCONNECTED);
  EXPECT_EQ(journal.text(), "1 2 4");
  net.looper->removeHandler(1);
  net.looper->removeHandler(4);
}

// --- The way out -------------------------------------------------------------------------------------

TEST(LooperOut, AMessageWithoutPathIsQueuedAsItIs) {
  Recording net;
  message m = numbered(message(), 3);
  net.looper->sendMessage(m);
  EXPECT_TRUE(net.looper->seen.empty());
  net.looper->dispatchQueue();
  ASSERT_EQ(net.looper->seen.size(), 1u);
  EXPECT_EQ(net.looper->seen[0], numbered(message(), 3));
  EXPECT_TRUE(net.loader.isSilent());
}

TEST(LooperOut, AnEmptyPathIsNoPath) {
  Recording net;
  message m = to({});
  net.looper->sendMessage(m);
  net.looper->dispatchQueue();
  EXPECT_EQ(net.looper->seen.size(), 1u);
}

TEST(LooperOut, AnyOtherPathLeavesForTheLoader) {
  Connected net;
  Recorder handler;
  net.looper->addHandler(7, &handler);
  message m = numbered(to({7, 1}), 3);  // paths out of the process do not know its handlers
  net.looper->sendMessage(m);
  net.looper->dispatchQueue();
  EXPECT_EQ(net.loader.receive(), numbered(to({7, 1}), 3));
  EXPECT_TRUE(handler.seen.empty());
}

TEST(LooperOut, PathSelfReachesAHandlerOfThisProcess) {
  Connected net;
  Recorder handler;
  net.looper->addHandler(7, &handler);
  message m = to({PATH_SELF, 7});
  m.insert(SYS_FROM, {8});
  net.looper->sendMessage(m);
  net.looper->dispatchQueue();
  ASSERT_EQ(handler.seen.size(), 1u);
  EXPECT_EQ(handler.seen[0].get(SYS_TO, {1}), Ids{});
  EXPECT_EQ(handler.seen[0].get(SYS_FROM, {}), (Ids{PATH_SELF, 8}));
  EXPECT_TRUE(net.loader.isSilent());
}

TEST(LooperOut, AReplyFindsItsWayBackInsideTheProcess) {
  Connected net;
  Handler answering;
  Recorder asking;
  net.looper->addHandler(7, &answering);
  net.looper->addHandler(8, &asking);
  message m = to({PATH_SELF, 7});
  asking.requestMessage(m);
  net.looper->dispatchQueue();
  ASSERT_EQ(asking.seen.size(), 1u);
  EXPECT_TRUE(isReply(asking.seen[0]));
  EXPECT_TRUE(net.loader.isSilent());
}

TEST(LooperOut, PathAllIsWrittenUnchangedAndDeliveredHere) {
  Connected net;
  Recorder handler;
  net.looper->addHandler(7, &handler);
  message m = to({PATH_ALL, 7});
  m.insert(SYS_FROM, {8});
  message unchanged = m;
  net.looper->sendMessage(m);
  net.looper->dispatchQueue();
  EXPECT_EQ(net.loader.receive(), unchanged);
  ASSERT_EQ(handler.seen.size(), 1u);
  EXPECT_EQ(handler.seen[0].get(SYS_FROM, {}), (Ids{PATH_SELF, 8}));
}

struct MultiTest : ::testing::Test {
  MultiTest() {
    net.looper->addHandler(5, &five);
    net.looper->addHandler(6, &six);
  }
  void send(const Ids& path) {
    message m = to(path);
    m.insert(SYS_FROM, {8});
    net.looper->sendMessage(m);
    net.looper->dispatchQueue();
  }
  Connected net;
  Recorder five;
  Recorder six;
};

TEST_F(MultiTest, ASubPathToThisProcessIsDeliveredAndNothingWritten) {
  send({PATH_MULTI, 2, PATH_SELF, 5});
  ASSERT_EQ(five.seen.size(), 1u);
  EXPECT_EQ(five.seen[0].get(SYS_TO, {1}), Ids{});
  EXPECT_EQ(five.seen[0].get(SYS_FROM, {}), (Ids{PATH_SELF, 8}));
  EXPECT_TRUE(net.loader.isSilent());
}

TEST_F(MultiTest, TheOtherSubPathsAreWrittenTogether) {
  send({PATH_MULTI, 1, 24, 2, PATH_SELF, 5, 3, 33, 1, 2, 2, PATH_SELF, 6});
  EXPECT_EQ(five.seen.size(), 1u);
  EXPECT_EQ(six.seen.size(), 1u);
  EXPECT_EQ(net.loader.receive().get(SYS_TO, {}), (Ids{PATH_MULTI, 1, 24, 3, 33, 1, 2}));
  EXPECT_TRUE(net.loader.isSilent());
}

TEST_F(MultiTest, WithoutSubPathForThisProcessThePathIsWrittenUnchanged) {
  send({PATH_MULTI, 1, 24, 2, 33, 1});
  EXPECT_EQ(net.loader.receive().get(SYS_TO, {}), (Ids{PATH_MULTI, 1, 24, 2, 33, 1}));
}

TEST_F(MultiTest, AMalformedListLosesTheMessage) {
  for (const Ids& path :
       {Ids{PATH_MULTI, 0}, Ids{PATH_MULTI, 1}, Ids{PATH_MULTI, 3, 1, 2}, Ids{PATH_MULTI, 1, 24, 0, 1},
        Ids{PATH_MULTI, 0xffffffff, 1, 2}, Ids{PATH_MULTI, 1, 24, 7}})
    send(path);
  EXPECT_TRUE(net.loader.isSilent());
  EXPECT_TRUE(five.seen.empty());
}

TEST_F(MultiTest, WhatStandsBeforeTheFaultWasDelivered) {
  send({PATH_MULTI, 2, PATH_SELF, 5, 1, 24, 0});
  EXPECT_EQ(five.seen.size(), 1u);
  EXPECT_TRUE(net.loader.isSilent());
}

TEST_F(MultiTest, WithoutSubPathsThereIsNothingToDo) {
  send({PATH_MULTI});
  EXPECT_TRUE(net.loader.isSilent());
}

TEST(LooperOut, ControlMessagesGoToTheLoader) {
  Connected net;
  net.looper->sendCtrl(4);
  EXPECT_EQ(test::hex(net.loader.receiveFrame()),
            test::hex(test::bytes("11000000 4d32 0d00ff0904 0100ff88 0100 01000000")));
  net.looper->sendCtrl(7, 5);
  message expected = ctrl(7);
  expected.insert(SYS_CTRL_ARG, 5);
  EXPECT_EQ(net.loader.receive(), expected);
}

TEST(LooperOut, RawBytesAreWrittenAsTheyAre) {
  Connected net;
  const std::vector<unsigned char> bytes = test::frameOf(ctrl(99));
  net.looper->writeRaw(bytes.data(), static_cast<unsigned int>(bytes.size()));
  EXPECT_EQ(net.loader.receiveFrame(), bytes);
}

// --- The queue -----------------------------------------------------------------------------------------

// --- What is too large for a frame -------------------------------------------------------------------------------

// Answers CMD_GET with a text of so many bytes.
class Wordy : public Handler {
 public:
  message cmdGet(const message&) override {
    message reply;
    reply.insert(STD_DESCR, std::string(bytes, 'x'));
    return reply;
  }
  std::size_t bytes = 65536;
};

struct TooBig : ::testing::Test {
  TooBig() { net.looper->addHandler(7, &handler); }
  ~TooBig() override { net.looper->removeHandler(7); }

  // The text that the process writes to the standard error stream while it does that.
  static std::string errorsOf(const std::function<void()>& body) {
    ::testing::internal::CaptureStderr();
    body();
    return ::testing::internal::GetCapturedStderr();
  }
  static message ofText(std::size_t bytes, const Ids& path) {
    message m = test::to(path);
    m.insert(STD_DESCR, std::string(bytes, 'x'));
    return m;
  }

  Connected net;
  Wordy handler;
};

TEST_F(TooBig, ItIsLostWithoutAWordByDefault) {
  EXPECT_EQ(errorsOf([&] {
              handler.handle(requestTo({}, CMD_GET));
              message m = ofText(65535, {24});
              handler.sendMessage(m);
            }),
            "");
  EXPECT_TRUE(net.loader.isSilent());
}

TEST_F(TooBig, AReplyIsReportedAndItsAskerIsToldOnRequest) {
  net.looper->reportTooBig(true);
  EXPECT_EQ(errorsOf([&] { handler.handle(requestTo({}, CMD_GET)); }),
            "LOOPER: too big for a frame, not sent: reply of handler 7, command 0xfe000d, 65574 bytes\n");
  message expected = errorMsg(ERROR_TOOBIG, "");
  setType(expected, TYPE_REPLY);
  setRequestID(expected, 5);
  expected.insert(SYS_TO, {9});
  expected.insert(SYS_FROM, {7});
  EXPECT_EQ(net.loader.receive(), expected);
  EXPECT_TRUE(net.loader.isSilent());
  net.looper->reportTooBig(false);
  EXPECT_EQ(errorsOf([&] { handler.handle(requestTo({}, CMD_GET)); }), "");
  EXPECT_TRUE(net.loader.isSilent());
}

TEST_F(TooBig, EveryOtherMessageIsReported) {
  net.looper->reportTooBig(true);
  EXPECT_EQ(
      errorsOf([&] {
        message m = ofText(65535, {24});
        handler.sendCmd(m, 0x60001);
        m = ofText(65535, {24});
        net.looper->sendMessage(m);
        m = ofText(65535, {24});
        setType(m, TYPE_REPLY);
        handler.sendMessage(m);
      }),
      "LOOPER: too big for a frame, not sent: message of handler 7, command 0x60001, 65571 bytes\n"
      "LOOPER: too big for a frame, not sent: message of the loop itself, command 0xfe0000, 65553 bytes\n"
      "LOOPER: too big for a frame, not sent: reply of handler 7, 65568 bytes\n");
  EXPECT_EQ(errorOf(net.loader.receive()), ERROR_TOOBIG);
  EXPECT_TRUE(net.loader.isSilent());
}

TEST_F(TooBig, WhatStaysInTheProcessHasNoLimit) {
  net.looper->reportTooBig(true);
  Recorder other;
  net.looper->addHandler(8, &other);
  EXPECT_EQ(errorsOf([&] {
              message m = ofText(65535, {PATH_SELF, 8});
              handler.sendMessage(m);
              net.looper->dispatchQueue();
            }),
            "");
  EXPECT_EQ(other.seen.size(), 1u);
  net.looper->removeHandler(8);
}

TEST_F(TooBig, WhatFitsIsSentAndWhatDoesNotIsNot) {
  for (std::size_t bytes = 65490; bytes < 65540; ++bytes) {
    SCOPED_TRACE(bytes);
    message m = ofText(bytes, {24});
    const bool fits = handler.fits(m);
    handler.sendMessage(m);
    EXPECT_EQ(fits, !net.loader.isSilent());
    if (fits) (void)net.loader.receive();

    m = ofText(bytes, {24});
    const bool fitsLooper = net.looper->fits(m);
    net.looper->sendMessage(m);
    EXPECT_EQ(fitsLooper, !net.loader.isSilent());
    if (fitsLooper) (void)net.loader.receive();

    handler.bytes = bytes;
    const message request = requestTo({}, CMD_GET);
    const bool replyFits = handler.fits(request, handler.cmdGet(request));
    handler.handle(request);
    EXPECT_EQ(replyFits, !net.loader.isSilent());
    if (replyFits) (void)net.loader.receive();
  }
  EXPECT_TRUE(handler.fits(message()));
  message small;  // whose length is near the limit only as long as nobody looks closely
  for (unsigned int i = 0; i < 9000; ++i) small.insert_u32(0x08000000 + i, 1);
  EXPECT_GT(small.max_length(), 65536u);
  EXPECT_TRUE(handler.fits(small));
}

TEST(LooperQueue, WhatIsQueuedWhileItIsEmptiedGoesOutInTheSameCall) {
  class Relay : public Handler {
   public:
    void handle(const message& m) override {
      journal.note(std::to_string(m.get(STD_ID, 0)));
      if (m.get(STD_ID, 0) < 4) getLooper()->queueMessage(numbered(to({7}), m.get(STD_ID, 0) + 2));
    }
    test::Journal journal;
  };
  Connected net;
  Relay relay;
  net.looper->addHandler(7, &relay);
  net.looper->queueMessage(numbered(to({7}), 1));
  net.looper->queueMessage(numbered(to({7}), 2));
  net.looper->dispatchQueue();
  EXPECT_EQ(relay.journal.text(), "1 2 3 4 5");
}

TEST(LooperQueue, TheHundredthMessageIsKeptAndTheNextIsLostWithAReport) {
  const test::ChildResult result = test::runInChild([] {
    Recording net;
    for (unsigned int n = 0; n < 103; ++n) net.looper->queueMessage(numbered(message(), n));
    net.looper->dispatchQueue();
    std::string kept;
    for (const message& m : net.looper->seen) kept += std::to_string(m.get(STD_ID, 999)) + " ";
    if (net.looper->seen.size() != 100 || !kept.ends_with("98 99 ")) std::abort();
  });
  EXPECT_EQ(result.exitStatus, 0);
  const std::string report = "full queue:\n####################################################\n";
  EXPECT_EQ(result.err, report + report + report);
}

TEST(LooperQueue, TheReportShowsWhatIsQueued) {
  const test::ChildResult result = test::runInChild([] {
    Recording net;
    for (unsigned int n = 0; n < 101; ++n) net.looper->queueMessage(numbered(message(), n));
  });
  message dumped;
  std::ostringstream expected;
  for (unsigned int n = 0; n < 100; ++n) numbered(message(), n).dump2(expected, "", 0);
  EXPECT_EQ(result.out, expected.str());
}

TEST(LooperQueue, AFilteredMessageIsNotQueued) {
  Recording net;
  message m;
  m.insert(kDrop, true);
  net.looper->queueMessage(m);
  net.looper->dispatchQueue();
  EXPECT_TRUE(net.looper->seen.empty());
}

TEST(LooperQueue, IsEmptiedBeforeTheLoopSleeps) {
  class Ending : public Handler {
   public:
    void handle(const message&) override { getLooper()->shutdown(); }
  };
  Connected net;
  Ending ending;
  net.looper->addHandler(7, &ending);
  net.looper->queueMessage(to({7}));
  net.looper->run();  // would not return otherwise
}

// --- The way in ------------------------------------------------------------------------------------------

TEST(LooperIn, AMessageWithoutPathIsTheLoopersOwn) {
  Recording net;
  message m = numbered(message(), 3);
  net.looper->dispatchMessage(m);
  ASSERT_EQ(net.looper->seen.size(), 1u);
}

TEST(LooperIn, TheFirstHopSelectsTheHandlerAndIsRemoved) {
  Connected net;
  Recorder handler;
  net.looper->addHandler(7, &handler);
  message m = requestTo({7}, CMD_GET);
  net.looper->dispatchMessage(m);
  ASSERT_EQ(handler.seen.size(), 1u);
  EXPECT_EQ(handler.seen[0].get(SYS_TO, {1}), Ids{});
  EXPECT_EQ(handler.seen[0].get(SYS_CMD, 0), CMD_GET);
}

TEST(LooperIn, APathThatGoesOnBehindATerminalHandlerIsBroken) {
  Connected net;
  Recorder handler;
  net.looper->addHandler(7, &handler);
  message m = requestTo({7, 1}, CMD_GET);
  net.looper->dispatchMessage(m);
  EXPECT_TRUE(handler.seen.empty());
  const message reply = net.loader.receive();
  EXPECT_TRUE(isReply(reply));
  EXPECT_EQ(errorOf(reply), ERROR_BRKPATH);
  EXPECT_FALSE(reply.has(SYS_ERRSTR));
  EXPECT_EQ(reply.get(SYS_FROM, {}), Ids{7});
  EXPECT_EQ(reply.get(SYS_TO, {}), Ids{9});
}

TEST(LooperIn, AHandlerThatIsNotTerminalGetsTheRestOfThePath) {
  Connected net;
  Recorder handler;
  handler.setTerminal(false);
  net.looper->addHandler(7, &handler);
  message m = requestTo({7, 1, 2}, CMD_GET);
  net.looper->dispatchMessage(m);
  ASSERT_EQ(handler.seen.size(), 1u);
  EXPECT_EQ(handler.seen[0].get(SYS_TO, {}), (Ids{1, 2}));
}

TEST(LooperIn, AnUnknownFirstHopIsABrokenPathOfTheLooper) {
  Recording net;
  message m = requestTo({7, 1}, CMD_GET);
  net.looper->dispatchMessage(m);
  EXPECT_TRUE(net.looper->seen.empty());
  const message reply = net.loader.receive();
  EXPECT_EQ(errorOf(reply), ERROR_BRKPATH);
  EXPECT_EQ(reply.get(SYS_REQID, 0), 5u);
  EXPECT_FALSE(reply.has(SYS_FROM));
}

TEST(LooperIn, ALooperThatIsNotTerminalGetsTheWholePath) {
  Recording net;
  net.looper->setTerminal(false);
  message m = requestTo({7, 1}, CMD_GET);
  net.looper->dispatchMessage(m);
  ASSERT_EQ(net.looper->seen.size(), 1u);
  EXPECT_EQ(net.looper->seen[0].get(SYS_TO, {}), (Ids{7, 1}));
}

TEST(LooperIn, AMessageThatExpectsNoReplyGetsANotice) {
  Connected net;
  message m = to({7, 1});
  m.insert(SYS_FROM, {9, 4});
  net.looper->dispatchMessage(m);
  message expected = errorMsg(ERROR_BRKPATH, "");
  expected.insert(SYS_FROM, {7, 1});
  expected.insert(SYS_TO, {9, 4});
  EXPECT_EQ(net.loader.receive(), expected);
}

TEST(LooperIn, ThereIsNoErrorAboutABrokenPathError) {
  Connected net;
  message m = errorMsg(ERROR_BRKPATH, "");
  m.insert(SYS_TO, {7});
  m.insert(SYS_FROM, {9});
  m.insert(SYS_REPLYEXP, true);
  m.insert(SYS_REQID, 5);
  net.looper->dispatchMessage(m);
  EXPECT_TRUE(net.loader.isSilent());
}

TEST(LooperIn, AnErrorOfAnotherKindThatLeadsNowhereGetsANotice) {
  Connected net;
  message m = errorMsg(ERROR_NOTIMP, "");
  m.insert(SYS_TO, {7, 1});
  m.insert(SYS_FROM, {9});
  net.looper->dispatchMessage(m);
  message expected = errorMsg(ERROR_BRKPATH, "");
  expected.insert(SYS_FROM, {7, 1});
  expected.insert(SYS_TO, {9});
  EXPECT_EQ(net.loader.receive(), expected);
}

TEST(LooperIn, AMessageInFlightIsAnnouncedForTheCrashReport) {
  class Looking : public Handler {
   public:
    void handle(const message&) override {
      char text[1600];
      Dumper out(text, sizeof text);
      if (backtraceInfoHead) backtraceInfoHead->dump(out);
      announced.assign(out.data(), out.used());
    }
    std::string announced;
  };
  Connected net;
  Looking looking;
  net.looper->addHandler(7, &looking);
  message m = to({7});
  net.looper->dispatchMessage(m);
  EXPECT_TRUE(looking.announced.starts_with("virtual void kl::Looper::dispatchMessage(kl::message&)\n"))
      << looking.announced;
  EXPECT_EQ(backtraceInfoHead, nullptr);
}

struct WakeTest : ::testing::Test {
  WakeTest() { net.looper->addHandler(7, &handler); }
  ConnectedAs<RecordingLooper> net;
  Recorder handler;
};

TEST_F(WakeTest, AReplyAndThenARequestAreBothDispatched) {
  net.loader.send(replyTo({7}, 1));
  net.loader.send(requestTo({7}, CMD_GET));
  net.wake();
  EXPECT_EQ(handler.seen.size(), 2u);
}

TEST_F(WakeTest, TwoRequestsNeedTwoWakeUps) {
  net.loader.send(requestTo({7}, CMD_GET));
  net.loader.send(requestTo({7}, CMD_SET));
  net.wake();
  EXPECT_EQ(handler.seen.size(), 1u);
  net.wake();
  EXPECT_EQ(handler.seen.size(), 2u);
}

TEST_F(WakeTest, TheLoopDoesNotSleepOnWhatWasReadAhead) {
  for (unsigned int n = 0; n < 3; ++n) net.loader.send(numbered(requestTo({7}, CMD_GET), n));
  net.pass();
  const test::ScriptedPoll poll([](const auto&) { return 0; });  // the socket has nothing more to say
  net.pass();
  net.pass();
  ASSERT_EQ(handler.seen.size(), 3u);
  for (unsigned int n = 0; n < 3; ++n) EXPECT_EQ(handler.seen[n].get(STD_ID, 99), n);
  net.pass();
  EXPECT_EQ(poll.timeouts(), (std::vector<int>{0, 0, -1}));
}

TEST_F(WakeTest, AFilteredMessageIsDroppedAndReadingGoesOn) {
  message filtered = requestTo({7}, CMD_GET);
  filtered.insert(kDrop, true);
  net.loader.send(filtered);
  net.loader.send(filtered);
  net.loader.send(requestTo({7}, CMD_SET));
  net.wake();
  ASSERT_EQ(handler.seen.size(), 1u);
  EXPECT_EQ(handler.seen[0].get(SYS_CMD, 0), CMD_SET);
}

TEST_F(WakeTest, AControlMessageEndsTheReading) {
  net.loader.send(ctrl(99));
  net.loader.send(replyTo({7}, 1));
  net.wake();
  EXPECT_TRUE(handler.seen.empty());
  EXPECT_TRUE(net.loader.isSilent());
  net.wake();
  EXPECT_EQ(handler.seen.size(), 1u);
}

TEST_F(WakeTest, AWakeUpWithNothingToReadDoesNothing) {
  net.wake();
  EXPECT_TRUE(handler.seen.empty());
}

TEST_F(WakeTest, AReplyThatArrivesWhileOneIsDispatchedIsTakenToo) {
  class Chaining : public Handler {
   public:
    explicit Chaining(test::LoaderDouble& loader) : loader_(loader) {}
    void handle(const message&) override {
      if (++count < 3) loader_.send(replyTo({8}, 1));
    }
    unsigned int count = 0;

   private:
    test::LoaderDouble& loader_;
  };
  Chaining chaining(net.loader);
  net.looper->addHandler(8, &chaining);
  net.loader.send(replyTo({8}, 1));
  net.wake();
  EXPECT_EQ(chaining.count, 3u);
}

TEST_F(WakeTest, ALeaveRequestIsRefusedWhileTheProcessCannotLeave) {
  net.loader.send(ctrl(1));
  net.wake();
  EXPECT_EQ(net.loader.receive(), ctrl(3));
  EXPECT_FALSE(net.looper->isLeaving());
}

TEST_F(WakeTest, ReadingWithoutWaitingSaysWhenNothingIsThere) {
  message m;
  EXPECT_FALSE(net.looper->readMessage(m, 0));
  unsigned char byte = 0;
  EXPECT_EQ(net.looper->readRaw(&byte, 1, 0), 0u);
  net.loader.sendBytes({42});
  EXPECT_EQ(net.looper->readRaw(&byte, 1, 0), 1u);
  EXPECT_EQ(byte, 42);
}

TEST(LooperFaults, ALostLoaderEndsTheProcess) {
  const test::ChildResult result = test::runInChild([] {
    Connected net;
    net.loader.close();
    net.looper->run();
  });
  EXPECT_EQ(result.err, "LOOPER: write_raw write failed: -1, errno: 32\n");
  EXPECT_EQ(result.exitStatus, 1);
}

TEST(LooperFaults, ALoaderLostWhileTheLoopWaitsEndsTheProcess) {
  const test::ChildResult result = test::runInChild([] {
    Connected net;
    struct Closer {
      static void close(void* data) {
        auto& loader = *static_cast<test::LoaderDouble*>(data);
        (void)loader.receive();  // what is left unread turns the end of file into an error
        loader.close();
      }
    };
    net.looper->addTimer(&net.loader, Closer::close, 0);
    net.looper->run();
  });
  EXPECT_EQ(result.err, "LOOPER: read_raw read failed: EOF\n");
  EXPECT_EQ(result.exitStatus, 1);
}

// --- run and the end -----------------------------------------------------------------------------------

class StartedLooper : public Looper {
 public:
  using Looper::Looper;
  void onInit() override { journal.note("init"); }
  test::Journal journal;
};

void shutDown(void* looper) { static_cast<Looper*>(looper)->shutdown(); }

TEST(LooperRun, TellsTheLoaderThatItRuns) {
  ConnectedAs<StartedLooper> net;
  net.looper->addTimer(&*net.looper, shutDown, 0);
  net.looper->run();
  EXPECT_EQ(net.loader.receive(), ctrl(6));
  EXPECT_TRUE(net.loader.isSilent());
}

TEST(LooperRun, InitialisesOnlyAtTheFirstStart) {
  ::unlink((runFolderPath() + "/looper_tests").c_str());
  for (const char* expected : {"init", "", ""}) {
    ConnectedAs<StartedLooper> net;
    net.looper->addTimer(&*net.looper, shutDown, 0);
    net.looper->run();
    EXPECT_EQ(net.looper->journal.text(), expected);
  }
}

TEST(LooperEnd, ShutdownThroughTheRunnerIsTheLoopers) {
  Connected net;
  Runner& runner = *net.looper;
  runner.addTimer(&*net.looper, shutDown, 0);
  runner.run();
  EXPECT_EQ(net.loader.receive(), ctrl(6));  // the Looper's run
}

TEST(LooperEnd, WhatIsSentAfterShutdownIsDroppedWithoutALine) {
  const test::ChildResult result = test::runInChild([] {
    Connected net;
    net.looper->shutdown();
    message m = to({24});
    net.looper->sendMessage(m);
    net.looper->sendCtrl(4);
    if (!net.loader.isSilent()) std::abort();
  });
  EXPECT_EQ(result.err, "");
  EXPECT_EQ(result.exitStatus, 0);
}

TEST(LooperEnd, AfterShutdownTheConnectionStaysOpen) {
  Connected net;
  net.looper->shutdown();
  EXPECT_TRUE(net.loader.isSilent());
  net.looper.reset();
  EXPECT_TRUE(net.loader.isSilent());
}

TEST(LooperEnd, TheDestructorClosesTheConnection) {
  Connected net;
  EXPECT_TRUE(net.loader.isSilent());
  net.looper.reset();
  EXPECT_FALSE(net.loader.isSilent());  // end of file
}

TEST(LooperEnd, AShutdownCommandEndsTheProcessAndItsReplyDoesNoHarm) {
  class Ending : public Handler {
   public:
    void cmdShutdown(const message&) override { getLooper()->shutdown(); }
  };
  Connected net;
  Ending ending;
  net.looper->addHandler(7, &ending);
  net.loader.send(requestTo({7}, CMD_SHUTDOWN));
  net.loader.send(requestTo({7}, CMD_GET));
  net.looper->run();
  EXPECT_EQ(net.loader.receive(), ctrl(6));
  EXPECT_TRUE(net.loader.isSilent());
}

TEST(LooperEnd, AShutdownInAReplysCallbackEndsTheReading) {
  Connected net;
  Handler asking;
  net.looper->addHandler(7, &asking);
  message m = to({24});
  asking.postMessage(
      m, nullptr, [](void*, const message&, const message&) { getLooper()->shutdown(); }, message(), -1);
  net.loader.send(replyTo({7}, 0));
  net.loader.send(requestTo({7}, CMD_GET));
  net.wake();
  message rest;
  EXPECT_FALSE(net.looper->readMessage(rest, -1));
}

// --- The layout that derived classes in other binaries rely on ---------------------------------------------

// The slot of a virtual operation, counted from the first; the destructor takes two.
template <class T>
std::size_t slotOf(T operation) {
  std::size_t word = 0;
  std::memcpy(&word, &operation, sizeof word);
  return word / sizeof(void*);
}

TEST(LooperSlots, StandInTheirOrder) {
#if defined(__x86_64__) || defined(__i386__) || defined(__powerpc__)
  std::size_t slot = 2;
  EXPECT_EQ(slotOf(&Handler::loadPermData), slot++);
  EXPECT_EQ(slotOf(&Handler::savePermData), slot++);
  EXPECT_EQ(slotOf(&Handler::handle), slot++);
  EXPECT_EQ(slotOf(&Handler::handleBrkpath), slot++);
  EXPECT_EQ(slotOf(&Handler::handleReply), slot++);
  EXPECT_EQ(slotOf(&Handler::handleCmd), slot++);
  EXPECT_EQ(slotOf(&Handler::cmdGetPolicies), slot++);
  EXPECT_EQ(slotOf(&Handler::cmdGet), slot++);
  EXPECT_EQ(slotOf(&Handler::cmdSet), slot++);
  EXPECT_EQ(slotOf(&Handler::cmdReset), slot++);
  EXPECT_EQ(slotOf(&Handler::cmdGetObj), slot++);
  EXPECT_EQ(slotOf(&Handler::cmdSetObj), slot++);
  EXPECT_EQ(slotOf(&Handler::cmdGetAll), slot++);
  EXPECT_EQ(slotOf(&Handler::cmdAddObj), slot++);
  EXPECT_EQ(slotOf(&Handler::cmdRemoveObj), slot++);
  EXPECT_EQ(slotOf(&Handler::cmdMoveObj), slot++);
  EXPECT_EQ(slotOf(&Handler::cmdGetCount), slot++);
  EXPECT_EQ(slotOf(&Handler::cmdUnknown), slot++);
  EXPECT_EQ(slotOf(&Handler::cmdShutdown), slot++);
  EXPECT_EQ(slotOf(&Handler::shouldNotify), slot++);
  EXPECT_EQ(slotOf(&Handler::subscribed), slot++);
  EXPECT_EQ(slotOf(&Handler::unsubscribed), slot++);
  EXPECT_EQ(slotOf(&Handler::cmdDisconnected), slot++);
  EXPECT_EQ(slotOf(&Handler::notifiesSent), slot++);
  EXPECT_EQ(slotOf(&Handler::getObject), slot++);
  EXPECT_EQ(slotOf(&Handler::checkPolicy), slot++);
  EXPECT_EQ(slotOf(&Handler::sendMessage), slot++);
  EXPECT_EQ(slotOf(&Handler::exchangeMessage), slot++);
  EXPECT_EQ(slotOf(&Looper::shutdown), slot++);
  EXPECT_EQ(slotOf(&Looper::onInit), slot++);
  EXPECT_EQ(slotOf(&Looper::filterMessage), slot++);
  EXPECT_EQ(slotOf(&Looper::dispatchMessage), slot++);
  EXPECT_EQ(slotOf(&Looper::canLeave), slot++);
  EXPECT_EQ(slotOf(&Looper::run), slot++);
#endif
}

}  // namespace
}  // namespace kl

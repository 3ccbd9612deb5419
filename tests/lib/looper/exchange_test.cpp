// Asking and waiting.

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "kl/looper.h"
#include "tests/lib/looper/fixture.h"
#include "tests/support/calls/scripted_calls.h"
#include "tests/support/hex.h"
#include "tests/support/process/child.h"

namespace kl {
namespace {

using test::Connected;
using test::ctrl;
using test::errorOf;
using test::Ids;
using test::Recorder;
using test::replyTo;
using test::requestTo;
using test::to;

struct ExchangeTest : ::testing::Test {
  ExchangeTest() {
    net.looper->addHandler(7, &handler);
    net.looper->addHandler(8, &bystander);
  }

  // The answer to handler 7 when it asks service 24.
  message ask(int timeout) {
    message m = to({24, 0});
    return handler.exchangeMessage(m, timeout);
  }

  // A reply to the exchange, as the loader delivers it to handler 7.
  static message answer(unsigned int n = 1, unsigned int id = 0) {
    message m = replyTo({7}, id);
    m.insert(SYS_FROM, {24, 0});
    m.insert(STD_ID, n);
    return m;
  }

  Connected net;
  Handler handler;
  Recorder bystander;
};

TEST_F(ExchangeTest, TheReplyIsReturned) {
  net.loader.send(answer(42));
  EXPECT_EQ(ask(-1), answer(42));
}

TEST_F(ExchangeTest, TheRequestIsNumberedByTheLooperAndComesFromTheHandler) {
  net.loader.send(answer(1, 0));
  net.loader.send(answer(2, 1));
  (void)ask(-1);
  // SYS_REPLYEXP; SYS_TYPE 1, SYS_REQID 0 in slot order; SYS_FROM [7], SYS_TO [24, 0]
  message expected = requestTo({24, 0}, 0, 0);
  expected.remove(SYS_CMD);
  setType(expected, TYPE_REQUEST);
  expected.insert(SYS_FROM, {7});
  EXPECT_EQ(net.loader.receive(), expected);
  (void)ask(-1);
  setRequestID(expected, 1);
  EXPECT_EQ(net.loader.receive(), expected);
}

TEST_F(ExchangeTest, ExchangeCmdSetsTheCommand) {
  net.loader.send(answer());
  message m = to({24, 0});
  EXPECT_EQ(handler.exchangeCmd(m, CMD_GETCOUNT, -1), answer());
  EXPECT_EQ(net.loader.receive().get(SYS_CMD, 0), CMD_GETCOUNT);
}

TEST_F(ExchangeTest, AMessageWithoutPathIsRefused) {
  for (message m : {message(), to({})}) {
    const message result = handler.exchangeMessage(m, -1);
    EXPECT_EQ(errorOf(result), ERROR_FAILED);
    EXPECT_EQ(result.get(SYS_ERRSTR, ""), "bad_message");
  }
  EXPECT_TRUE(net.loader.isSilent());
}

TEST_F(ExchangeTest, WithoutReplyItEndsWhenTheTicksHavePassedAndWhatCameIsDispatchedLater) {
  test::ScriptedClock clock(5000);
  unsigned int polls = 0;
  const test::ScriptedPoll poll([&](const auto&) {
    clock.advance(100);
    if (++polls > 2) return 0;
    message m = requestTo({8}, CMD_GET);
    m.insert(STD_ID, polls);
    net.loader.send(m);
    return 1;
  });
  const message result = ask(300);
  EXPECT_EQ(errorOf(result), ERROR_TIMEOUT);
  EXPECT_FALSE(result.has(SYS_ERRSTR));
  EXPECT_EQ(clock.now(), 5300u);
  EXPECT_EQ(poll.timeouts(), (std::vector<int>{3000, 2000, 1000}));
  EXPECT_TRUE(bystander.seen.empty());
  net.looper->dispatchQueue();
  ASSERT_EQ(bystander.seen.size(), 2u);
  EXPECT_EQ(bystander.seen[0].get(STD_ID, 0), 1u);
  EXPECT_EQ(bystander.seen[1].get(STD_ID, 0), 2u);
}

TEST_F(ExchangeTest, AFloodOfOtherMessagesDoesNotHoldTheTimeoutUp) {
  test::ScriptedClock clock(0);
  const test::ScriptedPoll poll([&](const auto&) {
    clock.advance(1);
    net.loader.send(requestTo({8}, CMD_GET));
    return 1;
  });
  EXPECT_EQ(errorOf(ask(50)), ERROR_TIMEOUT);
  EXPECT_EQ(poll.timeouts().size(), 50u);
}

TEST_F(ExchangeTest, APollThatEndsATickEarlyIsRepeated) {
  test::ScriptedClock clock(0);
  const test::ScriptedPoll poll([&](const auto&) {
    clock.advance(clock.now() == 0 ? 299 : 1);
    return 0;
  });
  EXPECT_EQ(errorOf(ask(300)), ERROR_TIMEOUT);
  EXPECT_EQ(poll.timeouts(), (std::vector<int>{3000, 10}));
}

TEST_F(ExchangeTest, AReplyInTheLastMomentCounts) {
  test::ScriptedClock clock(0);
  const test::ScriptedPoll poll([&](const auto&) {
    clock.advance(300);
    net.loader.send(answer());
    return 1;
  });
  EXPECT_EQ(ask(300), answer());
}

TEST_F(ExchangeTest, ATimeoutOfZeroTakesWhatIsThereAndDoesNotWait) {
  const test::ScriptedPoll poll([](const auto&) { return 0; });
  EXPECT_EQ(errorOf(ask(0)), ERROR_TIMEOUT);
  net.loader.send(requestTo({8}, CMD_GET));
  net.loader.send(answer(5, 1));
  EXPECT_EQ(ask(0), answer(5, 1));
  EXPECT_TRUE(poll.timeouts().empty());
  net.looper->dispatchQueue();
  EXPECT_EQ(bystander.seen.size(), 1u);
}

TEST_F(ExchangeTest, WithoutLimitTheClockIsNotReadAndTheSocketPolledOnce) {
  const test::ScriptedClock clock(0);
  const test::ScriptedPoll poll([&](const auto&) {
    net.loader.send(answer());
    return 1;
  });
  EXPECT_EQ(ask(-1), answer());
  EXPECT_EQ(clock.reads(), 0u);
  EXPECT_EQ(poll.timeouts(), std::vector<int>{-1});
}

TEST_F(ExchangeTest, WithALimitThatIsKeptTheClockIsReadOnce) {
  const test::ScriptedClock clock(0);
  const test::ScriptedPoll poll([&](const auto&) {
    net.loader.send(answer());
    return 1;
  });
  EXPECT_EQ(ask(300), answer());
  EXPECT_EQ(clock.reads(), 1u);
}

TEST_F(ExchangeTest, AReplyOnAnotherPathIsQueued) {
  message other = answer(3);
  other.insert(SYS_TO, {8});
  net.loader.send(other);
  net.loader.send(answer(4));
  EXPECT_EQ(ask(-1), answer(4));
  net.looper->dispatchQueue();
  ASSERT_EQ(bystander.seen.size(), 1u);
  EXPECT_EQ(bystander.seen[0].get(STD_ID, 0), 3u);
}

TEST_F(ExchangeTest, AReplyToAnotherRequestAndARequestWithTheIdAreQueued) {
  net.loader.send(answer(1, 99));
  message request = requestTo({7}, CMD_NOOP, 0);
  net.loader.send(request);
  net.loader.send(answer(2));
  EXPECT_EQ(ask(-1), answer(2));
}

TEST_F(ExchangeTest, AReplyWithoutANumberIsQueued) {
  message unnumbered = answer(1);
  unnumbered.remove(SYS_REQID);
  net.loader.send(unnumbered);
  net.loader.send(answer(2));
  EXPECT_EQ(ask(-1), answer(2));
}

TEST_F(ExchangeTest, AnErrorReplyIsReturnedAsItIs) {
  message error = answer();
  error.merge(errorMsg(ERROR_BRKPATH, "gone"));
  net.loader.send(error);
  EXPECT_EQ(ask(-1), error);
}

TEST_F(ExchangeTest, TheLoopersOwnExchangeIsAnsweredOnAnAbsentOrAnEmptyPath) {
  message absent = answer(1, 0);
  absent.remove(SYS_TO);
  message empty = answer(2, 1);
  empty.insert(SYS_TO, {});
  net.loader.send(absent);
  net.loader.send(empty);
  message first = to({24});
  EXPECT_EQ(net.looper->exchangeMessage(first, -1), absent);
  message second = to({24});
  EXPECT_EQ(net.looper->exchangeMessage(second, -1), empty);
}

TEST_F(ExchangeTest, AProcessDoesNotLeaveInTheMiddleOfIt) {
  net.looper->setupLeave(1);
  net.looper->unblockLeave();
  EXPECT_TRUE(net.looper->canLeave());
  (void)net.loader.receive();
  net.loader.send(ctrl(1));
  net.loader.send(answer());
  EXPECT_EQ(ask(-1), answer());
  (void)net.loader.receive();  // the request
  EXPECT_EQ(net.loader.receive(), ctrl(3));
  EXPECT_FALSE(net.looper->isLeaving());
}

TEST_F(ExchangeTest, OtherControlMessagesAreIgnored) {
  message odd = answer(9);
  odd.insert(SYS_CTRL, 99);
  net.loader.send(odd);
  net.loader.send(answer());
  EXPECT_EQ(ask(-1), answer());
  (void)net.loader.receive();
  EXPECT_TRUE(net.loader.isSilent());
}

TEST_F(ExchangeTest, WithAHandlerOfThisProcessItCanOnlyTimeOut) {
  message m = to({PATH_SELF, 8});
  EXPECT_EQ(errorOf(handler.exchangeMessage(m, 0)), ERROR_TIMEOUT);
  net.looper->dispatchQueue();
  EXPECT_EQ(bystander.seen.size(), 1u);
}

TEST_F(ExchangeTest, AfterShutdownItEndsAtOnce) {
  net.looper->shutdown();
  EXPECT_EQ(errorOf(ask(-1)), ERROR_TIMEOUT);
}

TEST_F(ExchangeTest, TheQueueOverflowsAtAHundred) {
  const test::ChildResult result = test::runInChild([&] {
    for (unsigned int n = 0; n < 101; ++n) net.loader.send(requestTo({8}, CMD_GET));
    net.loader.send(answer());
    if (ask(-1) != answer()) std::abort();
    net.looper->dispatchQueue();
    if (bystander.seen.size() != 100) std::abort();
  });
  EXPECT_EQ(result.err, "full queue:\n####################################################\n");
  EXPECT_EQ(result.exitStatus, 0);
}

TEST_F(ExchangeTest, AServiceKilledMeanwhileGivesItsErrorOrTheTimeout) {
  message broken = replyTo({7}, 0);
  broken.merge(errorMsg(ERROR_BRKPATH, ""));
  broken.insert(SYS_FROM, {24, 0});
  net.loader.send(broken);
  EXPECT_EQ(errorOf(ask(-1)), ERROR_BRKPATH);
}

TEST_F(ExchangeTest, TheLoaderKilledMeanwhileEndsTheProcess) {
  const test::ChildResult result = test::runInChild([&] {
    const test::ScriptedPoll poll([&](const auto&) {
      (void)net.loader.receive();
      net.loader.close();
      return 1;
    });
    (void)ask(-1);
  });
  EXPECT_EQ(result.err, "LOOPER: read_raw read failed: EOF\n");
  EXPECT_EQ(result.exitStatus, 1);
}

// --- A post and an exchange under one id ------------------------------------------------------------------

struct SameIdTest : ExchangeTest {
  SameIdTest() {
    message m = to({33, 1});
    handler.postMessage(m, this, onReply, message(), -1);  // its id is 0, as the exchange's will be
  }
  static void onReply(void* context, const message& reply, const message&) {
    static_cast<SameIdTest*>(context)->posted.push_back(reply);
  }
  static message postAnswer(const Ids& from) {
    message m = replyTo({7}, 0);
    m.insert(SYS_FROM, from);
    return m;
  }
  std::vector<message> posted;
};

TEST_F(SameIdTest, TheReplysSenderTellsWhoseItIs) {
  net.loader.send(postAnswer({33, 1}));
  net.loader.send(answer(5));
  EXPECT_EQ(ask(-1), answer(5));
  EXPECT_TRUE(posted.empty());
  net.looper->dispatchQueue();
  ASSERT_EQ(posted.size(), 1u);
  EXPECT_EQ(posted[0].get(SYS_FROM, {}), (Ids{33, 1}));
}

TEST_F(SameIdTest, InTheOtherOrderToo) {
  net.loader.send(answer(5));
  net.loader.send(postAnswer({33, 1}));
  EXPECT_EQ(ask(-1), answer(5));
  net.wake();
  EXPECT_EQ(posted.size(), 1u);
}

TEST_F(SameIdTest, AReplyFromElsewhereEndsTheExchange) {
  net.loader.send(postAnswer({24, 9}));
  EXPECT_EQ(ask(-1), postAnswer({24, 9}));
}

TEST_F(SameIdTest, WithoutThePostTheSenderDoesNotMatter) {
  handler.cancelPost(0);
  net.loader.send(postAnswer({33, 1}));
  EXPECT_EQ(ask(-1), postAnswer({33, 1}));
}

// --- Pulling messages ---------------------------------------------------------------------------------------

TEST_F(ExchangeTest, GetMessageTakesTheQueueFirst) {
  net.looper->queueMessage(to({8}));
  net.loader.send(to({7}));
  EXPECT_EQ(net.looper->getMessage(0), to({8}));
  EXPECT_EQ(net.looper->getMessage(0), to({7}));
}

TEST_F(ExchangeTest, GetMessageSaysTimeoutInWords) {
  EXPECT_EQ(net.looper->getMessage(0), errorMsg(ERROR_TIMEOUT, "timeout"));
}

TEST_F(ExchangeTest, GetMessageGivesAControlMessageAsAnError) {
  net.loader.send(ctrl(1));
  EXPECT_EQ(net.looper->getMessage(-1), errorMsg(ERROR_FAILED, "control message (1)"));
  EXPECT_TRUE(net.loader.isSilent());
}

TEST_F(ExchangeTest, EnsureReturnsWhenTheServiceAnswers) {
  message reply = replyTo({}, 0);
  net.loader.send(reply);
  net.looper->ensure(33);
  const message request = net.loader.receive();
  EXPECT_EQ(request.get(SYS_TO, {}), Ids{33});
  EXPECT_EQ(request.get(SYS_CMD, 1), CMD_NOOP);
  EXPECT_TRUE(isReplyExpected(request));
}

}  // namespace
}  // namespace kl

// The re-fetch beside the loop.

#include <gtest/gtest.h>

#include <functional>
#include <memory>

#include "kl/reget.h"
#include "tests/lib/tables/fixture.h"
#include "tests/support/calls/scripted_calls.h"

namespace kl {
namespace {

using test::answerTo;
using test::chunk;
using test::errorOf;
using test::Ids;

// A walk over the table of service 32, which the test plays.
struct AsyncRegetTest : ::testing::Test {
  void start() { begin(bind<AsyncRegetTest, &AsyncRegetTest::onDone>()); }
  void startWithoutEnd() { begin(nullptr); }
  void begin(AsyncReget::DoneCallback done, unsigned int timeout = 300) {
    message m = test::to({32});
    m.insert(SYS_CMD, CMD_GETALL);
    reget->start(m, this, bind<AsyncRegetTest, &AsyncRegetTest::onObject>(), done, timeout);
  }
  void startWithoutTimeout() {
    message m = test::to({32});
    m.insert(SYS_CMD, CMD_GETALL);
    reget->start(m, this, nullptr, bind<AsyncRegetTest, &AsyncRegetTest::onDone>());
  }
  // Receives the open request and answers it; says where the request asked to go on.
  unsigned int answer(const message& body) {
    const message request = net.loader.receive();
    net.loader.send(answerTo(request, body));
    net.wake();
    return request.get(STD_GETALLID, BADID);
  }
  void onObject(const message& m) {
    ids.push_back(m.get(STD_ID, BADID));
    if (inObject) inObject();
  }
  void onDone(const message& reply) {
    ends.push_back(reply);
    if (inDone) inDone();
  }
  std::string linesOf(const std::function<void()>& action) {
    testing::internal::CaptureStdout();
    action();
    return testing::internal::GetCapturedStdout();
  }

  test::Connected net;
  std::unique_ptr<AsyncReget> reget = std::make_unique<AsyncReget>();
  Ids ids;
  std::vector<message> ends;
  std::function<void()> inObject;
  std::function<void()> inDone;
};

TEST_F(AsyncRegetTest, AllInOneReplyIsOneRequest) {
  start();
  EXPECT_TRUE(reget->isRunning());
  EXPECT_EQ(answer(chunk({1, 2, 3})), BADID);
  EXPECT_EQ(ids, (Ids{1, 2, 3}));
  ASSERT_EQ(ends.size(), 1u);
  EXPECT_EQ(ends[0].get(STD_OBJS, {}).size(), 3u);
  EXPECT_FALSE(reget->isRunning());
  EXPECT_TRUE(net.loader.isSilent());
}

TEST_F(AsyncRegetTest, EachChunkIsAskedForWhereTheLastOneEnded) {
  start();
  EXPECT_EQ(answer(chunk({1, 2}, 5)), BADID);
  EXPECT_EQ(answer(chunk({}, 9)), 5u);
  EXPECT_TRUE(ends.empty());
  EXPECT_EQ(answer(chunk({9})), 9u);
  EXPECT_EQ(ids, (Ids{1, 2, 9}));
  EXPECT_EQ(ends.size(), 1u);
}

TEST_F(AsyncRegetTest, WithoutDoneTheEndIsALine) {
  startWithoutEnd();
  EXPECT_EQ(linesOf([this] { answer(chunk({1})); }), "AsyncReget done\n");
  EXPECT_FALSE(reget->isRunning());
}

TEST_F(AsyncRegetTest, AnErrorEndsTheWalkAndIsHandedOver) {
  start();
  answer(chunk({1}, 2));
  EXPECT_EQ(linesOf([this] { answer(errorMsg(ERROR_BUSY, "")); }), "");
  ASSERT_EQ(ends.size(), 1u);
  EXPECT_EQ(errorOf(ends[0]), ERROR_BUSY);
  EXPECT_FALSE(reget->isRunning());
}

TEST_F(AsyncRegetTest, WithoutDoneAnErrorIsALine) {
  startWithoutEnd();
  EXPECT_EQ(linesOf([this] { answer(errorMsg(ERROR_BUSY, "later")); }),
            "ERROR: AsyncReget failed: later (12)\n");
}

TEST_F(AsyncRegetTest, AReplyWithoutObjectsIsALineAndTheEnd) {
  start();
  EXPECT_EQ(linesOf([this] { answer(message()); }), "ERROR: AsyncReget got reply without STD_OBJS\n");
  EXPECT_EQ(ends.size(), 1u);
  EXPECT_FALSE(reget->isRunning());
}

TEST_F(AsyncRegetTest, WithoutDoneAReplyWithoutObjectsIsTheOnlyLine) {
  startWithoutEnd();
  EXPECT_EQ(linesOf([this] { answer(message()); }), "ERROR: AsyncReget got reply without STD_OBJS\n");
  EXPECT_FALSE(reget->isRunning());
}

TEST_F(AsyncRegetTest, WithoutCallbacksTheObjectsArePassedOver) {
  message m = test::to({32});
  reget->start(m, nullptr, nullptr, nullptr);
  EXPECT_EQ(linesOf([this] { answer(chunk({1, 2}, 3)); }), "");
  EXPECT_EQ(linesOf([this] { EXPECT_EQ(answer(chunk({3})), 3u); }), "AsyncReget done\n");
}

TEST_F(AsyncRegetTest, WithoutDoneAWalkThatIsStoppedIsNoLine) {
  inObject = [this] { reget->stop(); };
  startWithoutEnd();
  EXPECT_EQ(linesOf([this] { answer(chunk({1, 2})); }), "");
  EXPECT_EQ(ids, Ids{1});
  EXPECT_FALSE(reget->isRunning());
}

TEST_F(AsyncRegetTest, StoppingAtTheFirstObjectEndsTheWalkWithItsReply) {
  inObject = [this] { reget->stop(); };
  start();
  answer(chunk({1, 2}, 3));
  EXPECT_EQ(ids, Ids{1});
  ASSERT_EQ(ends.size(), 1u);
  EXPECT_EQ(ends[0].get(STD_GETALLID, 0), 3u);
  EXPECT_TRUE(net.loader.isSilent());
}

TEST_F(AsyncRegetTest, StoppingFromOutsideIsTheEndWithoutDone) {
  start();
  const message request = net.loader.receive();
  reget->stop();
  EXPECT_FALSE(reget->isRunning());
  net.loader.send(answerTo(request, chunk({1})));
  net.wake();
  EXPECT_TRUE(ids.empty());
  EXPECT_TRUE(ends.empty());
}

TEST_F(AsyncRegetTest, AReplyMayTakeAMinuteUnlessToldOtherwise) {
  test::ScriptedClock clock(1000);
  const auto expectTimeoutAfter = [&](unsigned int ticks) {
    ends.clear();
    clock.advance(ticks - 1);
    net.looper->runTimers();
    EXPECT_TRUE(ends.empty()) << ticks;
    clock.advance(1);
    net.looper->runTimers();
    ASSERT_EQ(ends.size(), 1u) << ticks;
    EXPECT_EQ(errorOf(ends[0]), ERROR_TIMEOUT);
  };
  startWithoutTimeout();
  expectTimeoutAfter(6000);
  begin(bind<AsyncRegetTest, &AsyncRegetTest::onDone>(), 0xdeadbeef);
  expectTimeoutAfter(6000);
  begin(bind<AsyncRegetTest, &AsyncRegetTest::onDone>(), 300);
  expectTimeoutAfter(300);
  reget->retry();
  expectTimeoutAfter(300);
}

TEST_F(AsyncRegetTest, EachChunkHasItsOwnTime) {
  test::ScriptedClock clock(1000);
  start();
  clock.advance(299);
  answer(chunk({1}, 2));
  clock.advance(299);
  net.looper->runTimers();
  EXPECT_TRUE(ends.empty());
  clock.advance(1);
  net.looper->runTimers();
  EXPECT_EQ(ends.size(), 1u);
}

TEST_F(AsyncRegetTest, RetryGoesOnWhereTheWalkFailed) {
  start();
  answer(chunk({1}, 5));
  answer(errorMsg(ERROR_BUSY, ""));
  reget->retry();
  EXPECT_EQ(answer(chunk({5})), 5u);
  EXPECT_EQ(ids, (Ids{1, 5}));
  EXPECT_EQ(ends.size(), 2u);
}

TEST_F(AsyncRegetTest, RestartBeginsAtTheFirstObject) {
  start();
  answer(chunk({1}, 5));
  answer(errorMsg(ERROR_BUSY, ""));
  reget->restart();
  EXPECT_EQ(answer(chunk({1, 5})), BADID);
  EXPECT_EQ(ids, (Ids{1, 1, 5}));
}

TEST_F(AsyncRegetTest, RetryAndRestartOfARunningWalkAreOnlyLines) {
  start();
  EXPECT_EQ(linesOf([this] { reget->retry(); }), "ERROR: AsyncReget retry() impossible while running\n");
  EXPECT_EQ(linesOf([this] { reget->restart(); }), "ERROR: AsyncReget restart() impossible while running\n");
  (void)net.loader.receive();
  EXPECT_TRUE(net.loader.isSilent());
}

TEST_F(AsyncRegetTest, DoneMayRetry) {
  inDone = [this] {
    if (ends.size() == 1) reget->retry();
  };
  start();
  answer(errorMsg(ERROR_BUSY, ""));
  EXPECT_TRUE(reget->isRunning());
  answer(chunk({1}));
  EXPECT_EQ(ids, Ids{1});
  EXPECT_EQ(ends.size(), 2u);
}

TEST_F(AsyncRegetTest, AWalkBegunAtAnObjectTakesThePlaceOfTheOldOne) {
  inObject = [this] {
    inObject = nullptr;
    start();
  };
  start();
  answer(chunk({1, 2}, 3));
  EXPECT_EQ(ids, Ids{1});
  EXPECT_TRUE(ends.empty());
  EXPECT_EQ(answer(chunk({7, 8})), BADID);
  EXPECT_EQ(ids, (Ids{1, 7, 8}));
  EXPECT_EQ(ends.size(), 1u);
  EXPECT_TRUE(net.loader.isSilent());
}

TEST_F(AsyncRegetTest, StartingAgainForgetsTheOpenRequest) {
  start();
  const message first = net.loader.receive();
  start();
  net.loader.send(answerTo(first, chunk({1})));
  net.wake();
  EXPECT_TRUE(ids.empty());
  answer(chunk({2}));
  EXPECT_EQ(ids, Ids{2});
}

TEST_F(AsyncRegetTest, ACallbackMayDestroyIt) {
  inObject = [this] { reget.reset(); };
  start();
  answer(chunk({1, 2}, 3));
  EXPECT_EQ(ids, Ids{1});
  EXPECT_TRUE(ends.empty());

  reget = std::make_unique<AsyncReget>();
  inObject = nullptr;
  inDone = [this] { reget.reset(); };
  start();
  answer(chunk({4}));
  EXPECT_EQ(ends.size(), 1u);
  EXPECT_EQ(reget, nullptr);
}

TEST_F(AsyncRegetTest, ItsOpenRequestEndsWithIt) {
  test::ScriptedClock clock(1000);
  start();
  const message request = net.loader.receive();
  reget.reset();
  net.loader.send(answerTo(request, chunk({1})));
  net.wake();
  clock.advance(1000);
  net.looper->runTimers();
  EXPECT_TRUE(ids.empty());
  EXPECT_TRUE(ends.empty());
  EXPECT_EQ(net.looper->sleepTime(clock.now()), -1);
}

}  // namespace
}  // namespace kl

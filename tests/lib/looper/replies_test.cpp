// Requests whose replies come later.

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "kl/looper.h"
#include "tests/lib/looper/fixture.h"
#include "tests/support/calls/scripted_calls.h"

namespace kl {
namespace {

using test::Connected;
using test::errorOf;
using test::replyTo;
using test::to;

// The arguments that callbacks were called with.
struct Heard {
  static void callback(void* context, const message& reply, const message& data) {
    auto& self = *static_cast<Heard*>(context);
    self.replies.push_back(reply);
    self.data.push_back(data);
  }
  std::vector<message> replies;
  std::vector<message> data;
};

// Its requests are not sent.
class Numbered : public Handler {
 public:
  void sendMessage(message& m) override { sent.push_back(m); }
  std::vector<message> sent;
};

struct RepliesTest : ::testing::Test {
  RepliesTest() { net.looper->addHandler(7, &handler); }

  unsigned int post(int timeout, const message& data = message()) {
    message m = to({24, 0});
    const unsigned int id = handler.postMessage(m, &heard, Heard::callback, data, timeout);
    sent = net.loader.receive();
    return id;
  }
  void answer(unsigned int id) {
    net.loader.send(replyTo({7}, id));
    net.wake();
  }

  Connected net;
  Handler handler;
  Heard heard;
  message sent;
};

message numbered(unsigned int n) {
  message m;
  m.insert(STD_ID, n);
  return m;
}

TEST_F(RepliesTest, TheFirstRequestOfAHandlerHasIdZero) {
  EXPECT_EQ(post(-1), 0u);
  EXPECT_EQ(post(-1), 1u);
}

TEST_F(RepliesTest, ARequestSaysWhatItIs) {
  post(-1);
  message expected = to({24, 0});
  expected.insert(SYS_FROM, {7});
  expected.insert(SYS_TYPE, TYPE_REQUEST);
  expected.insert(SYS_REQID, 0);
  expected.insert(SYS_REPLYEXP, true);
  EXPECT_EQ(sent, expected);
}

TEST_F(RepliesTest, RequestMessageGivesTheIdBothWays) {
  message m = to({24});
  unsigned int id = 99;
  EXPECT_EQ(handler.requestMessage(m, &id), 0u);
  EXPECT_EQ(id, 0u);
  EXPECT_EQ(handler.requestMessage(m, nullptr), 1u);
}

TEST_F(RepliesTest, SendCmdSetsTheCommandAndExpectsNothing) {
  message m = to({24});
  handler.sendCmd(m, CMD_RESET);
  const message got = net.loader.receive();
  EXPECT_EQ(got.get(SYS_CMD, 0), CMD_RESET);
  EXPECT_FALSE(got.has(SYS_REQID));
  EXPECT_FALSE(isReplyExpected(got));
}

TEST_F(RepliesTest, TheReplyReachesTheCallbackWithTheData) {
  const unsigned int id = post(-1, numbered(11));
  answer(id);
  ASSERT_EQ(heard.replies.size(), 1u);
  EXPECT_EQ(heard.replies[0].get(SYS_REQID, 9), id);
  EXPECT_EQ(heard.data[0], numbered(11));
  answer(id);
  EXPECT_EQ(heard.replies.size(), 1u) << "a second reply is ignored";
}

TEST_F(RepliesTest, RepliesMayComeInAnyOrder) {
  post(-1, numbered(0));
  post(-1, numbered(1));
  answer(1);
  answer(0);
  ASSERT_EQ(heard.data.size(), 2u);
  EXPECT_EQ(heard.data[0], numbered(1));
  EXPECT_EQ(heard.data[1], numbered(0));
}

TEST_F(RepliesTest, AReplyWithoutOrWithAForeignIdIsIgnored) {
  post(-1);
  message m = replyTo({7}, 0);
  m.remove(SYS_REQID);
  handler.handle(m);
  answer(99);
  EXPECT_TRUE(heard.replies.empty());
}

TEST_F(RepliesTest, AnErrorReplyReachesTheCallbackUnchanged) {
  const unsigned int id = post(-1);
  message error = replyTo({7}, id);
  error.merge(errorMsg(ERROR_BUSY, "later"));
  net.loader.send(error);
  net.wake();
  ASSERT_EQ(heard.replies.size(), 1u);
  EXPECT_EQ(getError(heard.replies[0]), "later (12)");
}

TEST_F(RepliesTest, WithoutReplyTheTimeoutIsReportedWithTheRequestsId) {
  test::ScriptedClock clock(1000);
  post(-1);
  const unsigned int id = post(300, numbered(11));
  clock.advance(299);
  net.looper->runTimers();
  EXPECT_TRUE(heard.replies.empty());
  clock.advance(1);
  net.looper->runTimers();
  ASSERT_EQ(heard.replies.size(), 1u);
  message expected = errorMsg(ERROR_TIMEOUT, "");
  expected.insert(SYS_REQID, id);
  EXPECT_EQ(heard.replies[0], expected);
  EXPECT_EQ(heard.data[0], numbered(11));
}

TEST_F(RepliesTest, AReplyAfterTheTimeoutIsIgnored) {
  test::ScriptedClock clock(1000);
  const unsigned int id = post(300);
  clock.advance(300);
  net.looper->runTimers();
  answer(id);
  EXPECT_EQ(heard.replies.size(), 1u);
}

TEST_F(RepliesTest, AfterTheReplyThereIsNoTimeout) {
  test::ScriptedClock clock(1000);
  answer(post(300));
  clock.advance(1000);
  net.looper->runTimers();
  EXPECT_EQ(heard.replies.size(), 1u);
}

TEST_F(RepliesTest, WithoutTimeoutARequestWaitsForEver) {
  test::ScriptedClock clock(1000);
  const unsigned int id = post(-1);
  clock.advance(300000);
  net.looper->runTimers();
  EXPECT_TRUE(heard.replies.empty());
  answer(id);
  EXPECT_EQ(heard.replies.size(), 1u);
}

TEST_F(RepliesTest, ACancelledRequestIsForgotten) {
  test::ScriptedClock clock(1000);
  const unsigned int id = post(300);
  handler.cancelPost(id);
  handler.cancelPost(id);
  handler.cancelPost(99);
  answer(id);
  clock.advance(1000);
  net.looper->runTimers();
  EXPECT_TRUE(heard.replies.empty());
}

TEST_F(RepliesTest, ReplyTimeoutEndsARequestByHand) {
  const unsigned int id = post(-1);
  handler.replyTimeout(99);
  EXPECT_TRUE(heard.replies.empty());
  handler.replyTimeout(id);
  ASSERT_EQ(heard.replies.size(), 1u);
  EXPECT_EQ(errorOf(heard.replies[0]), ERROR_TIMEOUT);
}

TEST_F(RepliesTest, ACallbackMayPostAndCancelAndDestroyItsHandler) {
  struct Scene {
    std::unique_ptr<Handler> handler = std::make_unique<Handler>();
    unsigned int other = 0;
    unsigned int calls = 0;
    static void first(void* context, const message&, const message&) {
      auto& self = *static_cast<Scene*>(context);
      ++self.calls;
      self.handler->cancelPost(self.other);
      message m = to({24});
      self.handler->postMessage(m, context, last, message(), 0);
    }
    static void last(void* context, const message&, const message&) {
      auto& self = *static_cast<Scene*>(context);
      ++self.calls;
      self.handler.reset();
    }
  } scene;
  test::ScriptedClock clock(1000);
  net.looper->addHandler(8, scene.handler.get());
  message m = to({24});
  scene.handler->postMessage(m, &scene, Scene::first, message(), 100);
  scene.other = scene.handler->postMessage(m, &scene, Scene::first, message(), 100);
  clock.advance(100);
  net.looper->runTimers();
  EXPECT_EQ(scene.calls, 1u);
  net.looper->runTimers();
  EXPECT_EQ(scene.calls, 2u);
  EXPECT_EQ(scene.handler, nullptr);
  EXPECT_FALSE(net.looper->hasHandler(8));
}

TEST_F(RepliesTest, TheTimersOfADestroyedHandlerGoWithIt) {
  test::ScriptedClock clock(1000);
  {
    Handler shortLived;
    net.looper->addHandler(8, &shortLived);
    message m = to({24});
    shortLived.postMessage(m, &heard, Heard::callback, message(), 10);
    net.looper->removeHandler(8);
  }
  clock.advance(100);
  net.looper->runTimers();
  EXPECT_TRUE(heard.replies.empty());
  EXPECT_EQ(net.looper->sleepTime(clock.now()), -1);
}

TEST_F(RepliesTest, TheNumberThatMeansNobodyIsPassedOver) {
  Numbered counting;
  HandlerProbe::setNextRequestID(counting, 0xfffffffe);
  message m = to({24});
  EXPECT_EQ(counting.requestMessage(m), 0xfffffffeu);
  EXPECT_EQ(counting.requestMessage(m), 0u);
  EXPECT_EQ(counting.requestMessage(m), 1u);
}

TEST_F(RepliesTest, ARequestWhoseIdIsNeededAgainIsEndedFirst) {
  test::ScriptedClock clock(1000);
  Numbered counting;
  message m = to({24});
  counting.postMessage(m, &heard, Heard::callback, numbered(1), 100);
  HandlerProbe::setNextRequestID(counting, 0);
  EXPECT_EQ(counting.postMessage(m, &heard, Heard::callback, numbered(2), -1), 0u);
  ASSERT_EQ(heard.replies.size(), 1u);
  EXPECT_EQ(heard.replies[0], errorMsg(ERROR_TIMEOUT, ""));
  EXPECT_EQ(heard.data[0], numbered(1));
  clock.advance(100);
  net.looper->runTimers();
  EXPECT_EQ(heard.replies.size(), 1u) << "the timer of the first one is gone";
  counting.handle(replyTo({}, 0));
  ASSERT_EQ(heard.data.size(), 2u);
  EXPECT_EQ(heard.data[1], numbered(2));
}

}  // namespace
}  // namespace kl

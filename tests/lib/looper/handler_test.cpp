// A handler: how what comes in is sorted, carried out and answered.

#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "kl/backtrace.h"
#include "kl/looper.h"
#include "tests/lib/looper/fixture.h"
#include "tests/support/hex.h"
#include "tests/support/journal.h"
#include "tests/support/process/child.h"

namespace kl {
namespace {

using test::Connected;
using test::errorOf;
using test::Ids;
using test::requestTo;

// Notes which operation was called with what, and answers with a text that names it.
class Noting : public Handler {
 public:
  message answer(const std::string& word) {
    journal.note(word);
    message m;
    m.insert(STD_DESCR, word);
    return m;
  }
  message answer(const std::string& word, unsigned int id) { return answer(word + ":" + std::to_string(id)); }

  message cmdGet(const message&) override { return answer("get"); }
  message cmdSet(const message&) override { return answer("set"); }
  message cmdReset(const message&) override { return answer("reset"); }
  message cmdGetObj(const message&, unsigned int id) override { return answer("getobj", id); }
  message cmdSetObj(const message&, unsigned int id) override { return answer("setobj", id); }
  message cmdGetAll(const message&, unsigned int start, unsigned int count) override {
    return answer("getall:" + std::to_string(start) + ":" + std::to_string(count));
  }
  message cmdAddObj(const message&) override { return answer("addobj"); }
  message cmdRemoveObj(const message&, unsigned int id) override { return answer("removeobj", id); }
  message cmdMoveObj(const message&, unsigned int id) override { return answer("moveobj", id); }
  message cmdGetCount(const message&) override { return answer("getcount"); }
  message cmdUnknown(const message&, unsigned int command) override { return answer("unknown", command); }
  void cmdShutdown(const message&) override { journal.note("shutdown"); }
  void cmdDisconnected(const message&) override { journal.note("disconnected"); }
  void handleReply(const message&) override { journal.note("reply"); }
  void handleBrkpath(const message&) override { journal.note("brkpath"); }

  test::Journal journal;
};

struct HandlerTest : ::testing::Test {
  HandlerTest() { net.looper->addHandler(7, &handler); }
  ~HandlerTest() override { net.looper->removeHandler(7); }

  // The handler gets the request; the result is what the asker hears.
  message ask(message request) {
    handler.handle(request);
    return net.loader.receive();
  }

  Connected net;
  Noting handler;
};

message request(unsigned int command) { return requestTo({}, command); }

message objectRequest(unsigned int command, unsigned int id) {
  message m = request(command);
  m.insert(STD_ID, id);
  return m;
}

// The last words of the process that does this, with which it ends.
std::string assertionOf(const std::function<void()>& body) {
  const test::ChildResult result = test::runInChild([&] {
    (void)std::signal(SIGABRT, SIG_DFL);
    body();
  });
  EXPECT_EQ(result.signal, SIGABRT);
  EXPECT_EQ(result.err.substr(0, 11), "looper.cpp:");
  return result.err.substr(std::min(result.err.size(), result.err.find(": ")));
}

TEST(HandlerAlone, SendsAndExchangesNothing) {
  Handler handler;
  message m = test::to({24, 0});
  const std::string line = ": assertion failed: looper != nullptr\n";
  EXPECT_EQ(assertionOf([&] { handler.sendMessage(m); }), line);
  EXPECT_EQ(assertionOf([&] { (void)handler.exchangeMessage(m, 0); }), line);
}

TEST_F(HandlerTest, NoHandlerCannotBeAdded) {
  EXPECT_EQ(assertionOf([this] { net.looper->addHandler(8, nullptr); }),
            ": assertion failed: handler != nullptr\n");
}

TEST_F(HandlerTest, EachCommandReachesItsOperation) {
  const struct {
    unsigned int command;
    const char* word;
  } rows[] = {{CMD_GET, "get"},           {CMD_SET, "set"},
              {CMD_RESET, "reset"},       {CMD_ADDOBJ, "addobj"},
              {CMD_GETCOUNT, "getcount"}, {CMD_GETOBJ, "getobj:3"},
              {CMD_SETOBJ, "setobj:3"},   {CMD_REMOVEOBJ, "removeobj:3"},
              {CMD_MOVEOBJ, "moveobj:3"}, {CMD_GETALL, "getall:4294967295:0"}};
  for (const auto& [command, word] : rows) {
    handler.journal.clear();
    const message reply = ask(objectRequest(command, 3));
    EXPECT_EQ(reply.get(STD_DESCR, ""), word);
    EXPECT_EQ(handler.journal.text(), word);
  }
}

TEST_F(HandlerTest, AHandlerThatOverridesNothingAnswersShutdownAndDoesNothing) {
  Handler plain;
  net.looper->addHandler(8, &plain);
  plain.handle(request(CMD_SHUTDOWN));
  message expected;
  expected.insert(SYS_TO, {9});
  expected.insert(SYS_FROM, {8});
  expected.insert(SYS_TYPE, TYPE_REPLY);
  expected.insert(SYS_REQID, 5);
  EXPECT_EQ(net.loader.receive(), expected);
  net.looper->removeHandler(8);
}

TEST_F(HandlerTest, AHandlerThatOverridesNothingTakesABrokenPathInSilence) {
  Handler plain;
  net.looper->addHandler(8, &plain);
  message notice = errorMsg(ERROR_BRKPATH, "");
  notice.insert(SYS_FROM, {24, 0});
  plain.handle(notice);
  EXPECT_TRUE(net.loader.isSilent());
  net.looper->removeHandler(8);
}

TEST_F(HandlerTest, EveryOtherCommandIsUnknown) {
  for (const unsigned int command :
       {CMD_NOTIFY, CMD_START, CMD_POLL, CMD_CANCEL, 0xfe0008u, 0xfe0009u, 0xfe000au, 7u})
    EXPECT_EQ(ask(request(command)).get(STD_DESCR, ""), "unknown:" + std::to_string(command));
}

TEST_F(HandlerTest, GetPoliciesIsUnknownToHandleCmd) {
  handler.handleCmd(request(CMD_GETPOLICIES), CMD_GETPOLICIES);
  EXPECT_EQ(net.loader.receive().get(STD_DESCR, ""), "unknown:16646145");
}

TEST_F(HandlerTest, GetAllTakesStartAndCountFromTheRequest) {
  message m = request(CMD_GETALL);
  m.insert(STD_GETALLID, 20);
  m.insert(STD_GETALLNO, 5);
  EXPECT_EQ(ask(m).get(STD_DESCR, ""), "getall:20:5");
}

TEST_F(HandlerTest, AnObjectCommandWithoutIdIsAnsweredWithUnknownId) {
  for (const unsigned int command : {CMD_GETOBJ, CMD_SETOBJ, CMD_REMOVEOBJ, CMD_MOVEOBJ}) {
    const message reply = ask(request(command));
    EXPECT_EQ(errorOf(reply), ERROR_UNKNOWNID);
    EXPECT_FALSE(reply.has(SYS_ERRSTR));
  }
  EXPECT_EQ(handler.journal.text(), "");
}

TEST_F(HandlerTest, AReplyGoesToTheSenderWithTheRequestsIdAndTheHandlersNumberInFront) {
  message m = request(CMD_NOOP);
  m.insert(SYS_FROM, {24, 2});
  handler.handle(m);
  // SYS_REQID 5, SYS_TYPE 2; SYS_FROM [7], SYS_TO [24, 2]
  const message expected(
      test::bytes("4d32 0600ff0905 0300ff0902 0200ff88 0100 07000000 0100ff88 0200 18000000 02000000"));
  EXPECT_EQ(net.loader.receive(), expected);
}

TEST_F(HandlerTest, AReplyPutsItsNumberInFrontOfThePathThatItHolds) {
  message reply;
  reply.insert(SYS_FROM, {3});
  handler.replyMessage(request(CMD_GET), reply);
  EXPECT_EQ(net.loader.receive().get(SYS_FROM, {}), (Ids{7, 3}));
}

TEST_F(HandlerTest, AReplyReplacesTypeIdAndPathThatItHolds) {
  message reply = requestTo({1, 2, 3}, CMD_GET, 99);
  handler.replyMessage(request(CMD_GET), reply);
  const message got = net.loader.receive();
  EXPECT_TRUE(isReply(got));
  EXPECT_EQ(got.get(SYS_REQID, 0), 5u);
  EXPECT_EQ(got.get(SYS_TO, {}), Ids{9});
}

TEST_F(HandlerTest, ARequestWithoutIdIsCarriedOutAndNotAnswered) {
  message m = request(CMD_SET);
  m.remove(SYS_REQID);
  handler.handle(m);
  EXPECT_EQ(handler.journal.text(), "set");
  m.insert(SYS_CMD, CMD_GETOBJ);
  handler.handle(m);
  handler.replyError(m, ERROR_BUSY, "later");
  EXPECT_TRUE(net.loader.isSilent());
}

TEST_F(HandlerTest, AMessageWithoutCommandIsANoop) {
  message m = request(CMD_NOOP);
  m.remove(SYS_CMD);
  const message reply = ask(m);
  EXPECT_TRUE(isReply(reply));
  EXPECT_FALSE(isError(reply));
  EXPECT_EQ(handler.journal.text(), "");
}

TEST_F(HandlerTest, ShutdownIsAnsweredWithAnEmptyReply) {
  const message reply = ask(request(CMD_SHUTDOWN));
  EXPECT_TRUE(isReply(reply));
  EXPECT_EQ(handler.journal.text(), "shutdown");
}

TEST_F(HandlerTest, SubscribingUnsubscribingAndDisconnectionAreNotAnswered) {
  for (const unsigned int command : {CMD_SUBSCRIBE, CMD_UNSUBSCRIBE, CMD_DISCONNECTED})
    handler.handle(request(command));
  EXPECT_EQ(handler.journal.text(), "disconnected");
  EXPECT_TRUE(net.loader.isSilent());
}

TEST_F(HandlerTest, RepliesAreSortedOut) {
  handler.handle(test::replyTo({}, 5));
  EXPECT_EQ(handler.journal.text(), "reply");
}

TEST_F(HandlerTest, ABrokenPathNoticeReachesItsOperation) {
  handler.handle(errorMsg(ERROR_BRKPATH, ""));
  EXPECT_EQ(handler.journal.text(), "brkpath");
}

TEST_F(HandlerTest, AnyOtherErrorWithoutCommandIsIgnored) {
  message error = errorMsg(ERROR_BUSY, "");
  error.insert(SYS_REQID, 5);
  error.insert(SYS_FROM, {9});
  handler.handle(error);
  EXPECT_EQ(handler.journal.text(), "");
  EXPECT_TRUE(net.loader.isSilent());
}

TEST_F(HandlerTest, AnErrorWithACommandIsACommand) {
  message m = request(CMD_GET);
  m.merge(errorMsg(ERROR_BRKPATH, ""));
  EXPECT_EQ(ask(m).get(STD_DESCR, ""), "get");
}

TEST_F(HandlerTest, WhatThePoliciesForbidIsNotCarriedOut) {
  message m = request(CMD_SET);
  m.insert(SYS_POLICY, 64);
  const message reply = ask(m);
  EXPECT_EQ(errorOf(reply), ERROR_NOTALLOWED);
  EXPECT_FALSE(reply.has(SYS_ERRSTR));
  EXPECT_EQ(handler.journal.text(), "");
  handler.accessPolicies().set_policy(CMD_SET, 64);
  EXPECT_EQ(ask(m).get(STD_DESCR, ""), "set");
}

TEST_F(HandlerTest, GetPoliciesIsAnsweredToWhoMayNothing) {
  message m = request(CMD_GETPOLICIES);
  m.insert(SYS_POLICY, 0);
  const message reply = ask(m);
  EXPECT_EQ(reply.get(STD_OBJS, {}), handler.accessPolicies().get_policies(m).get(STD_OBJS, {}));
  EXPECT_EQ(reply.size_message_array(STD_OBJS), 19u);
}

TEST(HandlerDefaults, WhatAServiceDoesNotSupportIsNotImplemented) {
  Connected net;
  Handler plain;
  net.looper->addHandler(7, &plain);
  for (const unsigned int command :
       {CMD_GET, CMD_SET, CMD_RESET, CMD_ADDOBJ, CMD_GETCOUNT, CMD_GETOBJ, CMD_SETOBJ, CMD_REMOVEOBJ,
        CMD_MOVEOBJ, CMD_GETALL, CMD_START, CMD_NOTIFY}) {
    plain.handle(objectRequest(command, 1));
    const message reply = net.loader.receive();
    EXPECT_EQ(errorOf(reply), ERROR_NOTIMP) << command;
    EXPECT_FALSE(reply.has(SYS_ERRSTR));
  }
  EXPECT_EQ(plain.getObject(1), message());
}

TEST(HandlerDefaults, AFreshHandlerHasNoNumberAndEndsEveryPath) {
  const Handler fresh;
  EXPECT_EQ(fresh.getHandlerID(), BADID);
  EXPECT_TRUE(fresh.isTerminal());
  EXPECT_TRUE(fresh.getSubscriptions().empty());
}

TEST_F(HandlerTest, ABrokenPathNoticeNamesThePathAndHasNeitherIdNorType) {
  message lost = test::to({33, 4});
  lost.insert(SYS_FROM, {9, 1});
  lost.insert(SYS_REQID, 3);
  handler.sendBrkpath(lost);
  message expected = errorMsg(ERROR_BRKPATH, "");
  expected.insert(SYS_FROM, {7, 33, 4});
  expected.insert(SYS_TO, {9, 1});
  EXPECT_EQ(net.loader.receive(), expected);
}

TEST_F(HandlerTest, AHandlerPutsItsNumberInFrontOfTheWayBack) {
  message m = test::to({24, 0});
  m.insert(SYS_FROM, {3});
  handler.sendMessage(m);
  // 26 bytes: SYS_FROM [7, 3], then SYS_TO [24, 0]
  EXPECT_EQ(test::hex(net.loader.receiveFrame()),
            test::hex(test::bytes(
                "1e000000 4d32 0200ff88 0200 07000000 03000000 0100ff88 0200 18000000 00000000")));
}

TEST(HandlerMisuse, SendingWithoutALooperIsABrokenPromise) {
  const test::ChildResult result = test::runInChild([] {
    Handler handler;
    message m = test::to({24});
    handler.sendMessage(m);
  });
  EXPECT_TRUE(result.err.starts_with("looper.cpp:")) << result.err;
  EXPECT_TRUE(result.err.ends_with(": assertion failed: looper != nullptr\n")) << result.err;
}

TEST(HandlerEnd, ADestroyedHandlerIsInNobodysTable) {
  Connected net;
  {
    Handler shortLived;
    net.looper->addHandler(7, &shortLived);
    net.looper->addHandler(8, &shortLived);
  }
  EXPECT_FALSE(net.looper->hasHandler(7));
  EXPECT_FALSE(net.looper->hasHandler(8));
}

// Destroys itself while it carries out a command; what the library does with it afterwards, the address sanitizer sees.
class EndingInCommand : public Handler {
 public:
  message cmdGet(const message&) override { return end(); }
  message cmdGetObj(const message&, unsigned int) override { return end(); }
  message cmdGetAll(const message&, unsigned int, unsigned int) override { return end(); }
  message cmdUnknown(const message&, unsigned int) override { return end(); }
  message cmdGetPolicies(const message&) override { return end(); }
  void cmdShutdown(const message&) override { (void)end(); }
  bool checkPolicy(const message& request) override {
    if (request.get(SYS_CMD, 0) != CMD_SET) return true;
    (void)end();
    return allowed;
  }
  static inline bool allowed = true;

 private:
  message end() {
    delete this;
    message reply;
    reply.insert(STD_DESCR, "the last");
    return reply;
  }
};

struct HandlerEndTest : ::testing::Test {
  void carryOut(unsigned int command) {
    net.looper->addHandler(7, new EndingInCommand);
    message request = requestTo({7}, command);
    request.insert(STD_ID, 3);
    net.looper->dispatchMessage(request);
    EXPECT_FALSE(net.looper->hasHandler(7));
  }

  Connected net;
};

TEST_F(HandlerEndTest, AHandlerThatEndsInItsOwnOperationIsAnsweredForFromItsNumber) {
  for (const unsigned int command : {CMD_GET, CMD_GETOBJ, CMD_GETALL, 0x60007u, CMD_GETPOLICIES}) {
    SCOPED_TRACE(command);
    carryOut(command);
    message expected = test::replyTo({9}, 5);
    expected.insert(SYS_FROM, {7});
    expected.insert(STD_DESCR, "the last");
    EXPECT_EQ(net.loader.receive(), expected);
  }
  carryOut(CMD_SHUTDOWN);
  EXPECT_EQ(net.loader.receive().get(SYS_FROM, {}), Ids{7});
  EXPECT_TRUE(net.loader.isSilent());
}

TEST_F(HandlerEndTest, AHandlerThatEndsWhileItJudgesARequestDoesNotCarryItOut) {
  carryOut(CMD_SET);
  EXPECT_TRUE(net.loader.isSilent());
  EndingInCommand::allowed = false;
  carryOut(CMD_SET);
  EndingInCommand::allowed = true;
  EXPECT_EQ(errorOf(net.loader.receive()), ERROR_NOTALLOWED);
}

TEST_F(HandlerEndTest, ACallbackOfADisplacedRequestMayEndTheHandler) {
  auto* const handler = new Handler;
  net.looper->addHandler(7, handler);
  message m = test::to({24});
  handler->postMessage(
      m, handler, [](void* self, const message&, const message&) { delete static_cast<Handler*>(self); },
      message(), -1);
  HandlerProbe::setNextRequestID(*handler, 0);
  m = test::to({24});
  handler->postMessage(
      m, nullptr, [](void*, const message&, const message&) {}, message(), -1);
  EXPECT_FALSE(net.looper->hasHandler(7));
}

TEST(HandlerEnd, AHandlerMayOutliveItsLooper) {
  Handler handler;
  {
    Connected net;
    net.looper->addHandler(7, &handler);
    message m = test::to({24});
    handler.postMessage(
        m, nullptr, [](void*, const message&, const message&) {}, message(), 100);
  }
  EXPECT_EQ(getLooper(), nullptr);
}

}  // namespace
}  // namespace kl

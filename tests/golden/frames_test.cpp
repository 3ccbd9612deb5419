// Golden frames: registration, a request and a reply, as they pass a process's connection to the loader.

#include <gtest/gtest.h>

#include <optional>

#include "kl/bind.h"
#include "kl/looper.h"
#include "tests/golden/golden.h"
#include "tests/support/doubles/loader_double.h"
#include "tests/support/hex.h"

namespace golden {
namespace {

using kl::message;
using kl::test::hex;

using Ids = std::vector<unsigned int>;

// Asks, answers, and keeps what came.
class Netif : public kl::Handler {
 public:
  void ask() {
    message m;
    m.insert(kl::SYS_TO, {24, 0});
    m.insert(kl::SYS_CMD, kl::CMD_GET);
    postMessage(m, this, kl::bind<Netif, &Netif::onAnswer>(), message(), -1);
  }
  void onAnswer(const message& m, const message&) { answer = m; }

  message cmdGet(const message& m) override {
    request = m;
    message reply;
    reply.insert(kl::STD_DESCR, "eth0");
    return reply;
  }

  message answer;
  message request;
};

// A process that is registered as service 500.
class GoldenFrames : public testing::Test {
 protected:
  GoldenFrames() {
    loader.sendBytes(file("ready.frame"));
    looper.emplace(kl::Looper::kInherited, 500u, 0x0102u);
    hello = loader.receiveFrame();
    looper->addHandler(7, &netif);
  }
  ~GoldenFrames() override { looper->removeHandler(7); }

  // The process takes what the loader has sent.
  void receive(const std::string& frame) {
    loader.sendBytes(file(frame));
    looper->onMsgSock(3, 1);
    looper->dispatchQueue();
  }

  kl::test::LoaderDouble loader;
  std::optional<kl::Looper> looper;
  Bytes hello;
  Netif netif;
};

TEST_F(GoldenFrames, AProcessRegisters) { EXPECT_EQ(hex(hello), hex(file("hello.frame"))); }

TEST_F(GoldenFrames, TheConfirmationIsRead) {
  EXPECT_EQ(looper->getLoaderValue(1), 500u);
  EXPECT_EQ(looper->getLoaderValue(2), 0x01006600u);
  EXPECT_EQ(looper->getLoaderValue(3), 3u);
}

TEST_F(GoldenFrames, ARequestIsWritten) {
  netif.ask();
  EXPECT_EQ(hex(loader.receiveFrame()), hex(file("request.frame")));
}

TEST_F(GoldenFrames, AReplyIsRead) {
  netif.ask();
  receive("reply-delivered.frame");
  EXPECT_EQ(netif.answer.get(kl::SYS_TYPE, 0), kl::TYPE_REPLY);
  EXPECT_EQ(netif.answer.get(kl::SYS_REQID, 9), 0u);
  EXPECT_EQ(netif.answer.get(kl::SYS_FROM, {}), (Ids{24, 0}));
  EXPECT_EQ(netif.answer.get(kl::STD_DESCR, ""), "lo");
}

TEST_F(GoldenFrames, ARequestIsReadAndAnswered) {
  receive("request-delivered.frame");
  EXPECT_TRUE(netif.request.get(kl::SYS_REPLYEXP, false));
  EXPECT_EQ(netif.request.get(kl::SYS_TYPE, 0), kl::TYPE_REQUEST);
  EXPECT_EQ(netif.request.get(kl::SYS_REQID, 0), 256u);
  EXPECT_EQ(netif.request.get(kl::SYS_CMD, 0), kl::CMD_GET);
  EXPECT_EQ(netif.request.get(kl::SYS_FROM, {}), (Ids{24, 5}));
  EXPECT_EQ(hex(loader.receiveFrame()), hex(file("reply.frame")));
}

// Read as a message and framed again, every one of them is what it was, after its lists were turned round twice.
TEST_F(GoldenFrames, EachIsFramedAsItWasFound) {
  for (const char* name : {"hello.frame", "ready.frame", "request.frame", "request-delivered.frame",
                           "reply.frame", "reply-delivered.frame"}) {
    const Bytes frame = file(name);
    const message m(frame.data() + 4, static_cast<unsigned int>(frame.size() - 4));
    const message twice(flat(m));
    EXPECT_EQ(hex(kl::test::frameOf(twice)), hex(frame)) << name;
  }
}

}  // namespace
}  // namespace golden

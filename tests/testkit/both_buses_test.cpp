// The loader's protocol, scenario by scenario, on the bus of the kit and on the real loader: a process that speaks in bytes,
// and other members beside it.  A test that passes on one of them and not on the other shows a fault of the kit.

#include <unistd.h>

#include <cstdlib>
#include <memory>

#include "tests/support/doubles/raw_peer.h"
#include "tests/testkit/fixture.h"

namespace kl::test {
namespace {

// The bus of the kit.
class Played {
 public:
  class Other {
   public:
    explicit Other(Played& on) : on_(on), peer_(on.bus_) { peer_.ignore(CMD_GET); }
    unsigned int id() const { return peer_.id(); }
    void send(const message& m) { peer_.send(m); }
    void end() { peer_.end(); }

    message reply(unsigned int request) {
      on_.settle();
      return peer_.takeReply(request).value_or(message());
    }
    message asked() { return next(&Peer::takeAsked); }
    message notified() { return next(&Peer::takeNotified); }
    message notice() { return next(&Peer::takeNotices); }

   private:
    message next(std::vector<message> (Peer::*take)()) {
      on_.settle();
      const std::vector<message> all = (peer_.*take)();
      EXPECT_EQ(all.size(), 1u);
      return all.empty() ? message() : all.front();
    }

    Played& on_;
    Peer peer_;
  };

  void connect() { process = RawPeer(::dup(3)); }
  void settle() { bus_.runUntilIdle(); }

  RawPeer process;

 private:
  TestBus bus_;
};

// The loader itself.
class Running {
 public:
  class Other {
   public:
    explicit Other(Running&) : peer_(RawPeer::registered()) {}
    unsigned int id() const { return peer_.ready().get(READY_ID, 0); }
    void send(const message& m) { EXPECT_TRUE(peer_.send(m)); }
    void end() { peer_.close(); }

    message reply(unsigned int request) { return peer_.receiveReply(request).value_or(message()); }
    message asked() { return peer_.receiveCommand(CMD_GET).value_or(message()); }
    message notified() { return peer_.receiveCommand(CMD_NOTIFY).value_or(message()); }
    message notice() { return peer_.receive().value_or(message()); }

   private:
    RawPeer peer_;
  };

  void connect() { EXPECT_TRUE(process.connect()); }
  void settle() {}

  RawPeer process;

 private:
  // Before the loader is started.
  struct Program {
    Program() { (void)::setenv("KL_LOADER", KL_BIN_DIR "/kl-loader", 1); }
  } program_;
  RealBus bus_{"[[service]]\nname = \"keeper\"\nid = 34\n"};
};

template <class Bus>
class BothBuses : public testing::Test {
 protected:
  using Other = typename Bus::Other;

  BothBuses() {
    bus_.connect();
    say(hello(kService));
    ready_ = heard();
  }

  // Lets the process say this, and gives what it hears next.
  void say(const message& m) {
    EXPECT_TRUE(bus_.process.send(m));
    bus_.settle();
  }
  message heard() {
    bus_.settle();
    return bus_.process.receive().value_or(message());
  }
  Other other() { return Other(bus_); }
  // A message that was not delivered before this is not delivered at all.
  void expectNothingBefore(Other& asker) {
    asker.send(request(kPath, CMD_RESET, 99));
    EXPECT_EQ(heard().get(SYS_CMD, 0), CMD_RESET);
  }

  Bus bus_;
  message ready_;
};

using Buses = testing::Types<Played, Running>;
TYPED_TEST_SUITE(BothBuses, Buses);

TYPED_TEST(BothBuses, ARegistrationIsConfirmed) {
  EXPECT_EQ(this->ready_.get(SYS_CTRL, 0), CTRL_READY);
  EXPECT_EQ(this->ready_.get(READY_ID, 0), kService);
  EXPECT_FALSE(this->ready_.has(READY_DATA));
}

TYPED_TEST(BothBuses, ARequestSaysWhereItsReplyGoes) {
  auto asker = this->other();
  asker.send(request(kPath, CMD_GET, 5, {7, 8}));
  const message asked = this->heard();
  EXPECT_EQ(asked.get(SYS_CMD, 0), CMD_GET);
  EXPECT_EQ(asked.get(SYS_REQID, 0), 5u);
  EXPECT_EQ(asked.get(SYS_FROM, {}), (Ids{asker.id(), 7, 8}));
}

TYPED_TEST(BothBuses, APathIsCutHopByHop) {
  auto asker = this->other();
  asker.send(request({kService, 5, 7}, CMD_GET, 1));
  EXPECT_EQ(this->heard().get(SYS_TO, {}), (Ids{5, 7}));
  asker.send(request({kService}, CMD_GET, 2));
  EXPECT_EQ(this->heard().get(SYS_TO, {}), Ids{});
}

TYPED_TEST(BothBuses, AReplyComesUnderTheNumberOfItsRequest) {
  auto asker = this->other();
  asker.send(request(kPath, CMD_GET, 5, {7}));
  message reply = replyTo(this->heard());
  reply.merge(numbered(3));
  this->say(reply);
  const message got = asker.reply(5);
  EXPECT_EQ(got.get(kNumber, 0), 3u);
  EXPECT_EQ(got.get(SYS_TO, {}), Ids{7});
}

TYPED_TEST(BothBuses, AnErrorIsAReply) {
  auto asker = this->other();
  asker.send(request(kPath, CMD_GET, 5));
  message reply = replyTo(this->heard());
  reply.merge(errorMsg(ERROR_BUSY, "later"));
  this->say(reply);
  EXPECT_EQ(getError(asker.reply(5)), "later (12)");
}

TYPED_TEST(BothBuses, RequestsKeepTheirOrder) {
  auto asker = this->other();
  for (unsigned int number = 1; number <= 50; ++number) asker.send(request(kPath, CMD_GET, number));
  for (unsigned int number = 1; number <= 50; ++number) ASSERT_EQ(this->heard().get(SYS_REQID, 0), number);
}

TYPED_TEST(BothBuses, AServiceThatIsNotThereIsABrokenPath) {
  this->say(request({99, 1}, CMD_GET, 6));
  const message reply = this->heard();
  EXPECT_EQ(reply.get(SYS_REQID, 0), 6u);
  EXPECT_EQ(errorOf(reply), ERROR_BRKPATH);
}

TYPED_TEST(BothBuses, AMessageThatReachesNobodyIsANotice) {
  auto sender = this->other();
  sender.send(notification({99, 0}));
  const message notice = sender.notice();
  EXPECT_EQ(errorOf(notice), ERROR_BRKPATH);
  EXPECT_FALSE(notice.has(SYS_REQID));
}

TYPED_TEST(BothBuses, WhoEndsBeforeItAnswersIsABrokenPath) {
  auto service = this->other();
  this->say(request({service.id()}, CMD_GET, 6));
  EXPECT_EQ(service.asked().get(SYS_REQID, 0), 6u);
  service.end();
  const message first = this->heard(), second = this->heard();
  EXPECT_EQ(first.get(SYS_REQID, 0), 6u);
  EXPECT_EQ(errorOf(first), ERROR_BRKPATH);
  EXPECT_EQ(second.get(SYS_CMD, 0), CMD_DISCONNECTED);
  EXPECT_EQ(second.get(SYS_FROM, {}), Ids{service.id()});
}

TYPED_TEST(BothBuses, StrangersHearOfNoEnd) {
  auto stranger = this->other();
  auto asker = this->other();
  stranger.end();
  this->expectNothingBefore(asker);
}

TYPED_TEST(BothBuses, ANotificationReachesWhoSubscribed) {
  auto subscriber = this->other();
  message m = notification(kPath, {3});
  m.insert(SYS_CMD, CMD_SUBSCRIBE);
  m.insert(SYS_NOTIFYCMD, CMD_NOTIFY);
  subscriber.send(m);
  const message subscription = this->heard();
  EXPECT_EQ(subscription.get(SYS_CMD, 0), CMD_SUBSCRIBE);
  EXPECT_EQ(subscription.get(SYS_FROM, {}), (Ids{subscriber.id(), 3}));

  message gone;
  gone.insert(STD_ID, 4);
  gone.insert(STD_DEAD, 1);
  message news = notification({subscriber.id(), 3});
  news.insert(STD_OBJS, {gone.flattened()});
  this->say(news);
  const message notified = subscriber.notified();
  EXPECT_EQ(notified.get(SYS_FROM, {}), Ids{kService});
  const auto objects = notified.get(STD_OBJS, {});
  ASSERT_EQ(objects.size(), 1u);
  EXPECT_EQ(message(objects[0]), gone);
}

TYPED_TEST(BothBuses, ASubscriberThatEndsIsAnnounced) {
  auto subscriber = this->other();
  message m = notification(kPath);
  m.insert(SYS_CMD, CMD_SUBSCRIBE);
  m.insert(SYS_NOTIFYCMD, CMD_NOTIFY);
  subscriber.send(m);
  EXPECT_EQ(this->heard().get(SYS_CMD, 0), CMD_SUBSCRIBE);
  subscriber.end();
  const message notice = this->heard();
  EXPECT_EQ(notice.get(SYS_CMD, 0), CMD_DISCONNECTED);
  EXPECT_EQ(notice.get(SYS_FROM, {}), Ids{subscriber.id()});
}

TYPED_TEST(BothBuses, AReplyThatNobodyAskedForIsNotDelivered) {
  auto stranger = this->other();
  stranger.send(replyTo({kService}, 1));
  this->expectNothingBefore(stranger);
}

TYPED_TEST(BothBuses, ASecondReplyIsNotDelivered) {
  auto service = this->other();
  this->say(request({service.id()}, CMD_GET, 6));
  const message asked = service.asked();
  message reply = replyTo(asked);
  reply.merge(numbered(1));
  service.send(reply);
  service.send(reply);
  EXPECT_EQ(this->heard().get(kNumber, 0), 1u);
  this->expectNothingBefore(service);
}

// Those of root pass as they are; those of others are the loader's word, on the bus of the kit Peer::setUser().
TYPED_TEST(BothBuses, RightsTravelWithARequest) {
  if (::geteuid() != 0) GTEST_SKIP() << "the real loader sets the rights of an ordinary user";
  auto asker = this->other();
  message m = request(kPath, CMD_GET, 5);
  m.insert(SYS_USER, "somebody");
  m.insert(SYS_POLICY, 128);
  asker.send(m);
  const message asked = this->heard();
  EXPECT_EQ(asked.get(SYS_USER, ""), "somebody");
  EXPECT_EQ(asked.get(SYS_POLICY, 0), 128u);
}

TYPED_TEST(BothBuses, ControlsOfTheServiceAreTheLoadersAlone) {
  auto witness = this->other();
  message running;
  running.insert(SYS_TO, {SERVICE_LOADER});
  running.insert(SYS_CTRL, CTRL_RUNNING);
  this->say(running);
  this->expectNothingBefore(witness);
}

}  // namespace
}  // namespace kl::test

// Changes of a table on their way from one process through the loader to others.

#include <memory>

#include "tests/scenarios/fixture.h"

namespace scenarios {
namespace {

// A process that subscribes and hears.
class Subscriber {
 public:
  explicit Subscriber(unsigned int service, unsigned int handler = 7) : service_(service), handler_(handler) {
    EXPECT_TRUE(peer_.connect(kPatienceMs));
    EXPECT_EQ(peer_.registerAs(service), service);
  }

  void subscribe(const kl::message& extra = {}) { send(kl::CMD_SUBSCRIBE, extra, path()); }
  void subscribeFrom(const Ids& from) { send(kl::CMD_SUBSCRIBE, {}, from); }
  void unsubscribe(const kl::message& extra = {}) { send(kl::CMD_UNSUBSCRIBE, extra, path()); }

  // Changes the object, and waits for nothing.
  void set(unsigned int id, kl::message m = {}) {
    m.insert(kl::STD_ID, id);
    send(kl::CMD_SETOBJ, m, path());
  }
  void hold(unsigned int id) {
    kl::message m;
    m.insert(table::HOLD, true);
    set(id, m);
  }

  // The next thing that it hears.
  kl::message hear() {
    const auto m = peer_.receive(kPatienceMs);
    EXPECT_TRUE(m);
    return m.value_or(kl::message());
  }
  Ids hearIds() { return idsOf(hear()); }

  void leave() { peer_.close(); }
  void meet(Subscriber& other) { EXPECT_TRUE(peer_.meet(other.service_, other.peer_)); }

 private:
  Ids path() const { return {handler_}; }
  void send(unsigned int command, kl::message m, const Ids& from) {
    m.insert(kl::SYS_TO, kTable);
    if (!from.empty()) m.insert(kl::SYS_FROM, from);
    m.insert(kl::SYS_CMD, command);
    EXPECT_TRUE(peer_.send(m));
  }

  unsigned int service_;
  unsigned int handler_;
  RawPeer peer_;
};

class SubscriptionScenario : public testing::Test {
 protected:
  LoaderProcess loader_{tableService()};
  Driver driver_;
  Subscriber a_{500};
  Subscriber b_{501};

  kl::message ask(unsigned int command, const kl::message& m = {}) { return driver_.ask(kTable, command, m); }
  unsigned int records() { return ask(kl::CMD_GETCOUNT).get(table::SUBSCRIPTIONS, 0); }
  // Until the service has taken so many subscriptions: frames of several senders have no order.
  void awaitRecords(unsigned int count) {
    while (records() != count) {
    }
  }

  void awaitHeld(unsigned int count) {
    while (ask(kl::CMD_GETCOUNT).get(table::HELD, 0) != count) {
    }
  }

  void subscribeBoth() {
    a_.subscribe();
    b_.subscribe();
    awaitRecords(2);
  }

  void change(unsigned int first, unsigned int count) {
    kl::message m;
    m.insert(table::FIRST, first);
    m.insert(table::COUNT, count);
    (void)ask(kl::CMD_SET, m);
  }

  void put(unsigned int id, kl::message m = {}) {
    m.insert(kl::STD_ID, id);
    (void)ask(kl::CMD_SETOBJ, m);
  }
  // The objects change together, and the driver did it.
  void putTogether(const std::vector<kl::message>& objects) {
    for (std::size_t i = 0; i < objects.size(); ++i) {
      kl::message m = objects[i];
      if (i + 1 < objects.size()) m.insert(table::HOLD, true);
      (void)ask(kl::CMD_SETOBJ, m);
    }
  }

  static kl::message object(unsigned int id, unsigned int next = 0) {
    kl::message m;
    m.insert(kl::STD_ID, id);
    if (next != 0) m.insert(kl::STD_NEXTID, next);
    return m;
  }

  // An object whose flattened form has exactly so many bytes.
  static kl::message sized(unsigned int id, std::size_t bytes) {
    kl::message m = object(id);
    std::vector<unsigned char> flat;
    std::size_t payload = bytes;
    do {
      m.insert(table::PAYLOAD, std::vector<unsigned char>(payload--, 7));
      m.flatten(flat);
    } while (flat.size() > bytes);
    EXPECT_EQ(flat.size(), bytes);
    return m;
  }
};

}  // namespace

TEST_F(SubscriptionScenario, ANotificationSaysWhoCausedItAndOnlyHeIsNotTold) {
  subscribeBoth();
  a_.set(1);
  const kl::message heard = b_.hear();
  EXPECT_EQ(heard.get(kl::SYS_CMD, 0), kl::CMD_NOTIFY);
  EXPECT_EQ(heard.get(kl::SYS_TO, {}), Ids{7});
  EXPECT_EQ(heard.get(kl::SYS_FROM, {}), kTable);
  EXPECT_EQ(heard.get(kl::SYS_NOTIFYPATH, {}), (Ids{500, 7}));
  EXPECT_FALSE(kl::getRequestID(heard));
  EXPECT_FALSE(kl::isReplyExpected(heard));
  EXPECT_EQ(idsOf(heard), Ids{1});
  b_.set(2);
  EXPECT_EQ(a_.hearIds(), Ids{2}) << "the first that a hears: of its own change it was not told";
  put(3);
  EXPECT_EQ(b_.hearIds(), Ids{3}) << "nor b of its own";
}

TEST_F(SubscriptionScenario, AnotherHandlerOfTheOriginatorsProcessIsTold) {
  a_.subscribeFrom({7});
  a_.subscribeFrom({8});
  awaitRecords(2);
  a_.set(1);
  const kl::message heard = a_.hear();
  EXPECT_EQ(heard.get(kl::SYS_TO, {}), Ids{8});
  EXPECT_EQ(idsOf(heard), Ids{1});
}

TEST_F(SubscriptionScenario, ABatchOfTwoOriginatorsIsToldToBoth) {
  subscribeBoth();
  a_.hold(1);
  awaitHeld(1);
  b_.set(2);
  const kl::message heard = a_.hear();
  EXPECT_EQ(idsOf(heard), (Ids{1, 2}));
  EXPECT_FALSE(heard.has(kl::SYS_NOTIFYPATH));
  EXPECT_EQ(b_.hearIds(), (Ids{1, 2}));
}

TEST_F(SubscriptionScenario, TwoChangesOfOneObjectAreOneObject) {
  subscribeBoth();
  putTogether({object(4), object(9), object(4), object(4)});
  EXPECT_EQ(a_.hearIds(), (Ids{4, 9}));
}

TEST_F(SubscriptionScenario, ABatchLeavesTheServiceOnceForAllItsSubscribers) {
  Subscriber c(502, 12);
  subscribeBoth();
  c.subscribe();
  awaitRecords(3);
  const auto before = driver_.row(table::kService).get(kl::SVC_MESSAGES_OUT, 0);
  put(1);
  EXPECT_EQ(a_.hear().get(kl::SYS_TO, {}), Ids{7});
  EXPECT_EQ(b_.hear().get(kl::SYS_TO, {}), Ids{7});
  EXPECT_EQ(c.hear().get(kl::SYS_TO, {}), Ids{12});
  EXPECT_EQ(driver_.row(table::kService).get(kl::SVC_MESSAGES_OUT, 0), before + 2)
      << "and the reply to the driver";
}

TEST_F(SubscriptionScenario, WhoAsksForACommandOfItsOwnGetsOnlyThat) {
  kl::message own;
  own.insert(kl::SYS_NOTIFYCMD, table::NOTIFY_OWN);
  a_.subscribe(own);
  b_.subscribe();
  awaitRecords(2);
  put(1);
  EXPECT_EQ(b_.hearIds(), Ids{1});
  (void)ask(table::NOTIFY_OWN);
  EXPECT_EQ(a_.hear().get(kl::SYS_CMD, 0), table::NOTIFY_OWN) << "the first that it hears";
  put(2);
  EXPECT_EQ(b_.hearIds(), Ids{2}) << "the next that b hears";
}

TEST_F(SubscriptionScenario, ASecondEqualSubscriptionIsNone) {
  a_.subscribe();
  a_.subscribe();
  b_.subscribe();
  awaitRecords(2);
  put(1);
  EXPECT_EQ(a_.hearIds(), Ids{1});
  EXPECT_EQ(b_.hearIds(), Ids{1});
  put(2);
  EXPECT_EQ(a_.hearIds(), Ids{2});
}

TEST_F(SubscriptionScenario, AnEndIsAskedForWithTheSameFields) {
  kl::message extra;
  extra.insert(table::VALUE, 5);
  a_.subscribe(extra);
  b_.subscribe();
  awaitRecords(2);
  a_.unsubscribe();
  a_.hold(9);
  awaitHeld(1);
  EXPECT_EQ(records(), 2u);
  a_.unsubscribe(extra);
  awaitRecords(1);
  put(1);
  EXPECT_EQ(b_.hearIds(), (Ids{1, 9}));
}

TEST_F(SubscriptionScenario, TheEndOfAProcessEndsItsSubscriptionsAndNoOthers) {
  Subscriber c(5000);
  a_.meet(b_);
  a_.meet(c);
  a_.subscribeFrom({4});
  a_.subscribeFrom({});
  b_.subscribeFrom({500, 4});
  c.subscribe();
  awaitRecords(4);
  a_.leave();
  awaitRecords(2);
  put(1);
  EXPECT_EQ(b_.hear().get(kl::SYS_CMD, 0), kl::CMD_DISCONNECTED);
  EXPECT_EQ(b_.hear().get(kl::SYS_TO, {}), (Ids{500, 4}));
  EXPECT_EQ(c.hear().get(kl::SYS_CMD, 0), kl::CMD_DISCONNECTED);
  EXPECT_EQ(c.hearIds(), Ids{1});
}

TEST_F(SubscriptionScenario, ObjectsComeBehindTheirSuccessors) {
  subscribeBoth();
  putTogether({object(1, 2), object(2, 3), object(3), object(5, 6)});
  EXPECT_EQ(a_.hearIds(), (Ids{3, 2, 1, 5}));
}

TEST_F(SubscriptionScenario, RemovedObjectsDoNotDecideWhetherThereIsAnOrder) {
  put(1);
  subscribeBoth();
  kl::message dead = object(1);
  dead.insert(kl::STD_DEAD, 1);
  putTogether({dead, object(2, 3), object(3)});
  EXPECT_EQ(a_.hearIds(), (Ids{1, 3, 2}));
  putTogether({dead, object(2), object(3, 4), object(4)});
  EXPECT_EQ(a_.hearIds(), (Ids{1, 2, 3, 4})) << "the first that is alive has no successor";
}

TEST_F(SubscriptionScenario, ARemovedObjectIsToldAsDead) {
  put(1);
  subscribeBoth();
  (void)ask(kl::CMD_REMOVEOBJ, object(1));
  const kl::message heard = a_.hear();
  EXPECT_EQ(idsOf(heard), Ids{1});
  EXPECT_TRUE(kl::message(heard.get(kl::STD_OBJS, {}).at(0)).has(kl::STD_DEAD));
}

TEST_F(SubscriptionScenario, TheHundredthObjectEndsTheWait) {
  subscribeBoth();
  change(1, 250);
  EXPECT_EQ(a_.hearIds().size(), 100u);
  EXPECT_EQ(a_.hearIds().size(), 100u);
  EXPECT_EQ(a_.hearIds().size(), 50u);
  change(1, 100);
  EXPECT_EQ(a_.hearIds().size(), 100u);
  change(7, 1);
  EXPECT_EQ(a_.hearIds(), Ids{7}) << "and no timer was left behind";
}

TEST_F(SubscriptionScenario, ANotificationHolds16383BytesOfObjects) {
  subscribeBoth();
  putTogether({sized(1, 8000), sized(2, 8383)});
  EXPECT_EQ(a_.hearIds(), (Ids{1, 2}));
  putTogether({sized(1, 8000), sized(2, 8384)});
  EXPECT_EQ(a_.hearIds(), Ids{1});
  EXPECT_EQ(a_.hearIds(), Ids{2});
  putTogether({object(1), sized(2, 40000), object(3)});
  EXPECT_EQ(a_.hearIds(), Ids{1});
  EXPECT_EQ(a_.hearIds(), Ids{2}) << "however large, it travels, alone";
  EXPECT_EQ(a_.hearIds(), Ids{3});
}

TEST_F(SubscriptionScenario, AServiceMayTellObjectsOfItsOwnMaking) {
  subscribeBoth();
  kl::message m;
  std::vector<kl::message::flat_message> objects;
  for (unsigned int id = 1; id <= 3; ++id) sized(id, 6000).flatten(objects.emplace_back());
  m.insert(kl::STD_OBJS, objects);
  EXPECT_EQ(ask(table::SEND_OBJECTS, m).get(kl::STD_GETALLNO, 0), 2u);
  const kl::message heard = a_.hear();
  EXPECT_EQ(idsOf(heard), (Ids{1, 2}));
  EXPECT_FALSE(heard.has(kl::SYS_NOTIFYPATH));
}

}  // namespace scenarios

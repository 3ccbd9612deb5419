// Subscriptions: who is told of which changes, when, and in which order.

#include <gtest/gtest.h>

#include <csignal>
#include <map>
#include <string>
#include <vector>

#include "kl/looper.h"
#include "tests/lib/looper/fixture.h"
#include "tests/support/calls/scripted_calls.h"
#include "tests/support/process/child.h"

namespace kl {
namespace {

using test::Connected;
using test::Ids;
using test::requestTo;

constexpr unsigned int kBatchTicks = 20;
constexpr unsigned int kOtherCommand = 0x60001;

// A table whose objects are what the test puts there, or carry just their id.
class Table : public Handler {
 public:
  message getObject(unsigned int id) override {
    if (const auto found = objects.find(id); found != objects.end()) return found->second;
    message object;
    object.insert(STD_ID, id);
    return object;
  }
  void subscribed(const message& record) override { added.push_back(record); }
  void unsubscribed(const message& record) override { removed.push_back(record); }
  void notifiesSent() override { ++batches; }

  void put(unsigned int id, unsigned int successor) {
    objects[id].insert(STD_ID, id);
    objects[id].insert(STD_NEXTID, successor);
  }

  std::map<unsigned int, message> objects;
  std::vector<message> added, removed;
  int batches = 0;
};

message subscriber(const Ids& path) {
  message m = requestTo({}, CMD_SUBSCRIBE);
  m.insert(SYS_FROM, path);
  return m;
}

Ids idsOf(const message& notification) {
  Ids ids;
  for (const auto& object : notification.get(STD_OBJS, {})) ids.push_back(message(object).get(STD_ID, BADID));
  return ids;
}

struct Subscriptions : ::testing::Test {
  Subscriptions() { net.looper->addHandler(7, &table); }
  ~Subscriptions() override { net.looper->removeHandler(7); }

  void after(unsigned int ticks) {
    clock.advance(ticks);
    net.looper->runTimers();
  }
  Ids pathsOfRecords() const {
    Ids first;
    for (const message& record : table.getSubscriptions()) first.push_back(record.get(SYS_FROM, {}).front());
    return first;
  }

  test::ScriptedClock clock{1000};
  Connected net;
  Table table;
};

TEST_F(Subscriptions, TwoChangesOfOneObjectAreOneObjectInOneNotificationAfterTwentyTicks) {
  table.cmdSubscribe(subscriber({9}));
  table.notifyChange(3);
  after(kBatchTicks - 1);
  table.notifyChange(3);
  EXPECT_TRUE(net.loader.isSilent());
  after(1);
  message object;
  object.insert(STD_ID, 3);
  message::flat_message flat;
  object.flatten(flat);
  message expected;
  expected.insert(SYS_TO, {9});
  expected.insert(SYS_FROM, {7});
  expected.insert(SYS_CMD, CMD_NOTIFY);
  expected.insert(STD_OBJS, {flat});
  EXPECT_EQ(net.loader.receive(), expected);
  EXPECT_TRUE(net.loader.isSilent());
  EXPECT_EQ(table.batches, 1);
}

TEST_F(Subscriptions, TheHundredthObjectSendsTheBatchAtOnceAndNothingFiresAfterwards) {
  table.cmdSubscribe(subscriber({9}));
  for (unsigned int id = 0; id < 99; ++id) table.notifyChange(id);
  EXPECT_TRUE(net.loader.isSilent());
  table.notifyChange(99);
  EXPECT_EQ(idsOf(net.loader.receive()).size(), 100u);
  after(10 * kBatchTicks);
  EXPECT_TRUE(net.loader.isSilent());
  EXPECT_EQ(table.batches, 1);
}

TEST_F(Subscriptions, WhoeverCausedTheChangesAloneIsNotTold) {
  table.cmdSubscribe(subscriber({9}));
  table.cmdSubscribe(subscriber({10}));
  table.notifyChange(3, subscriber({9}));
  after(kBatchTicks);
  const message m = net.loader.receive();
  EXPECT_EQ(m.get(SYS_TO, {}), Ids{10});
  EXPECT_EQ(m.get(SYS_NOTIFYPATH, {}), Ids{9});
}

TEST_F(Subscriptions, ABatchOfTwoOriginatorsIsSentToBoth) {
  table.cmdSubscribe(subscriber({9}));
  table.cmdSubscribe(subscriber({10}));
  table.notifyChange(3, Ids{9});
  table.notifyChange(4, Ids{10});
  after(kBatchTicks);
  const message m = net.loader.receive();
  EXPECT_EQ(m.get(SYS_TO, {}), (Ids{PATH_MULTI, 1, 9, 1, 10}));
  EXPECT_FALSE(m.has(SYS_NOTIFYPATH));
}

TEST_F(Subscriptions, ThreeSubscribersGetOneMessageOnAListOfPaths) {
  table.cmdSubscribe(subscriber({9, 4}));
  table.cmdSubscribe(subscriber({10}));
  table.cmdSubscribe(subscriber({11, 1, 2}));
  table.notifyChange(3);
  table.sendChanges();
  EXPECT_EQ(net.loader.receive().get(SYS_TO, {}), (Ids{PATH_MULTI, 2, 9, 4, 1, 10, 3, 11, 1, 2}));
  EXPECT_TRUE(net.loader.isSilent());
}

TEST_F(Subscriptions, ASubscriberWithACommandOfItsOwnHearsOnlyThat) {
  message request = subscriber({9});
  request.insert(SYS_NOTIFYCMD, kOtherCommand);
  table.cmdSubscribe(request);
  table.notifyChange(3);
  after(kBatchTicks);
  EXPECT_TRUE(net.loader.isSilent());
  message m;
  m.insert(SYS_CMD, kOtherCommand);
  table.sendNotify(m);
  EXPECT_EQ(net.loader.receive().get(SYS_CMD, 0), kOtherCommand);
}

TEST_F(Subscriptions, APeerThatIsGoneTakesWhatBeginsWithItsPath) {
  for (const Ids& path : {Ids{9, 4}, Ids{19}, Ids{9}, Ids{4, 9}}) table.cmdSubscribe(subscriber(path));
  message m;
  table.cmdDisconnected(m);
  EXPECT_EQ(table.getSubscriptions().size(), 4u);
  m.insert(SYS_FROM, {9});
  table.cmdDisconnected(m);
  EXPECT_EQ(pathsOfRecords(), (Ids{19, 4}));
  EXPECT_EQ(table.removed.size(), 2u);
}

TEST_F(Subscriptions, ASecondEqualSubscriptionAddsNothing) {
  table.cmdSubscribe(subscriber({9}));
  message again = subscriber({9});
  again.insert(SYS_REQID, 77);
  table.cmdSubscribe(again);
  EXPECT_EQ(table.getSubscriptions().size(), 1u);
  EXPECT_EQ(table.added.size(), 1u);
  EXPECT_TRUE(net.loader.isSilent());
}

TEST_F(Subscriptions, ARecordKeepsPathCommandAndFilterOnly) {
  message request = subscriber({9});
  request.insert(SYS_NOTIFYCMD, kOtherCommand);
  request.insert(STD_DESCR, "filter");
  table.cmdSubscribe(request);
  message expected;
  expected.insert(SYS_FROM, {9});
  expected.insert(SYS_NOTIFYCMD, kOtherCommand);
  expected.insert(STD_DESCR, "filter");
  EXPECT_EQ(table.getSubscriptions(), std::vector<message>{expected});
  table.cmdUnsubscribe(subscriber({9}));
  EXPECT_EQ(table.getSubscriptions().size(), 1u);
  table.cmdUnsubscribe(request);
  EXPECT_TRUE(table.getSubscriptions().empty());
  EXPECT_EQ(table.removed, std::vector<message>{expected});
}

TEST_F(Subscriptions, EachObjectComesBehindItsSuccessor) {
  table.cmdSubscribe(subscriber({9}));
  table.put(1, 2);
  table.put(2, 3);
  table.put(3, BADID);
  for (const unsigned int id : {1u, 2u, 3u}) table.notifyChange(id);
  after(kBatchTicks);
  EXPECT_EQ(idsOf(net.loader.receive()), (Ids{3, 2, 1}));
}

TEST_F(Subscriptions, ObjectsThatAreAllDeadKeepTheOrderOfTheirIds) {
  table.cmdSubscribe(subscriber({9}));
  for (const unsigned int id : {2u, 1u}) {
    table.objects[id].insert(STD_ID, id);
    table.objects[id].insert(STD_DEAD, 1);
    table.notifyChange(id);
  }
  after(kBatchTicks);
  EXPECT_EQ(idsOf(net.loader.receive()), (Ids{1, 2}));
}

// One alive and without a successor decides, whatever comes behind it.
TEST_F(Subscriptions, TheFirstObjectThatIsAliveDecidesWhetherTheyAreOrdered) {
  table.cmdSubscribe(subscriber({9}));
  table.objects[1].insert(STD_ID, 1);
  table.objects[1].insert(STD_DEAD, 1);
  table.objects[2].insert(STD_ID, 2);
  table.put(3, 4);
  table.put(4, BADID);
  for (const unsigned int id : {1u, 2u, 3u, 4u}) table.notifyChange(id);
  after(kBatchTicks);
  EXPECT_EQ(idsOf(net.loader.receive()), (Ids{1, 2, 3, 4}));
}

TEST_F(Subscriptions, ObjectsThatTheOrderDoesNotPlaceAreNotSent) {
  table.cmdSubscribe(subscriber({9}));
  table.put(1, 3);
  table.put(2, 3);  // the second in front of 3
  table.put(3, BADID);
  table.put(4, 5);  // a ring
  table.put(5, 4);
  for (const unsigned int id : {1u, 2u, 3u, 4u, 5u}) table.notifyChange(id);
  after(kBatchTicks);
  EXPECT_EQ(idsOf(net.loader.receive()), (Ids{3, 1}));
  EXPECT_TRUE(net.loader.isSilent());
}

TEST_F(Subscriptions, ANotificationHoldsObjectsUpToItsLimitAndAlwaysOne) {
  table.cmdSubscribe(subscriber({9}));
  for (const auto& [id, size] : std::map<unsigned int, std::size_t>{{1, 20000}, {2, 9000}, {3, 9000}}) {
    table.objects[id].insert(STD_ID, id);
    table.objects[id].insert(STD_DESCR, std::string(size, 'x'));
  }
  for (const unsigned int id : {1u, 2u, 3u, 4u}) table.notifyChange(id);
  after(kBatchTicks);
  EXPECT_EQ(idsOf(net.loader.receive()), Ids{1});
  EXPECT_EQ(idsOf(net.loader.receive()), Ids{2});
  EXPECT_EQ(idsOf(net.loader.receive()), (Ids{3, 4}));
  EXPECT_EQ(table.batches, 1);
}

TEST_F(Subscriptions, SendNotifiesSendsOneNotificationAndSaysWhereTheNextBegins) {
  table.cmdSubscribe(subscriber({9}));
  std::vector<message> objects(3);
  for (unsigned int i = 0; i < 3; ++i) {
    objects[i].insert(STD_ID, i + 1);
    objects[i].insert(STD_DESCR, std::string(6000, 'x'));
  }
  const message* const last = objects.data() + objects.size();
  const message* const next = table.sendNotifies(objects.data(), last);
  EXPECT_EQ(next, objects.data() + 2);
  EXPECT_EQ(idsOf(net.loader.receive()), (Ids{1, 2}));
  EXPECT_TRUE(net.loader.isSilent());
  EXPECT_EQ(table.sendNotifies(next, last), last);
  EXPECT_EQ(idsOf(net.loader.receive()), Ids{3});
}

TEST_F(Subscriptions, SendNotifiesSparesWhoeverCausedTheChangesThatWait) {
  table.cmdSubscribe(subscriber({9}));
  table.cmdSubscribe(subscriber({10}));
  table.notifyChange(3, Ids{9});
  const message object = table.getObject(3);
  table.sendNotifies(&object, &object + 1);
  const message notification = net.loader.receive();
  EXPECT_EQ(notification.get(SYS_TO, {}), Ids{10});
  EXPECT_EQ(notification.get(SYS_NOTIFYPATH, {}), Ids{9});
}

// BADID stands for no object in particular, so what is sent for it may be empty.
TEST_F(Subscriptions, AHandlerThatOverridesNothingSendsAnEmptyObjectForNoneInParticular) {
  Handler plain;
  net.looper->addHandler(8, &plain);
  plain.cmdSubscribe(subscriber({9}));
  plain.notifyChange(BADID);
  plain.sendChanges();
  const message notification = net.loader.receive();
  EXPECT_EQ(notification.get(SYS_FROM, {}), Ids{8});
  EXPECT_EQ(idsOf(notification), Ids{BADID});
  plain.cmdUnsubscribe(subscriber({9}));
  plain.notifyChange(BADID);
  after(kBatchTicks);
  EXPECT_TRUE(net.loader.isSilent());
  net.looper->removeHandler(8);
}

TEST_F(Subscriptions, WithoutSubscribersNothingIsGathered) {
  table.notifyChange(3);
  table.cmdSubscribe(subscriber({9}));
  after(kBatchTicks);
  EXPECT_EQ(table.batches, 0);
  EXPECT_TRUE(net.loader.isSilent());
}

TEST_F(Subscriptions, ARecordWithoutAPathIsKeptAndNobodyIsTold) {
  message m;
  m.insert(SYS_CMD, CMD_SUBSCRIBE);
  table.cmdSubscribe(m);
  ASSERT_EQ(table.getSubscriptions().size(), 1u);
  EXPECT_EQ(table.getSubscriptions()[0], message());
  table.notifyChange(3, Ids{9});
  after(kBatchTicks);
  EXPECT_EQ(table.batches, 1);
  EXPECT_TRUE(net.loader.isSilent());
}

TEST_F(Subscriptions, SubscribeAndUnsubscribeAskWithoutExpectingAReply) {
  message extra;
  extra.insert(STD_DESCR, "filter");
  table.subscribe({24, 0}, kOtherCommand, extra);
  message expected(extra);
  expected.insert(SYS_TO, {24, 0});
  expected.insert(SYS_FROM, {7});
  expected.insert(SYS_CMD, CMD_SUBSCRIBE);
  expected.insert(SYS_NOTIFYCMD, kOtherCommand);
  EXPECT_EQ(net.loader.receive(), expected);
  table.unsubscribe({24, 0}, kOtherCommand, extra);
  expected.insert(SYS_CMD, CMD_UNSUBSCRIBE);
  EXPECT_EQ(net.loader.receive(), expected);
}

TEST_F(Subscriptions, AnObjectWithAnotherIdEndsTheProcess) {
  table.cmdSubscribe(subscriber({9}));
  table.objects[3].insert(STD_ID, 4);
  table.notifyChange(3);
  const test::ChildResult result = test::runInChild([this] {
    (void)std::signal(SIGABRT, SIG_DFL);
    table.sendChanges();
  });
  EXPECT_EQ(result.err,
            "looper.cpp:582: assertion failed: id == kl::BADID || obj.get(STD_ID, kl::BADID) == id\n");
  EXPECT_EQ(result.signal, SIGABRT);
}

TEST_F(Subscriptions, ANotificationWithoutCommandEndsTheProcess) {
  const test::ChildResult result = test::runInChild([this] {
    (void)std::signal(SIGABRT, SIG_DFL);
    message m;
    table.sendNotify(m);
  });
  EXPECT_EQ(result.err, "looper.cpp:502: assertion failed: m.has(kl::SYS_CMD)\n");
  EXPECT_EQ(result.signal, SIGABRT);
}

}  // namespace
}  // namespace kl

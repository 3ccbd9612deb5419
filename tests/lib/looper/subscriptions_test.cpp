// Subscriptions: who is told of which changes, when, and in which order.

#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <ctime>
#include <limits>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "kl/looper.h"
#include "tests/lib/looper/fixture.h"
#include "tests/support/calls/scripted_calls.h"
#include "tests/support/hex.h"
#include "tests/support/process/child.h"

namespace kl {
namespace {

using test::Connected;
using test::hex;
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

// --- Many subscriptions ------------------------------------------------------------------------------------------

TEST_F(Subscriptions, ManyAreToldInTheOrderInWhichTheyCame) {
  Ids expected{PATH_MULTI};
  for (unsigned int i = 0; i < 200; ++i) table.cmdSubscribe(subscriber({9, i}));
  for (unsigned int i = 0; i < 200; i += 3) table.cmdUnsubscribe(subscriber({9, i}));
  for (unsigned int i = 0; i < 200; i += 2) table.cmdSubscribe(subscriber({9, i}));
  for (unsigned int i = 0; i < 200; ++i)
    if (i % 3 != 0) expected.insert(expected.end(), {2, 9, i});
  for (unsigned int i = 0; i < 200; i += 6) expected.insert(expected.end(), {2, 9, i});
  table.notifyChange(3);
  table.sendChanges();
  EXPECT_EQ(net.loader.receive().get(SYS_TO, {}), expected);
  EXPECT_EQ(table.added.size(), 200u + 34);
  EXPECT_EQ(table.removed.size(), 67u);
}

TEST_F(Subscriptions, OfManyOnesAPeerTakesItsOwnInOrder) {
  for (unsigned int i = 0; i < 100; ++i) table.cmdSubscribe(subscriber({i % 3, i}));
  message gone;
  gone.insert(SYS_FROM, {1});
  table.cmdDisconnected(gone);
  ASSERT_EQ(table.removed.size(), 33u);
  for (unsigned int i = 0; i < 33; ++i) EXPECT_EQ(table.removed[i].get(SYS_FROM, {}), (Ids{1, 3 * i + 1}));
  EXPECT_EQ(table.getSubscriptions().size(), 67u);
  table.cmdSubscribe(subscriber({0, 0}));
  table.cmdSubscribe(subscriber({1, 1}));
  EXPECT_EQ(table.getSubscriptions().size(), 68u);
}

TEST_F(Subscriptions, ManyComeBackWithThePersistentDataAndAreFound) {
  for (unsigned int i = 0; i < 50; ++i) table.cmdSubscribe(subscriber({9, i}));
  message data;
  table.savePermData(data);
  Table other;
  other.loadPermData(data);
  EXPECT_EQ(other.getSubscriptions(), table.getSubscriptions());
  other.cmdSubscribe(subscriber({9, 20}));
  other.cmdUnsubscribe(subscriber({9, 30}));
  EXPECT_EQ(other.getSubscriptions().size(), 49u);
}

// Ten times as many take ten times as long, and not a hundred times: processor time, the best of several runs.
TEST_F(Subscriptions, ToSubscribeTakesTheSameTimeHoweverManyThereAre) {
  const auto subscribeMany = [](unsigned int count) {
    std::clock_t best = std::numeric_limits<std::clock_t>::max();
    for (int run = 0; run < 3; ++run) {
      Handler handler;
      const std::clock_t start = std::clock();
      for (unsigned int i = 0; i < count; ++i) handler.cmdSubscribe(subscriber({9, i}));
      best = std::min(best, std::clock() - start);
    }
    return best;
  };
  EXPECT_LT(subscribeMany(10000), 40 * subscribeMany(1000));
}

TEST_F(Subscriptions, BeyondTheLimitASubscriberIsDroppedWithoutNotice) {
  EXPECT_EQ(table.getSubscriptionLimit(), BADID);
  table.setSubscriptionLimit(2);
  EXPECT_EQ(table.getSubscriptionLimit(), 2u);
  for (const unsigned int i : {1u, 2u, 3u}) {
    message request = subscriber({i});
    request.insert(SYS_REQID, i);
    table.handle(request);
  }
  EXPECT_EQ(pathsOfRecords(), (Ids{1, 2}));
  EXPECT_EQ(table.added.size(), 2u);
  EXPECT_TRUE(net.loader.isSilent());
  table.cmdSubscribe(subscriber({2}));  // it is there
  table.cmdUnsubscribe(subscriber({1}));
  table.cmdSubscribe(subscriber({3}));
  EXPECT_EQ(pathsOfRecords(), (Ids{2, 3}));
}

TEST_F(Subscriptions, ALimitEndsNothingThatIsThereOrComesBack) {
  for (const unsigned int i : {1u, 2u, 3u}) table.cmdSubscribe(subscriber({i}));
  message data;
  table.savePermData(data);
  table.setSubscriptionLimit(1);
  EXPECT_EQ(pathsOfRecords(), (Ids{1, 2, 3}));
  Table other;
  other.setSubscriptionLimit(1);
  other.loadPermData(data);
  EXPECT_EQ(other.getSubscriptions().size(), 3u);
  other.setSubscriptionLimit(4);
  for (const unsigned int i : {4u, 5u}) other.cmdSubscribe(subscriber({i}));
  EXPECT_EQ(other.getSubscriptions().size(), 4u);
}

// --- Notifications in parts --------------------------------------------------------------------------------------

// Keeps what it sends, as it would arrive, instead of sending it.
class KeepingTable : public Table {
 public:
  void sendMessage(message& m) override {
    sent.push_back(m);
    auto& from = *sent.back().get_u32_array_ref(SYS_FROM);
    from.insert(from.begin(), getHandlerID());
  }
  std::vector<message> sent;
};

Ids longPath(unsigned int n) {
  Ids path(32, 7);
  path[0] = n;
  return path;
}

// The destinations of a path, in order.
std::vector<Ids> destinationsOf(const message& m) {
  const Ids to = m.get(SYS_TO, {});
  if (to.front() != PATH_MULTI) return {to};
  std::vector<Ids> paths;
  for (auto at = to.begin() + 1; at != to.end(); at += *at + 1) paths.emplace_back(at + 1, at + 1 + *at);
  return paths;
}

std::vector<Ids> destinationsOf(const std::vector<message>& parts) {
  std::vector<Ids> all;
  for (const message& part : parts)
    for (const Ids& path : destinationsOf(part)) all.push_back(path);
  return all;
}

struct Parts : ::testing::Test {
  Parts() { net.looper->addHandler(7, &table); }
  ~Parts() override { net.looper->removeHandler(7); }

  void subscribe(const Ids& path) {
    table.cmdSubscribe(subscriber(path));
    expected.push_back(path);
  }
  // A notification whose other fields take so many bytes that it has this length for so many numbers of SYS_TO.
  static message ofLength(std::size_t bytes, std::size_t numbers) {
    message m;
    m.insert(SYS_CMD, CMD_NOTIFY);
    m.insert(SYS_FROM, {7});
    m.insert(SYS_TO, Ids(numbers, 9));
    m.insert(STD_DESCR, std::string(1000, 'x'));
    m.insert(STD_DESCR, std::string(1000 + bytes - test::flat(m).size(), 'x'));
    EXPECT_EQ(test::flat(m).size(), bytes);
    m.remove(SYS_FROM);
    m.remove(SYS_TO);
    return m;
  }

  Connected net;
  KeepingTable table;
  std::vector<Ids> expected;
};

TEST_F(Parts, ANotificationForManyWithLongPathsReachesEachOnceAndInOrder) {
  for (unsigned int i = 0; i < 1500; ++i) subscribe(longPath(i));
  table.notifyChange(3);
  table.sendChanges();
  ASSERT_EQ(table.sent.size(), 4u);
  EXPECT_EQ(destinationsOf(table.sent), expected);
  for (const message& part : table.sent) {
    EXPECT_LT(test::flat(part).size(), 65536u);
    EXPECT_EQ(idsOf(part), Ids{3});
    EXPECT_EQ(part.get(SYS_CMD, 0), CMD_NOTIFY);
    EXPECT_EQ(part.get(SYS_FROM, {}), Ids{7});
  }
  for (int i = 0; i < 3; ++i) EXPECT_GT(test::flat(table.sent[static_cast<std::size_t>(i)]).size(), 65400u);
  EXPECT_EQ(table.batches, 1);
}

TEST_F(Parts, ThePartsLeaveForTheLoader) {
  Table plain;
  net.looper->addHandler(8, &plain);
  for (unsigned int i = 0; i < 520; ++i) plain.cmdSubscribe(subscriber(longPath(i)));
  plain.notifyChange(3);
  std::vector<message> parts;
  std::thread reader([&] {
    for (int i = 0; i < 2; ++i) parts.push_back(net.loader.receive());
  });
  plain.sendChanges();
  reader.join();
  EXPECT_EQ(destinationsOf(parts).size(), 520u);
  EXPECT_EQ(destinationsOf(parts).back(), longPath(519));
  EXPECT_TRUE(net.loader.isSilent());
  net.looper->removeHandler(8);
}

// [PATH_MULTI, 2, 9, 0, 2, 9, 1, ...]: ten subscribers, 31 numbers.
TEST_F(Parts, WhatFitsGoesOutOnceByteForByte) {
  for (unsigned int i = 0; i < 10; ++i) subscribe({9, i});
  message m = ofLength(65535, 31);
  message whole(m);
  Ids to{PATH_MULTI};
  for (unsigned int i = 0; i < 10; ++i) to.insert(to.end(), {2, 9, i});
  table.sendNotify(m);
  ASSERT_EQ(table.sent.size(), 1u);
  whole.insert(SYS_TO, to);
  whole.insert(SYS_FROM, {7});
  EXPECT_EQ(hex(test::flat(table.sent[0])), hex(test::flat(whole)));
}

TEST_F(Parts, OneByteMoreTakesTwoParts) {
  for (unsigned int i = 0; i < 10; ++i) subscribe({9, i});
  message m = ofLength(65536, 31);
  table.sendNotify(m);
  ASSERT_EQ(table.sent.size(), 2u);
  EXPECT_EQ(destinationsOf(table.sent[0]).size(), 9u);
  EXPECT_EQ(table.sent[1].get(SYS_TO, {}), (Ids{9, 9}));
  EXPECT_EQ(destinationsOf(table.sent), expected);
}

TEST_F(Parts, ANotificationThatFitsForNobodyGoesOutOnceAndIsLost) {
  for (unsigned int i = 0; i < 10; ++i) subscribe({9, i});
  message m = ofLength(66000, 31);
  table.sendNotify(m);
  EXPECT_EQ(table.sent.size(), 1u);
}

TEST_F(Parts, WhoeverLivesInThisProcessTakesNoRoom) {
  for (unsigned int i = 0; i < 10; ++i) subscribe({9, i});
  for (unsigned int i = 0; i < 10; ++i) subscribe({PATH_SELF, i});
  message m = ofLength(65535, 31);
  table.sendNotify(m);
  ASSERT_EQ(table.sent.size(), 1u);
  EXPECT_EQ(destinationsOf(table.sent), expected);
}

TEST_F(Parts, APathThatNoPartHoldsKeepsNobodyElseFromBeingTold) {
  subscribe({9, 1});
  subscribe(Ids(200, 7));
  subscribe({9, 2});
  message m = ofLength(65500, 20);
  table.sendNotify(m);
  ASSERT_EQ(table.sent.size(), 3u);
  EXPECT_EQ(destinationsOf(table.sent), expected);
  EXPECT_LT(test::flat(table.sent[0]).size(), 65536u);
  EXPECT_LT(test::flat(table.sent[2]).size(), 65536u);
}

TEST_F(Parts, ADestinationOfTheSendersOwnIsInTheFirstPart) {
  for (unsigned int i = 0; i < 10; ++i) subscribe({9, i});
  message m = ofLength(65535, 31);
  m.insert(SYS_TO, {24, 5});
  table.sendNotify(m);
  expected.insert(expected.begin(), {24, 5});
  ASSERT_EQ(table.sent.size(), 2u);
  EXPECT_EQ(destinationsOf(table.sent), expected);
}

// --- A handler that ends in its own operation --------------------------------------------------------------------

enum class End { inGetObject, inShouldNotify, inUnsubscribed, inSubscribed, inSend };

// Destroys itself in one of its operations; what the library does with it afterwards, the address sanitizer sees.
class SelfEnding : public Handler {
 public:
  explicit SelfEnding(End when, bool& ended) : when_(when), ended_(ended) {}
  ~SelfEnding() override { ended_ = true; }

  message getObject(unsigned int id) override {
    endIf(End::inGetObject);
    message object;
    object.insert(STD_ID, id);
    return object;
  }
  bool shouldNotify(const message& record, const message& m) override {
    const bool result = Handler::shouldNotify(record, m);
    endIf(End::inShouldNotify);
    return result;
  }
  void subscribed(const message&) override { endIf(End::inSubscribed); }
  void unsubscribed(const message&) override { endIf(End::inUnsubscribed); }
  void sendMessage(message& m) override {
    Handler::sendMessage(m);
    endIf(End::inSend);
  }
  void notifiesSent() override { ADD_FAILURE() << "it has ended"; }

 private:
  void endIf(End where) {
    if (where == when_) delete this;
  }

  End when_;
  bool& ended_;
};

struct EndingTest : ::testing::Test {
  void make(End when) {
    handler = new SelfEnding(when, ended);
    net.looper->addHandler(8, handler);
  }
  void subscribeTwice() {
    for (const unsigned int i : {1u, 2u}) handler->cmdSubscribe(subscriber({9, i}));
  }

  test::ScriptedClock clock{1000};
  Connected net;
  bool ended = false;
  SelfEnding* handler = nullptr;
};

TEST_F(EndingTest, InGetObjectNothingIsSent) {
  make(End::inGetObject);
  subscribeTwice();
  handler->notifyChange(3);
  handler->notifyChange(4);
  clock.advance(kBatchTicks);
  net.looper->runTimers();
  EXPECT_TRUE(ended);
  EXPECT_FALSE(net.looper->hasHandler(8));
  EXPECT_TRUE(net.loader.isSilent());
}

TEST_F(EndingTest, InGetObjectWhileItsDataAreSavedNothingIsSaved) {
  make(End::inGetObject);
  subscribeTwice();
  handler->notifyChange(3);
  message data;
  net.looper->savePermData(data);
  EXPECT_TRUE(ended);
  EXPECT_EQ(data, message());
}

TEST_F(EndingTest, InShouldNotifyNothingIsSent) {
  make(End::inShouldNotify);
  subscribeTwice();
  handler->notifyChange(3);
  handler->sendChanges();
  EXPECT_TRUE(ended);
  EXPECT_TRUE(net.loader.isSilent());
}

TEST_F(EndingTest, WhileItSendsTheRestIsNotSent) {
  make(End::inSend);
  for (unsigned int i = 0; i < 520; ++i) handler->cmdSubscribe(subscriber(longPath(i)));
  handler->notifyChange(3);
  handler->sendChanges();
  EXPECT_TRUE(ended);
  EXPECT_EQ(net.loader.receive().get(SYS_FROM, {}), Ids{8});
  EXPECT_TRUE(net.loader.isSilent());
}

TEST_F(EndingTest, InUnsubscribedItsOtherSubscriptionsAreGoneWithIt) {
  make(End::inUnsubscribed);
  subscribeTwice();
  handler->cmdUnsubscribe(subscriber({9, 1}));
  EXPECT_TRUE(ended);
  ended = false;
  make(End::inUnsubscribed);
  subscribeTwice();
  message gone;
  gone.insert(SYS_FROM, {9});
  net.looper->cmdDisconnected(gone);
  EXPECT_TRUE(ended);
}

TEST_F(EndingTest, InSubscribedTheOthersAreNotReplayed) {
  Handler other;
  for (const unsigned int i : {1u, 2u}) other.cmdSubscribe(subscriber({9, i}));
  message data;
  other.savePermData(data);
  make(End::inSubscribed);
  handler->loadPermData(data);
  handler->notifySubscriptions();
  EXPECT_TRUE(ended);
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
            "looper.cpp:582: assertion failed: id == kl::BADID || obj.get(STD_ID, kl::BADID) == id\n"
            "handler 7 (kl::(anonymous namespace)::Table): getObject(3) gave an object with STD_ID 4\n");
  EXPECT_EQ(result.signal, SIGABRT);
}

TEST_F(Subscriptions, AnObjectWithoutIdEndsTheProcess) {
  Handler plain;
  net.looper->addHandler(8, &plain);
  plain.cmdSubscribe(subscriber({9}));
  plain.notifyChange(5);
  const test::ChildResult result = test::runInChild([&plain] {
    (void)std::signal(SIGABRT, SIG_DFL);
    plain.sendChanges();
  });
  EXPECT_EQ(result.err,
            "looper.cpp:582: assertion failed: id == kl::BADID || obj.get(STD_ID, kl::BADID) == id\n"
            "handler 8 (kl::Handler): getObject(5) gave an object without STD_ID\n");
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

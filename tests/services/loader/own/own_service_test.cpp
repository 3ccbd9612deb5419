#include "services/loader/own/own_service.h"

#include <gtest/gtest.h>

#include <functional>
#include <utility>

#include "kl/description.h"
#include "kl/rights.h"
#include "loader.kl.h"
#include "services/common/tap.h"

#include "tests/services/loader/fixture.h"
#include "tests/support/page.h"

namespace {

using namespace loader::test;
using loader::Outbox;
using loader::OwnService;
using loader::Service;
using loader::ServiceTable;
using loader::Subscriptions;

class OwnServiceTest : public testing::Test {
 protected:
  void SetUp() override {
    table_.setListener([this](unsigned int id) { own_.onRowChanged(id); });
  }

  // The loader's answer to a request of service 10's handler 7.
  kl::message ask(kl::message m) {
    m.insert(kl::SYS_TO, Ids());
    m.insert(kl::SYS_FROM, Ids{10, 7});
    own_.handle(a_, m);
    return takeOnly(a_);
  }
  kl::message askFor(unsigned int command) { return ask(request({}, command, 5)); }

  void subscribe(unsigned int command = kl::CMD_SUBSCRIBE) {
    kl::message m;
    m.insert(kl::SYS_FROM, Ids{10, 7});
    m.insert(kl::SYS_CMD, command);
    own_.handle(a_, m);
  }

  static Ids idsOf(const kl::message& reply) {
    Ids ids;
    for (const auto& row : reply.get(kl::STD_OBJS, {})) ids.push_back(kl::message(row).get(kl::STD_ID, 0));
    return ids;
  }

  kl::ThinRunner runner_;
  ServiceTable table_;
  Outbox outbox_{1 << 20};
  std::string ordered_;  // what was to be done to which service
  std::function<void()> onOrder_;
  const char* failure_ = nullptr;
  int settled_ = 0;
  Service self_{kl::SERVICE_LOADER};
  Subscriptions subscriptions_;
  OwnService own_{runner_,
                  self_,
                  table_,
                  subscriptions_,
                  outbox_,
                  [this](Service& service, unsigned int action) {
                    if (onOrder_) onOrder_();
                    ordered_ += std::to_string(action) + " " + std::to_string(service.id) + ";";
                    return failure_;
                  },
                  [this] { ++settled_; }};
  Service& a_ = connected(table_, 10);
};

TEST_F(OwnServiceTest, QuestionsAboutRightsNeedSomebodyWhoExplains) {
  for (const unsigned int command : {kl::CMD_EXPLAIN_RIGHTS, kl::CMD_LIST_RIGHTS})
    EXPECT_EQ(errorOf(askFor(command)), kl::ERROR_NOTIMP);
  const loader::Configuration configuration;
  const loader::RightsExplainer explainer(configuration, table_);
  own_.setExplainer(explainer);
  EXPECT_EQ(errorOf(askFor(kl::CMD_EXPLAIN_RIGHTS)), kl::ERROR_MISSING);  // at which destination?
  kl::message question = request({}, kl::CMD_EXPLAIN_RIGHTS, 5);
  question.insert(kl::RIGHTS_TO, Ids{24});
  EXPECT_TRUE(ask(question).has(kl::RIGHTS_VERDICT));
  EXPECT_EQ(errorOf(askFor(kl::CMD_LIST_RIGHTS)), kl::ERROR_OK);
}

TEST_F(OwnServiceTest, TheListOfRightsIsForWhoMayControl) {
  const loader::Configuration configuration;
  const loader::RightsExplainer explainer(configuration, table_);
  own_.setExplainer(explainer);
  kl::message m = request({}, kl::CMD_LIST_RIGHTS, 5);
  m.insert(kl::SYS_POLICY, 64 | 128 | 1024);
  EXPECT_EQ(errorOf(ask(m)), kl::ERROR_NOTALLOWED);
  m.insert(kl::SYS_POLICY, 64 | 512);
  EXPECT_EQ(errorOf(ask(m)), kl::ERROR_OK);
}

TEST_F(OwnServiceTest, TheConfigurationIsReadAnewForWhoMayControl) {
  EXPECT_EQ(errorOf(askFor(kl::CMD_RELOAD)), kl::ERROR_NOTIMP);
  int readings = 0;
  own_.setReload([&](const kl::message&) {
    kl::message reply;
    reply.insert(kl::RELOAD_UNCHANGED, ++readings);
    return reply;
  });
  kl::message m = request({}, kl::CMD_RELOAD, 5);
  m.insert(kl::SYS_POLICY, 64 | 128 | 1024);
  EXPECT_EQ(errorOf(ask(m)), kl::ERROR_NOTALLOWED);
  EXPECT_EQ(readings, 0);
  m.insert(kl::SYS_POLICY, 64 | 512);
  EXPECT_EQ(ask(m).get(kl::RELOAD_UNCHANGED, 0), 1u);
}

TEST_F(OwnServiceTest, ATapIsForWhoMayControl) {
  EXPECT_EQ(errorOf(askFor(common::tap::CMD_TAP)), kl::ERROR_NOTIMP);
  loader::OpenRequests requests(1);
  loader::Taps taps(
      runner_, table_, requests, outbox_, [] { return common::Moment(1); }, [](loader::Witness*) {}, [] {});
  own_.setTaps(taps);
  kl::message m = request({}, common::tap::CMD_TAP, 5);
  m.insert(kl::SYS_POLICY, 64 | 128 | 1024);
  EXPECT_EQ(errorOf(ask(m)), kl::ERROR_NOTALLOWED);
  EXPECT_EQ(taps.size(), 0u);
  m.insert(kl::SYS_POLICY, 64 | 512);
  EXPECT_EQ(errorOf(ask(m)), kl::ERROR_OK);
  EXPECT_EQ(taps.size(), 1u);
}

TEST_F(OwnServiceTest, AReplyGoesToTheAskingHandler) {
  const kl::message got = askFor(kl::CMD_NOOP);
  EXPECT_TRUE(kl::isReply(got));
  EXPECT_EQ(errorOf(got), kl::ERROR_OK);
  EXPECT_EQ(got.get(kl::SYS_REQID, 0), 5u);
  EXPECT_EQ(got.get(kl::SYS_TO, {}), Ids{7});
  EXPECT_EQ(got.get(kl::SYS_FROM, {}), Ids{1});
}

TEST_F(OwnServiceTest, WhoDoesNotReadItsRepliesGetsShortOnesAndThenNone) {
  for (unsigned int id = 100; id < 200; ++id) (void)connected(table_, id);
  const kl::message m = request({}, kl::CMD_GETALL, 5, {10, 7});
  std::size_t before = 0;
  for (int i = 0; i < 1000; ++i) {
    before = a_.out.size();
    own_.handle(a_, m);
    if (a_.out.size() - before < 1000) break;
  }
  EXPECT_GE(before, OwnService::kMostUnread);
  EXPECT_LT(before, OwnService::kMostUnread + (100u << 10));
  for (int i = 0; i < 100000; ++i) own_.handle(a_, m);
  EXPECT_LT(a_.out.size(), (1u << 20) + 100) << "the limit of the queue";
  const std::vector<kl::message> all = takeMessages(a_);
  EXPECT_EQ(errorOf(all.front()), kl::ERROR_OK);
  EXPECT_EQ(errorOf(all.back()), kl::ERROR_BUSY);
  EXPECT_EQ(errorOf(ask(m)), kl::ERROR_OK) << "it has read";
}

TEST_F(OwnServiceTest, RowsThatAreShownAreWork) {
  for (unsigned int id = 100; id < 120; ++id) (void)connected(table_, id);
  outbox_.work().allow(loader::Work::kAll);
  (void)askFor(kl::CMD_GETALL);
  EXPECT_LE(outbox_.work().left(), loader::Work::kAll - 20 * loader::Work::kRow);
}

TEST_F(OwnServiceTest, TheLoaderDescribesItself) {
  const auto answer = [&](unsigned int command) {
    kl::message m = request({}, command, 5, {10, 7});
    m.insert(kl::SYS_TO, Ids{kl::HANDLER_DESCRIPTION});
    own_.handle(a_, m);
    return takeOnly(a_);
  };
  EXPECT_EQ(answer(kl::CMD_GET).get(kl::STD_DESCR, ""), loader_service::kDescription);
  EXPECT_FALSE(answer(kl::CMD_GETPOLICIES).get(kl::STD_OBJS, {}).empty());
  EXPECT_EQ(errorOf(answer(kl::CMD_NOOP)), kl::ERROR_OK);
  EXPECT_EQ(errorOf(answer(kl::CMD_GETALL)), kl::ERROR_NOTIMP);
  EXPECT_EQ(errorOf(answer(kl::CMD_SUBSCRIBE)), kl::ERROR_NOTIMP);
  EXPECT_EQ(errorOf(askFor(kl::CMD_GET)), kl::ERROR_NOTIMP);  // the table has no settings
}

TEST_F(OwnServiceTest, WithoutARequestIdThereIsNoReply) {
  kl::message m = request({}, kl::CMD_GETALL, 5, {10, 7});
  m.remove(kl::SYS_REQID);
  own_.handle(a_, m);
  EXPECT_TRUE(a_.out.empty());
}

TEST_F(OwnServiceTest, ARowTellsAllOfAService) {
  Service& s = connected(table_, 32);
  s.name = "netif";
  s.pid = 4711;
  s.user = "bob";
  s.starts = 3;
  s.traffic = {1, 2, 3, 4, 5, 6};
  const kl::message row = ask([] {
    kl::message m = request({}, kl::CMD_GETOBJ, 5);
    m.insert(kl::STD_ID, 32);
    return m;
  }());
  EXPECT_EQ(row.get(kl::STD_ID, 0), 32u);
  EXPECT_EQ(row.get(kl::SVC_NAME, ""), "netif");
  EXPECT_EQ(row.get(kl::SVC_PID, 0), 4711u);
  EXPECT_EQ(row.get(kl::SVC_USER, ""), "bob");
  EXPECT_EQ(row.get(kl::SVC_STATE, 0), kl::SVC_STATE_RUNNING);
  EXPECT_EQ(row.get(kl::SVC_STARTS, 0), 3u);
  EXPECT_EQ(row.get(kl::SVC_MESSAGES_IN, 0), 1u);
  EXPECT_EQ(row.get(kl::SVC_MESSAGES_OUT, 0), 2u);
  EXPECT_EQ(row.get(kl::SVC_BYTES_IN, 0), 3u);
  EXPECT_EQ(row.get(kl::SVC_BYTES_OUT, 0), 4u);
  EXPECT_EQ(row.get(kl::SVC_DROPS, 0), 5u);
  EXPECT_EQ(row.get(kl::SVC_DENIALS, 0), 6u);
  EXPECT_EQ(row.get(kl::SVC_QUEUE, 9), 0u);
  EXPECT_EQ(row.get(kl::SVC_REQUESTS, 9), 0u);
  EXPECT_FALSE(row.has(kl::SVC_WAKE_AT));
  EXPECT_FALSE(row.get(kl::SVC_CONFIGURED, false));
  s.isConfigured = true;
  EXPECT_TRUE(loader::objectOf(s).get(kl::SVC_CONFIGURED, false));
  s.wakeAt = 1800000000;
  EXPECT_EQ(loader::objectOf(s).get(kl::SVC_WAKE_AT, 0), 1800000000u);
}

TEST_F(OwnServiceTest, TheLoadersRowHasTheSums) {
  Service& loader = table_.add(kl::SERVICE_LOADER);
  loader.traffic = {0, 100, 0, 1000, 0, 0};
  table_.add(32).traffic = {1, 2, 3, 4, 5, 6};
  table_.add(33).traffic = {10, 20, 30, 40, 50, 60};
  table_.remove(33);
  unsigned long long connections = 7;
  own_.setConnections(connections);
  const auto rowOf = [&](unsigned int id) {
    kl::message m = request({}, kl::CMD_GETOBJ, 5);
    m.insert(kl::STD_ID, id);
    return ask(m);
  };
  const kl::message row = rowOf(kl::SERVICE_LOADER);
  EXPECT_EQ(row.get(kl::SVC_ALL_MESSAGES_IN, 0), 11u);
  EXPECT_EQ(row.get(kl::SVC_ALL_MESSAGES_OUT, 0), 122u);
  EXPECT_EQ(row.get(kl::SVC_ALL_BYTES_IN, 0), 33u);
  EXPECT_EQ(row.get(kl::SVC_ALL_BYTES_OUT, 0), 1044u);
  EXPECT_EQ(row.get(kl::SVC_ALL_DROPS, 0), 55u);
  EXPECT_EQ(row.get(kl::SVC_ALL_DENIALS, 0), 66u);
  EXPECT_EQ(row.get(kl::SVC_CONNECTIONS, 0), 7u);
  connections = 8;
  EXPECT_EQ(rowOf(kl::SERVICE_LOADER).get(kl::SVC_CONNECTIONS, 0), 8u);
  for (const auto& field : {kl::SVC_ALL_MESSAGES_IN, kl::SVC_ALL_DENIALS, kl::SVC_CONNECTIONS})
    EXPECT_FALSE(rowOf(32).has(field)) << "a row of a service is about itself";
}

TEST_F(OwnServiceTest, TheNextProcessGetsNoReplyToAnOrderThatEndedItsCaller) {
  onOrder_ = [this] {  // a restart: messages are held for the process that comes
    a_.disconnect();
    a_.isHeldFor = true;
  };
  kl::message m = request({}, kl::CMD_SETOBJ, 5);
  m.insert(kl::STD_ID, 10);
  m.insert(kl::SVC_ACTION, kl::SVC_RESTART);
  (void)ask(m);
  EXPECT_EQ(ordered_, std::to_string(kl::SVC_RESTART) + " 10;");
  EXPECT_TRUE(a_.held.empty());
}

TEST_F(OwnServiceTest, AnObjectThatIsNotThereIsAnUnknownId) {
  EXPECT_EQ(errorOf(askFor(kl::CMD_GETOBJ)), kl::ERROR_UNKNOWNID);
  kl::message m = request({}, kl::CMD_GETOBJ, 5);
  m.insert(kl::STD_ID, 77);
  EXPECT_EQ(errorOf(ask(m)), kl::ERROR_UNKNOWNID);
}

TEST_F(OwnServiceTest, TheCountIsThatOfTheRows) {
  connected(table_, 32);
  EXPECT_EQ(askFor(kl::CMD_GETCOUNT).get(kl::STD_GETALLNO, 0), 2u);
}

TEST_F(OwnServiceTest, ASmallTableComesInOneChunk) {
  connected(table_, 32);
  connected(table_, 5);
  const kl::message got = askFor(kl::CMD_GETALL);
  EXPECT_EQ(idsOf(got), (Ids{5, 10, 32}));
  EXPECT_FALSE(got.has(kl::STD_GETALLID));
}

TEST_F(OwnServiceTest, ALargeTableComesInChunksThatGoOnWhereTheLastEnded) {
  for (unsigned int id = 100; id < 600; ++id) connected(table_, id);
  Ids ids;
  kl::message m = request({}, kl::CMD_GETALL, 5);
  int chunks = 0;
  for (bool more = true; more; ++chunks) {
    const kl::message got = ask(m);
    EXPECT_LT(flat(got).size(), 17000u);
    for (const unsigned int id : idsOf(got)) ids.push_back(id);
    more = got.has(kl::STD_GETALLID);
    m.insert(kl::STD_GETALLID, got.get(kl::STD_GETALLID, 0));
  }
  ASSERT_EQ(ids.size(), 501u);
  EXPECT_TRUE(std::is_sorted(ids.begin(), ids.end()));
  EXPECT_GT(chunks, 3);
}

TEST_F(OwnServiceTest, TheCallerMayWantFewerRowsAtATime) {
  for (const unsigned int id : {20u, 30u, 40u}) connected(table_, id);
  kl::message m = request({}, kl::CMD_GETALL, 5);
  m.insert(kl::STD_GETALLNO, 2);
  const kl::message first = ask(m);
  EXPECT_EQ(idsOf(first), (Ids{10, 20}));
  EXPECT_EQ(first.get(kl::STD_GETALLID, 0), 30u);
  table_.remove(30);  // the row to go on with is gone: the next one is meant
  m.insert(kl::STD_GETALLID, 30);
  const kl::message second = ask(m);
  EXPECT_EQ(idsOf(second), Ids{40});
  EXPECT_FALSE(second.has(kl::STD_GETALLID));
}

TEST_F(OwnServiceTest, BehindTheLastRowAChunkIsEmptyAndTheLast) {
  kl::message m = request({}, kl::CMD_GETALL, 5);
  m.insert(kl::STD_GETALLID, 5000);
  const kl::message got = ask(m);
  EXPECT_TRUE(got.has(kl::STD_OBJS));
  EXPECT_EQ(idsOf(got), Ids{});
  EXPECT_FALSE(got.has(kl::STD_GETALLID));
}

TEST_F(OwnServiceTest, OrdersReachTheLifecycle) {
  kl::message m = request({}, kl::CMD_SETOBJ, 5);
  m.insert(kl::STD_ID, 10);
  EXPECT_EQ(errorOf(ask(m)), kl::ERROR_MISSING);
  for (const unsigned int action : {kl::SVC_START, kl::SVC_STOP, kl::SVC_RESTART}) {
    m.insert(kl::SVC_ACTION, action);
    EXPECT_EQ(errorOf(ask(m)), kl::ERROR_OK);
  }
  EXPECT_EQ(ordered_, "1 10;2 10;3 10;");
  failure_ = "no";
  const kl::message got = ask(m);
  EXPECT_EQ(errorOf(got), kl::ERROR_FAILED);
  EXPECT_EQ(got.get(kl::SYS_ERRSTR, ""), "no");
  m.insert(kl::SVC_ACTION, 99);
  EXPECT_EQ(errorOf(ask(m)), kl::ERROR_NOTIMP);
  m.insert(kl::STD_ID, 77);
  EXPECT_EQ(errorOf(ask(m)), kl::ERROR_UNKNOWNID);
}

TEST_F(OwnServiceTest, ALeaveIsAnsweredWhenItHasAnOutcome) {
  const auto orderLeave = [this](unsigned int requestId) {
    kl::message m = request({}, kl::CMD_SETOBJ, requestId, {10, 7});
    m.insert(kl::STD_ID, 40);
    m.insert(kl::SVC_ACTION, kl::SVC_LEAVE);
    own_.handle(a_, m);
  };
  const std::pair<unsigned int, unsigned int> outcomes[] = {{kl::SVC_STATE_LEFT, kl::ERROR_OK},
                                                            {kl::SVC_STATE_RUNNING, kl::ERROR_BUSY},
                                                            {kl::SVC_STATE_STOPPING, kl::ERROR_FAILED},
                                                            {kl::SVC_STATE_DELAYED, kl::ERROR_FAILED}};
  Service& leaver = connected(table_, 40);
  Service& other = connected(table_, 41);
  for (const auto& [state, code] : outcomes) {
    table_.setState(leaver, kl::SVC_STATE_LEAVING);
    orderLeave(5);
    orderLeave(6);
    table_.setState(other, kl::SVC_STATE_LEFT);
    EXPECT_TRUE(takeMessages(a_).empty());
    table_.setState(leaver, state);
    const std::vector<kl::message> answers = takeMessages(a_);
    ASSERT_EQ(answers.size(), 2u);
    EXPECT_EQ(errorOf(answers[0]), code);
    EXPECT_EQ(answers[0].get(kl::SYS_REQID, 0), 5u);
    EXPECT_EQ(answers[1].get(kl::SYS_REQID, 0), 6u);
    EXPECT_EQ(answers[1].get(kl::SYS_TO, {}), Ids{7});
  }
  failure_ = "no";
  orderLeave(7);
  EXPECT_EQ(errorOf(takeOnly(a_)), kl::ERROR_FAILED);
}

TEST_F(OwnServiceTest, WhoIsGoneIsNotToldOfALeave) {
  Service& leaver = connected(table_, 40);
  leaver.state = kl::SVC_STATE_LEAVING;
  kl::message m = request({}, kl::CMD_SETOBJ, 5, {10, 7});
  m.insert(kl::STD_ID, 40);
  m.insert(kl::SVC_ACTION, kl::SVC_LEAVE);
  own_.handle(a_, m);
  own_.forgetOrdersOf(a_);
  table_.setState(leaver, kl::SVC_STATE_LEFT);
  EXPECT_TRUE(a_.out.empty());
}

TEST_F(OwnServiceTest, ThePoliciesHoldForTheLoaderToo) {
  kl::message m = request({}, kl::CMD_SETOBJ, 5);
  m.insert(kl::STD_ID, 10);
  m.insert(kl::SVC_ACTION, kl::SVC_STOP);
  m.insert(kl::SYS_POLICY, 64);
  EXPECT_EQ(errorOf(ask(m)), kl::ERROR_NOTALLOWED);
  EXPECT_EQ(ordered_, "");
  m.insert(kl::SYS_CMD, kl::CMD_GETALL);
  EXPECT_EQ(errorOf(ask(m)), kl::ERROR_OK);
  m.insert(kl::SYS_POLICY, 0);
  EXPECT_EQ(errorOf(ask(m)), kl::ERROR_NOTALLOWED);
  m.insert(kl::SYS_CMD, kl::CMD_GETPOLICIES);
  EXPECT_TRUE(ask(m).has(kl::STD_OBJS));
}

TEST_F(OwnServiceTest, OtherCommandsAreNotImplemented) {
  for (const unsigned int command : {kl::CMD_ADDOBJ, kl::CMD_GET, kl::CMD_SHUTDOWN, 0x1234u})
    EXPECT_EQ(errorOf(askFor(command)), kl::ERROR_NOTIMP);
}

TEST_F(OwnServiceTest, SubscribersHearOfChangesInOneBatch) {
  subscribe();
  subscribe();  // the same again changes nothing
  Service& s = connected(table_, 32);
  table_.setState(s, kl::SVC_STATE_RUNNING);
  table_.setState(a_, kl::SVC_STATE_RUNNING);
  table_.setState(s, kl::SVC_STATE_STOPPED);
  EXPECT_TRUE(a_.out.empty());
  own_.sendChanges();
  const kl::message got = takeOnly(a_);
  EXPECT_EQ(got.get(kl::SYS_CMD, 0), kl::CMD_NOTIFY);
  EXPECT_EQ(got.get(kl::SYS_TO, {}), Ids{7});
  EXPECT_EQ(got.get(kl::SYS_FROM, {}), Ids{1});
  EXPECT_EQ(idsOf(got), (Ids{10, 32}));
}

TEST_F(OwnServiceTest, ABatchIsSentAfterAFifthOfASecond) {
  subscribe();
  table_.setState(a_, kl::SVC_STATE_RUNNING);
  while (settled_ == 0) runner_.runSocks(kl::getJiffies());
  EXPECT_EQ(takeOnly(a_).get(kl::SYS_CMD, 0), kl::CMD_NOTIFY);
}

TEST_F(OwnServiceTest, ARowThatIsGoneIsToldDead) {
  connected(table_, 32);
  subscribe();
  table_.remove(32);
  own_.sendChanges();
  const kl::message row(takeOnly(a_).get(kl::STD_OBJS, {}).at(0));
  EXPECT_EQ(row.get(kl::STD_ID, 0), 32u);
  EXPECT_TRUE(row.has(kl::STD_DEAD));
}

TEST_F(OwnServiceTest, NotificationsCarryTheCommandThatWasAskedFor) {
  kl::message m;
  m.insert(kl::SYS_FROM, Ids{10, 7});
  m.insert(kl::SYS_CMD, kl::CMD_SUBSCRIBE);
  m.insert(kl::SYS_NOTIFYCMD, 0x60001);
  own_.handle(a_, m);
  table_.setState(a_, kl::SVC_STATE_RUNNING);
  own_.sendChanges();
  EXPECT_EQ(takeOnly(a_).get(kl::SYS_CMD, 0), 0x60001u);
}

TEST_F(OwnServiceTest, WhoUnsubscribesOrEndsHearsNothing) {
  subscribe();
  subscribe(kl::CMD_UNSUBSCRIBE);
  table_.setState(a_, kl::SVC_STATE_RUNNING);
  own_.sendChanges();
  EXPECT_TRUE(a_.out.empty());
  subscribe();
  subscriptions_.forgetSubscriber(a_);
  table_.setState(a_, kl::SVC_STATE_RUNNING);
  own_.sendChanges();
  EXPECT_TRUE(a_.out.empty());
}

TEST_F(OwnServiceTest, WhoIsAwayHearsNothingAndHearsAgainWhenItIsBack) {
  subscribe();
  a_.disconnect();
  table_.setState(connected(table_, 40), kl::SVC_STATE_RUNNING);
  own_.sendChanges();
  EXPECT_EQ(a_.waiting(), 0u);
  a_.connect();
  table_.setState(*table_.find(40), kl::SVC_STATE_STOPPED);
  own_.sendChanges();
  EXPECT_EQ(takeMessages(a_).size(), 1u);
}

TEST_F(OwnServiceTest, OnlySoManySubscriptionsOfOneServiceAreKept) {
  Service& b = connected(table_, 24);
  for (unsigned int i = 0; i < 1000; ++i) {
    kl::message m;
    m.insert(kl::SYS_FROM, Ids{10, i});
    m.insert(kl::SYS_CMD, kl::CMD_SUBSCRIBE);
    own_.handle(a_, m);
  }
  kl::message m;
  m.insert(kl::SYS_FROM, Ids{24});
  m.insert(kl::SYS_CMD, kl::CMD_SUBSCRIBE);
  own_.handle(b, m);
  table_.setState(a_, kl::SVC_STATE_RUNNING);
  own_.sendChanges();
  EXPECT_EQ(takeMessages(a_).size(), OwnService::kMostSubscriptions);
  EXPECT_EQ(takeMessages(b).size(), 1u);  // others are not concerned
}

TEST_F(OwnServiceTest, ASubscriptionWithALotInItIsNotKept) {
  kl::message m;
  m.insert(kl::SYS_FROM, Ids{10, 7});
  m.insert(kl::SYS_CMD, kl::CMD_SUBSCRIBE);
  m.insert_raw(0x30000001, std::vector<unsigned char>(60000));
  own_.handle(a_, m);
  table_.setState(a_, kl::SVC_STATE_RUNNING);
  own_.sendChanges();
  EXPECT_TRUE(a_.out.empty());
}

TEST_F(OwnServiceTest, AHundredChangesDoNotWait) {
  subscribe();
  for (unsigned int id = 100; id < 199; ++id) table_.setState(connected(table_, id), kl::SVC_STATE_RUNNING);
  EXPECT_TRUE(a_.out.empty());
  table_.setState(connected(table_, 199), kl::SVC_STATE_RUNNING);
  EXPECT_FALSE(a_.out.empty());
}

TEST_F(OwnServiceTest, TheTrafficIsATableBesideThatOfTheServices) {
  const auto ask = [&](unsigned int command) {
    kl::message asking = request({kl::LOADER_TRAFFIC}, command, 5, {10, 7});
    own_.handle(a_, asking);
    return takeOnly(a_);
  };
  EXPECT_EQ(errorOf(ask(kl::CMD_GETALL)), kl::ERROR_NOTIMP);  // nobody knows of any
  const loader::TrafficTable traffic(table_);
  own_.setTraffic(traffic);
  EXPECT_EQ(ask(kl::CMD_GETALL).get(kl::STD_OBJS, {}).size(), table_.all().size());
  EXPECT_EQ(errorOf(ask(kl::CMD_SUBSCRIBE)), kl::ERROR_NOTIMP);
  EXPECT_EQ(self_.subscriptions.oldestAt, nullptr);
}

TEST(OwnServiceOnThePage, IsAsInTheCode) {
  using kl::test::withCommas;
  const std::string page = kl::test::pageOf("docs/security.md");
  const std::string rows[] = {withCommas(OwnService::kMostUnread) + " bytes, then",
                              withCommas(OwnService::kMostSubscriptions) + " of at most " +
                                  withCommas(OwnService::kMostSubscriptionBytes) + " bytes"};
  for (const std::string& row : rows) EXPECT_TRUE(kl::test::shows(page, "| " + row)) << row;
}

TEST_F(OwnServiceTest, TheOpenRequestsAreATableBesideThatOfTheServices) {
  kl::message m = request({}, kl::CMD_GETCOUNT, 5);
  const auto askAt = [&](unsigned int command) {
    kl::message asking = request({kl::LOADER_REQUESTS}, command, 5, {10, 7});
    own_.handle(a_, asking);
    return takeOnly(a_);
  };
  EXPECT_EQ(errorOf(askAt(kl::CMD_GETALL)), kl::ERROR_NOTIMP);  // nobody knows of any
  loader::OpenRequests requests(1);
  const loader::RequestTable open(table_, requests, [] { return common::Moment(1); });
  own_.setRequests(open);
  EXPECT_EQ(askAt(kl::CMD_GETCOUNT).get(kl::STD_GETALLNO, 9), 0u);
  EXPECT_EQ(errorOf(askAt(kl::CMD_GETALL)), kl::ERROR_OK);
  EXPECT_EQ(errorOf(askAt(kl::CMD_NOOP)), kl::ERROR_OK);
  for (const unsigned int command : {kl::CMD_SETOBJ, kl::CMD_RELOAD, kl::CMD_SUBSCRIBE})
    EXPECT_EQ(errorOf(askAt(command)), kl::ERROR_NOTIMP);
  EXPECT_EQ(self_.subscriptions.oldestAt, nullptr);
}

}  // namespace

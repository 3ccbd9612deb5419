#include "services/loader/watch/traffic_table.h"

#include <gtest/gtest.h>

#include <algorithm>

#include "kl/chunk.h"
#include "kl/services.h"
#include "services/loader/admission/rights.h"
#include "services/loader/routing/subscriptions.h"
#include "tests/services/loader/fixture.h"

namespace {

using namespace loader::test;
using loader::Service;
using loader::TrafficTable;

class TrafficTableTest : public testing::Test {
 protected:
  void subscribe(Service& provider, Service& subscriber, unsigned int command, const Ids& at,
                 const Ids& returnPath = {7}) {
    kl::message m = request(at, kl::CMD_SUBSCRIBE, 5, returnPath);
    m.insert(kl::SYS_NOTIFYCMD, command);
    const auto body = flat(m);
    loader::Envelope e;
    ASSERT_EQ(loader::readEnvelope(body, e), nullptr);
    (void)subscriptions_.add(provider, e.path(), subscriber, e.returnPath(), body);
  }

  std::vector<kl::message> rows(const Service& asker, kl::message asking = {}) {
    std::vector<kl::message> all;
    for (;;) {
      const kl::message reply = shown_.answer(asker, asking, kl::CMD_GETALL, work_);
      for (const auto& row : reply.get(kl::STD_OBJS, {})) all.emplace_back(row);
      if (!reply.has(kl::STD_GETALLID)) return all;
      asking.insert(kl::STD_GETALLID, reply.get(kl::STD_GETALLID, 0));
    }
  }
  kl::message row(const Service& asker, unsigned int id) {
    kl::message asking;
    asking.insert(kl::STD_ID, id);
    return shown_.answer(asker, asking, kl::CMD_GETOBJ, work_);
  }
  static std::vector<kl::message> entries(const kl::message& row,
                                          const kl::field<std::vector<kl::message::flat_message>>& list) {
    std::vector<kl::message> all;
    for (const auto& entry : row.get(list, {})) all.emplace_back(entry);
    return all;
  }

  // An ordinary user's service with these rights at destinations without a list, and none where one says so.
  Service& ordinary(unsigned int id, unsigned int bits) {
    Service& service = connected(services_, id);
    service.rights = {};
    service.rights.grants = {{loader::Rights::of(bits), {}}, {loader::Rights::nothing(), {}}};
    return service;
  }

  loader::ServiceTable services_;
  loader::Subscriptions subscriptions_{1};
  loader::Work work_;
  TrafficTable shown_{services_};
  Service& a_ = connected(services_, 10);
  Service& b_ = connected(services_, 24);
};

TEST_F(TrafficTableTest, ARowSaysWhoSentHowMuch) {
  b_.senders.add(10, 100);
  b_.senders.add(10, 20);
  b_.senders.add(30, 7);
  b_.senders.forget(30);
  const kl::message shown = row(a_, 24);
  EXPECT_EQ(shown.get(kl::STD_ID, 0), 24u);
  EXPECT_EQ(shown.get(kl::SVC_NAME, ""), "s24");
  const auto senders = entries(shown, kl::TRAFFIC_SENDERS);
  ASSERT_EQ(senders.size(), 2u);
  EXPECT_EQ(senders[0].get(kl::TRAFFIC_SERVICE, 0), 10u);
  EXPECT_EQ(senders[0].get(kl::SVC_MESSAGES_IN, 0), 2u);
  EXPECT_EQ(senders[0].get(kl::SVC_BYTES_IN, 0), 120u);
  EXPECT_EQ(senders[1].get(kl::TRAFFIC_SERVICE, 9), 0u) << "who has gone";
  EXPECT_EQ(senders[1].get(kl::SVC_BYTES_IN, 0), 7u);
}

TEST_F(TrafficTableTest, SubscriptionsThatLookAlikeAreOne) {
  subscribe(b_, a_, 77, {0, 3}, {7});
  subscribe(b_, a_, 77, {0, 3}, {8});
  subscribe(b_, a_, kl::CMD_NOTIFY, {1, 2, 3, 4, 5});
  const auto subscribers = entries(row(a_, 24), kl::TRAFFIC_SUBSCRIBERS);
  ASSERT_EQ(subscribers.size(), 2u);
  EXPECT_EQ(subscribers[0].get(kl::TRAFFIC_SERVICE, 0), 10u);
  EXPECT_EQ(subscribers[0].get(kl::REQUEST_PATH, {}), (Ids{0, 3}));
  EXPECT_EQ(subscribers[0].get(kl::REQUEST_COMMAND, 0), 77u);
  EXPECT_EQ(subscribers[0].get(kl::TRAFFIC_TIMES, 0), 2u);
  EXPECT_EQ(subscribers[1].get(kl::REQUEST_PATH, {}), (Ids{1, 2, 3, 4})) << "the beginning of a long path";
  EXPECT_EQ(subscribers[1].get(kl::TRAFFIC_TIMES, 0), 1u);
}

TEST_F(TrafficTableTest, ARowFitsIntoAChunkWhateverStrangersDo) {
  for (unsigned int i = 0; i < 2 * TrafficTable::kMostSubscribers; ++i)
    subscribe(b_, a_, 1000 + i, {0xffffffff, 0xffffffff, 0xffffffff, 0xffffffff, i}, {i});
  for (unsigned int id = 0xfffff000; id != 0xfffff200; ++id) b_.senders.add(id, 100);
  const kl::message shown = row(a_, 24);
  EXPECT_LT(shown.flattened().size(), kl::Chunk::kMostBytes);
  const auto subscribers = entries(shown, kl::TRAFFIC_SUBSCRIBERS);
  ASSERT_EQ(subscribers.size(), TrafficTable::kMostSubscribers + 1);
  const auto others = std::find_if(subscribers.begin(), subscribers.end(), [](const kl::message& entry) {
    return entry.get(kl::TRAFFIC_SERVICE, 9) == 0;
  });
  ASSERT_NE(others, subscribers.end());
  EXPECT_EQ(others->get(kl::TRAFFIC_TIMES, 0), TrafficTable::kMostSubscribers);
  EXPECT_FALSE(others->has(kl::REQUEST_PATH));
}

TEST_F(TrafficTableTest, ManyAreReadInChunksAndEachOnce) {
  for (unsigned int id = 1000; id < 1020; ++id)
    for (unsigned int sender = 1; sender <= 100; ++sender) connected(services_, id).senders.add(sender, 1);
  kl::message asking;
  asking.insert(kl::STD_GETALLID, 1000u);
  const auto all = rows(a_, asking);
  ASSERT_EQ(all.size(), 20u);
  for (unsigned int i = 0; i < 20; ++i) EXPECT_EQ(all[i].get(kl::STD_ID, 0), 1000 + i);
}

TEST_F(TrafficTableTest, TheWorkOfAnAskerIsCounted) {
  work_.allow(1 << 20);
  (void)rows(a_);
  EXPECT_LE(work_.left(), (1 << 20) - 2 * loader::Work::kRow);
}

TEST_F(TrafficTableTest, WhoMayReadAtAServiceSeesItsRowAndEverybodyHisOwn) {
  b_.rules.accessList = 1;
  const Service& reader = ordinary(500, kl::RIGHT_READ);
  EXPECT_EQ(errorOf(row(reader, 24)), kl::ERROR_UNKNOWNID);
  EXPECT_EQ(rows(reader).size(), 2u) << "that of the service 10, and its own";
  const Service& writer = ordinary(501, kl::RIGHT_CHANGE);
  ASSERT_EQ(rows(writer).size(), 1u);
  EXPECT_EQ(rows(writer)[0].get(kl::STD_ID, 0), 501u);
}

TEST_F(TrafficTableTest, ATrustedOneThatLimitsItsRequestSeesNothing) {
  kl::message limited;
  limited.insert(kl::SYS_POLICY, kl::RIGHT_READ);
  EXPECT_EQ(rows(a_).size(), 2u);
  EXPECT_EQ(rows(a_, limited).size(), 0u);
}

TEST_F(TrafficTableTest, OtherCommandsAreRefused) {
  EXPECT_EQ(errorOf(row(a_, 99)), kl::ERROR_UNKNOWNID);
  EXPECT_EQ(errorOf(shown_.answer(a_, {}, kl::CMD_NOOP, work_)), kl::ERROR_OK);
  for (const unsigned int command : {kl::CMD_SETOBJ, kl::CMD_SUBSCRIBE, kl::CMD_GETCOUNT})
    EXPECT_EQ(errorOf(shown_.answer(a_, {}, command, work_)), kl::ERROR_NOTIMP);
}

}  // namespace

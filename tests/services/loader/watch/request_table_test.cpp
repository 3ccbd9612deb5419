#include "services/loader/watch/request_table.h"

#include <gtest/gtest.h>

#include <memory>

#include "kl/services.h"
#include "services/loader/admission/rights.h"
#include "tests/services/loader/fixture.h"

namespace {

using namespace loader::test;
using loader::Service;

class RequestTableTest : public testing::Test {
 protected:
  // One is delivered from `caller` to `path` inside `callee`.
  void open(Service& caller, Service& callee, unsigned int command, unsigned int id = 5,
            const Ids& path = {0, 3}) {
    const auto body = flat(request(path, command, id, {7}));
    loader::Envelope e;
    ASSERT_EQ(loader::readEnvelope(body, e), nullptr);
    requests_.add(caller, callee, e, e.path(), now_);
  }

  std::vector<kl::message> rows(const Service& asker, kl::message asking = {}) {
    std::vector<kl::message> all;
    for (;;) {
      const kl::message reply = shown_.chunk(asker, asking, work_);
      for (const auto& row : reply.get(kl::STD_OBJS, {})) all.emplace_back(row);
      if (!reply.has(kl::STD_GETALLID)) return all;
      asking.insert(kl::STD_GETALLID, reply.get(kl::STD_GETALLID, 0));
    }
  }
  unsigned int count(const Service& asker, const kl::message& asking = {}) {
    return shown_.count(asker, asking, work_).get(kl::STD_GETALLNO, 99);
  }

  // An ordinary user's service with these rights at destinations without a list, and none where one says so.
  Service& ordinary(unsigned int id, unsigned int bits) {
    Service& service = connected(services_, id);
    service.rights = {};
    service.rights.grants = {{loader::Rights::of(bits), {}}, {loader::Rights::nothing(), {}}};
    return service;
  }

  loader::ServiceTable services_;
  loader::OpenRequests requests_{1};
  common::Moment now_{100, 900};
  loader::Work work_;
  loader::RequestTable shown_{services_, requests_, [this] { return now_; }};
  Service& a_ = connected(services_, 10);
  Service& b_ = connected(services_, 24);
};

TEST_F(RequestTableTest, ARowSaysWhoAsksWhomForWhatAndSinceWhen) {
  open(a_, b_, kl::CMD_GETALL);
  now_ = {105, 100};
  const auto all = rows(a_);
  ASSERT_EQ(all.size(), 1u);
  EXPECT_EQ(all[0].get(kl::REQUEST_ASKER, 0), 10u);
  EXPECT_EQ(all[0].get(kl::REQUEST_ASKED, 0), 24u);
  EXPECT_EQ(all[0].get(kl::REQUEST_PATH, {}), (Ids{0, 3}));
  EXPECT_EQ(all[0].get(kl::REQUEST_COMMAND, 0), kl::CMD_GETALL);
  EXPECT_EQ(all[0].get(kl::REQUEST_AGE, 0), 4200u);
  EXPECT_FALSE(all[0].has(kl::REQUEST_HELD));
}

TEST_F(RequestTableTest, AnAnsweredRequestHasNoRow) {
  open(a_, b_, kl::CMD_GET);
  const kl::message path = request({7}, kl::CMD_NOOP, 1);
  const auto body = flat(path);
  loader::Envelope e;
  ASSERT_EQ(loader::readEnvelope(body, e), nullptr);
  ASSERT_TRUE(requests_.take(a_, b_, 5, e.path()));
  EXPECT_TRUE(rows(a_).empty());
  EXPECT_EQ(count(a_), 0u);
}

TEST_F(RequestTableTest, OneThatIsHeldIsMarked) {
  b_.isHeldFor = true;
  open(a_, b_, kl::CMD_GET);
  ASSERT_EQ(rows(a_).size(), 1u);
  EXPECT_TRUE(rows(a_)[0].get(kl::REQUEST_HELD, false));
}

TEST_F(RequestTableTest, ALongPathIsShownByItsBeginning) {
  open(a_, b_, kl::CMD_GET, 5, {1, 2, 3, 4, 5, 6});
  EXPECT_EQ(rows(a_).at(0).get(kl::REQUEST_PATH, {}), (Ids{1, 2, 3, 4}));
}

TEST_F(RequestTableTest, ManyAreReadInChunksAndEachOnce) {
  for (unsigned int id = 1; id <= 2000; ++id) open(a_, b_, kl::CMD_GET, id);
  EXPECT_TRUE(shown_.chunk(a_, {}, work_).has(kl::STD_GETALLID));
  const auto all = rows(a_);
  ASSERT_EQ(all.size(), 2000u);
  for (unsigned int i = 0; i < all.size(); ++i) EXPECT_EQ(all[i].get(kl::STD_ID, 9999), i);
  EXPECT_EQ(count(a_), 2000u);
}

TEST_F(RequestTableTest, TheWorkOfAnAskerIsCounted) {
  work_.allow(1 << 20);
  for (unsigned int id = 1; id <= 10; ++id) open(a_, b_, kl::CMD_GET, id);
  (void)rows(a_);
  EXPECT_LE(work_.left(), (1 << 20) - 10 * loader::Work::kRow);
}

TEST_F(RequestTableTest, WhoMayReadAtTheAskedServiceSeesItsRequests) {
  open(a_, b_, kl::CMD_GET);
  EXPECT_EQ(rows(ordinary(500, kl::RIGHT_READ)).size(), 1u);
  EXPECT_EQ(rows(ordinary(501, kl::RIGHT_CHANGE)).size(), 0u);
  EXPECT_EQ(count(ordinary(502, kl::RIGHT_CHANGE)), 0u);
}

TEST_F(RequestTableTest, AListOfTheAskedServiceCounts) {
  b_.rules.accessList = 1;
  open(a_, b_, kl::CMD_GET);
  EXPECT_EQ(rows(ordinary(500, kl::RIGHT_READ)).size(), 0u);
}

TEST_F(RequestTableTest, ItsOwnRequestsAreShownToAnybody) {
  Service& own = ordinary(500, kl::RIGHT_CHANGE);
  open(a_, b_, kl::CMD_GET);
  open(own, b_, kl::CMD_SET);
  const auto all = rows(own);
  ASSERT_EQ(all.size(), 1u);
  EXPECT_EQ(all[0].get(kl::REQUEST_ASKER, 0), 500u);
}

TEST_F(RequestTableTest, ATrustedOneThatLimitsItsRequestSeesNothing) {
  open(a_, b_, kl::CMD_GET);
  kl::message limited;
  limited.insert(kl::SYS_POLICY, kl::RIGHT_READ);
  EXPECT_EQ(rows(a_).size(), 1u);
  EXPECT_EQ(rows(a_, limited).size(), 0u) << "nobody knows whose request it is, and what he may see";
}

TEST_F(RequestTableTest, WhomAGatewaySpeaksForDoesNotSeeTheRequestsOfTheOthers) {
  Service& gateway = ordinary(500, kl::RIGHT_READ);
  auto users = std::make_shared<loader::UsersSpokenFor>();
  loader::SenderRights alice;
  alice.grants = {{loader::Rights::of(kl::RIGHT_CHANGE), {}}};
  users->add("alice", alice);
  gateway.rights.speaksFor = users;
  open(gateway, b_, kl::CMD_GET);
  kl::message inHerName;
  inHerName.insert(kl::SYS_USER, "alice");
  EXPECT_EQ(rows(gateway, inHerName).size(), 0u);
  EXPECT_EQ(rows(gateway).size(), 1u);
}

TEST_F(RequestTableTest, TheRowOfAServiceSaysHowLongTheOldestWaits) {
  kl::message row;
  shown_.addTo(row, b_);
  EXPECT_FALSE(row.has(kl::SVC_OLDEST));
  EXPECT_FALSE(row.has(kl::SVC_SILENT));
  open(a_, b_, kl::CMD_GET);
  b_.lastSent = 90;
  now_ = {102, 0};
  open(a_, b_, kl::CMD_GET);
  shown_.addTo(row, b_);
  EXPECT_EQ(row.get(kl::SVC_OLDEST, 0), 1100u);
  EXPECT_EQ(row.get(kl::SVC_SILENT, 0), 12u);
}

}  // namespace

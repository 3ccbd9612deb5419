#include "services/loader/routing/router.h"

#include <gtest/gtest.h>

#include <map>
#include <random>

#include "kl/description.h"
#include "services/common/tap.h"
#include "services/loader/admission/rights.h"
#include "services/loader/crashes/frame_ring.h"
#include "services/loader/quota/accounts.h"
#include "tests/services/loader/fixture.h"

namespace {

using namespace loader::test;
using loader::OpenRequests;
using loader::Outbox;
using loader::Rights;
using loader::Router;
using loader::Service;
using loader::ServiceTable;
using loader::Subscriptions;

namespace tap = common::tap;

constexpr std::size_t kLimit = 4000;

class RouterTest : public testing::Test {
 protected:
  std::string route(Service& from, const kl::message& m) { return routeBytes(from, flat(m)); }
  std::string routeBytes(Service& from, const std::vector<unsigned char>& body) {
    const char* fault = router_.route(from, body);
    return fault == nullptr ? "" : fault;
  }

  // Fills the queue of a service whose process does not read: each sender its part, until nothing is left.
  void fill(Service& service) {
    for (unsigned int id = 5000; !outbox_.isFull(service); ++id) fillPart(service, connected(table_, id));
  }
  void fillPart(Service& service, Service& sender) {
    kl::message m = notification({service.id});
    m.insert_raw(0x30000001, std::vector<unsigned char>(1000));
    while (!outbox_.isFull(service, sender)) ASSERT_EQ(route(sender, m), "");
  }

  static unsigned long long messagesFrom(unsigned int sender, const Service& to) {
    for (const loader::Senders::Sent& one : to.senders.all())
      if (one.sender == sender) return one.messages;
    return 0;
  }
  static unsigned long long bytesOfSenders(const Service& to) {
    unsigned long long bytes = to.senders.others().bytes;
    for (const loader::Senders::Sent& one : to.senders.all()) bytes += one.bytes;
    return bytes;
  }

  static loader::Limits small() {
    loader::Limits limits;
    limits.user[loader::Resource::kQueueBytes] = 256 * 1024;
    limits.user[loader::Resource::kRequests] = 10;
    return limits;
  }

  loader::Accounts accounts_{small(), 900};
  ServiceTable table_;
  OpenRequests requests_;
  Subscriptions subscriptions_;
  Outbox outbox_{kLimit};
  Router router_{table_,
                 requests_,
                 subscriptions_,
                 outbox_,
                 {[this](Service& caller, const kl::message& m) {
                    callers_.push_back(caller.id);
                    asked_.push_back(m);
                    if (endsItsCaller_) caller.disconnect();
                  },
                  [this](Service& sender, const loader::Envelope& e) {
                    EXPECT_EQ(sender.id, 10u);
                    codes_.push_back(e.control);
                  },
                  [this](Service& to) { needed_.push_back(to.id); },
                  {},
                  [this] { ++chains_; },
                  [this](const Service& sender, unsigned int id) { answered_[sender.id] = id; }}};
  int chains_ = 0;                                 // requests that may have closed a circle
  std::map<unsigned int, unsigned int> answered_;  // requests of the loader's own
  bool endsItsCaller_ = false;                     // as a caller ends that stops itself
  Ids callers_;                                    // of the loader's own service, and what they asked
  std::vector<kl::message> asked_;
  Ids codes_;   // of control messages
  Ids needed_;  // services that something is held for
  Service& a_ = connected(table_, 10);
  Service& b_ = connected(table_, 24);
  Service& other_ = connected(table_, 30);
};

TEST_F(RouterTest, ARequestArrivesWithItsPathCutAndItsReturnPathLengthened) {
  EXPECT_EQ(route(a_, request({24, 0}, kl::CMD_GET, 5, {7})), "");
  const kl::message got = takeOnly(b_);
  EXPECT_EQ(got.get(kl::SYS_TO, {}), Ids{0});
  EXPECT_EQ(got.get(kl::SYS_FROM, {}), (Ids{10, 7}));
  EXPECT_EQ(got.get(kl::SYS_REQID, 0), 5u);
}

TEST_F(RouterTest, TheReplyComesBackToTheHandlerThatAsked) {
  (void)route(a_, request({24, 0}, kl::CMD_GET, 5, {7}));
  EXPECT_EQ(route(b_, replyTo({10, 7}, 5, {0})), "");
  const kl::message got = takeOnly(a_);
  EXPECT_EQ(got.get(kl::SYS_TO, {}), Ids{7});
  EXPECT_EQ(got.get(kl::SYS_FROM, {}), (Ids{24, 0}));
  EXPECT_TRUE(kl::isReply(got));
}

TEST_F(RouterTest, AReplyThatNobodyAskedForIsNotDelivered) {
  EXPECT_EQ(route(b_, replyTo({10, 7}, 5)), "");
  (void)route(a_, request({24, 0}, kl::CMD_GET, 5, {7}));
  (void)takeMessages(b_);
  (void)route(b_, replyTo({10, 7}, 6));      // another id
  (void)route(b_, replyTo({10, 8}, 5));      // another handler
  (void)route(other_, replyTo({10, 7}, 5));  // another service
  (void)route(b_, replyTo({99, 7}, 5));      // nobody: no error about a reply
  EXPECT_TRUE(takeMessages(a_).empty());
  EXPECT_TRUE(takeMessages(b_).empty());
  (void)route(b_, replyTo({10, 7}, 5));
  (void)route(b_, replyTo({10, 7}, 5));  // once only
  EXPECT_EQ(takeMessages(a_).size(), 1u);
}

TEST_F(RouterTest, AForgedReturnPathBeginsWithTheTruth) {
  (void)route(a_, request({24, 0}, kl::CMD_GET, 5, {30, 7}));
  EXPECT_EQ(takeOnly(b_).get(kl::SYS_FROM, {}), (Ids{10, 30, 7}));
}

TEST_F(RouterTest, AReplyToTheLongestReturnPathIsNoGarbage) {
  EXPECT_EQ(route(a_, request({24}, kl::CMD_GET, 5, Ids(31, 7))), "");
  EXPECT_EQ(route(b_, replyTo(takeOnly(b_).get(kl::SYS_FROM, {}), 5)), "");
  EXPECT_EQ(takeOnly(a_).get(kl::SYS_TO, {}), Ids(31, 7));
  EXPECT_NE(route(a_, request({24}, kl::CMD_GET, 6, Ids(32, 7))), "");  // the reply's path would be too long
  EXPECT_TRUE(takeMessages(b_).empty());
}

TEST_F(RouterTest, AProcessMayAddressItselfByItsId) {
  (void)route(a_, request({10, 3}, kl::CMD_GET, 5, {7}));
  const kl::message got = takeOnly(a_);
  EXPECT_EQ(got.get(kl::SYS_TO, {}), Ids{3});
  EXPECT_EQ(got.get(kl::SYS_FROM, {}), (Ids{10, 7}));
  (void)route(a_, replyTo({10, 7}, 5, {3}));
  EXPECT_TRUE(kl::isReply(takeOnly(a_)));
}

TEST_F(RouterTest, PathAllReachesEveryOtherProcess) {
  (void)route(a_, notification({kl::PATH_ALL, 4}, {7}));
  for (Service* s : {&b_, &other_}) {
    const kl::message got = takeOnly(*s);
    EXPECT_EQ(got.get(kl::SYS_TO, {}), Ids{4});
    EXPECT_EQ(got.get(kl::SYS_FROM, {}), (Ids{10, 7}));
  }
  EXPECT_TRUE(a_.out.empty());
}

TEST_F(RouterTest, EachCopyOfARequestToAllMayBeAnswered) {
  (void)route(a_, request({kl::PATH_ALL}, kl::CMD_GET, 5, {7}));
  (void)route(b_, replyTo({10, 7}, 5));
  (void)route(other_, replyTo({10, 7}, 5));
  (void)route(other_, replyTo({10, 7}, 5));
  EXPECT_EQ(takeMessages(a_).size(), 2u);
}

TEST_F(RouterTest, PathMultiReachesEachSubPathWithItsOwnPath) {
  (void)route(a_, notification({kl::PATH_MULTI, 2, 24, 5, 1, 30, 3, 24, 6, 7}, {8}));
  const std::vector<kl::message> got = takeMessages(b_);
  ASSERT_EQ(got.size(), 2u);
  EXPECT_EQ(got[0].get(kl::SYS_TO, {}), Ids{5});
  EXPECT_EQ(got[1].get(kl::SYS_TO, {}), (Ids{6, 7}));
  EXPECT_EQ(got[1].get(kl::SYS_FROM, {}), (Ids{10, 8}));
  EXPECT_EQ(takeOnly(other_).get(kl::SYS_TO, Ids{9}), Ids{});
}

TEST_F(RouterTest, AMalformedPathMultiDeliversNothing) {
  const Ids tooLong = [] {
    Ids path{kl::PATH_MULTI, 1, 24, 33};
    path.resize(path.size() + 33, 24);
    return path;
  }();
  for (const Ids& path :
       {Ids{kl::PATH_MULTI, 2, 24, 5, 0}, Ids{kl::PATH_MULTI, 2, 24, 5, 2, 30},
        Ids{kl::PATH_MULTI, 1, 24, 1, kl::PATH_SELF}, Ids{kl::PATH_MULTI, 1, 24, 1, kl::PATH_ALL},
        Ids{kl::PATH_MULTI, 1, 24, 2, kl::PATH_MULTI, 1}, Ids{kl::PATH_MULTI, 1, 24, 0xffffffff},
        Ids{kl::PATH_MULTI, 0}, Ids{kl::PATH_MULTI}, tooLong}) {
    EXPECT_EQ(route(a_, notification(path)), "");
    EXPECT_TRUE(takeMessages(b_).empty());
    EXPECT_TRUE(takeMessages(other_).empty());
    EXPECT_TRUE(takeMessages(a_).empty());
  }
}

TEST_F(RouterTest, AnUnknownFirstHopIsABrokenPath) {
  (void)route(a_, request({99, 3}, kl::CMD_GET, 5, {7}));
  const kl::message got = takeOnly(a_);
  EXPECT_EQ(errorOf(got), kl::ERROR_BRKPATH);
  EXPECT_TRUE(kl::isReply(got));
  EXPECT_EQ(got.get(kl::SYS_REQID, 0), 5u);
  EXPECT_EQ(got.get(kl::SYS_TO, {}), Ids{7});
  EXPECT_EQ(got.get(kl::SYS_FROM, {}), (Ids{99, 3}));
}

TEST_F(RouterTest, WhoExpectsNoReplyGetsANotice) {
  (void)route(a_, notification({99, 3}, {7}));
  const kl::message got = takeOnly(a_);
  EXPECT_EQ(errorOf(got), kl::ERROR_BRKPATH);
  EXPECT_FALSE(got.has(kl::SYS_TYPE));
  EXPECT_FALSE(got.has(kl::SYS_REQID));
  EXPECT_EQ(got.get(kl::SYS_TO, {}), Ids{7});
  EXPECT_EQ(got.get(kl::SYS_FROM, {}), (Ids{99, 3}));
}

TEST_F(RouterTest, NothingIsSentAboutANotice) {
  kl::message notice = kl::errorMsg(kl::ERROR_BRKPATH, "");
  notice.insert(kl::SYS_TO, {99});
  (void)route(a_, notice);
  EXPECT_TRUE(takeMessages(a_).empty());
}

TEST_F(RouterTest, ANoticeWithARequestIdIsNoRequest) {
  kl::message notice = kl::errorMsg(kl::ERROR_BRKPATH, "");
  notice.insert(kl::SYS_TO, {24});
  notice.insert(kl::SYS_REQID, 5);
  notice.insert(kl::SYS_REPLYEXP, true);
  (void)route(a_, notice);
  EXPECT_EQ(takeMessages(b_).size(), 1u);
  EXPECT_EQ(requests_.size(), 0u);
  b_.disconnect();
  router_.onServiceGone(b_);
  router_.announceEnds();
  EXPECT_EQ(takeOnly(a_).get(kl::SYS_CMD, 0), kl::CMD_DISCONNECTED);  // and no error
}

TEST_F(RouterTest, WhoHasEndedIsABrokenPathForThoseWhoWaitAndThenNews) {
  b_.isConfigured = true;
  (void)route(a_, request({24, 0}, kl::CMD_GET, 5, {7}));
  kl::message silent = request({24, 0}, kl::CMD_GET, 6, {7});
  silent.remove(kl::SYS_REPLYEXP);
  (void)route(a_, silent);
  b_.disconnect();
  router_.onServiceGone(b_);
  EXPECT_TRUE(other_.out.empty());
  router_.announceEnds();
  const std::vector<kl::message> got = takeMessages(a_);
  ASSERT_EQ(got.size(), 2u);
  EXPECT_EQ(errorOf(got[0]), kl::ERROR_BRKPATH);
  EXPECT_EQ(got[0].get(kl::SYS_REQID, 0), 5u);
  EXPECT_EQ(got[0].get(kl::SYS_TO, {}), Ids{7});
  EXPECT_EQ(got[0].get(kl::SYS_FROM, {}), (Ids{24, 0}));
  EXPECT_EQ(got[1].get(kl::SYS_CMD, 0), kl::CMD_DISCONNECTED);
  EXPECT_EQ(got[1].get(kl::SYS_FROM, {}), Ids{24});
  EXPECT_EQ(takeOnly(other_).get(kl::SYS_CMD, 0), kl::CMD_DISCONNECTED);
  EXPECT_EQ(requests_.size(), 0u);
  (void)route(a_, request({24, 0}, kl::CMD_GET, 7, {7}));
  EXPECT_EQ(errorOf(takeOnly(a_)), kl::ERROR_BRKPATH);
}

TEST_F(RouterTest, WhoSentToTheEndedOrGotFromItHearsOfItAndNobodyElse) {
  Service& peer = connected(table_, 31);
  (void)route(a_, notification({24}));
  (void)route(b_, notification({30}));
  for (Service* s : {&b_, &other_}) (void)takeMessages(*s);
  b_.disconnect();
  router_.onServiceGone(b_);
  router_.announceEnds();
  for (Service* s : {&a_, &other_}) EXPECT_EQ(takeOnly(*s).get(kl::SYS_FROM, {}), Ids{24});
  EXPECT_TRUE(peer.out.empty());
}

TEST_F(RouterTest, WhatIsSentToAllMakesAnAcquaintanceOfEverybodyThere) {
  (void)route(a_, notification({kl::PATH_ALL}));
  Service& late = connected(table_, 31);
  for (Service* s : {&b_, &other_}) (void)takeMessages(*s);
  a_.disconnect();
  router_.onServiceGone(a_);
  router_.announceEnds();
  for (Service* s : {&b_, &other_}) EXPECT_EQ(takeOnly(*s).get(kl::SYS_FROM, {}), Ids{10});
  EXPECT_TRUE(late.out.empty());
}

TEST_F(RouterTest, WhatIsDeliveredIsCountedForItsSender) {
  Service& loader = connected(table_, 1);
  outbox_.setSender(loader);
  (void)route(a_, notification({24}));
  (void)route(a_, request({24, 0}, kl::CMD_GET, 5, {7}));
  (void)route(b_, replyTo({10, 7}, 5));
  (void)route(b_, replyTo({10, 7}, 5));  // nobody waits for it
  (void)route(a_, request({99}, kl::CMD_GET, 6, {7}));
  (void)route(b_, request({1}, kl::CMD_GETALL, 5, {7}));
  EXPECT_EQ(messagesFrom(10, b_), 2u);
  EXPECT_EQ(messagesFrom(24, a_), 1u);
  EXPECT_EQ(messagesFrom(1, a_), 1u) << "that nobody is there";
  EXPECT_EQ(messagesFrom(24, loader), 1u);
  for (const Service* to : {&a_, &b_, &loader}) EXPECT_EQ(bytesOfSenders(*to), to->traffic.bytesIn) << to->id;
}

TEST_F(RouterTest, WhatAStrangerSentCountsAmongTheOthersWhenItHasGone) {
  Service& loader = connected(table_, 1);
  Service& known = connected(table_, 31);
  b_.isConfigured = true;
  (void)route(a_, notification({kl::PATH_ALL}));
  (void)route(a_, request({1}, kl::CMD_GETALL, 5, {7}));
  (void)route(known, notification({24}));
  for (unsigned int id = 1000; !known.acquaintances.isEverybody(); ++id) known.acquaintances.add(id);
  for (Service* gone : {&a_, &known}) {
    gone->disconnect();
    router_.onServiceGone(*gone);
  }
  for (const Service* to : {&loader, &b_, &other_}) {
    EXPECT_TRUE(to->senders.all().empty()) << to->id;
    EXPECT_EQ(bytesOfSenders(*to), to->traffic.bytesIn) << to->id;
  }
}

TEST_F(RouterTest, WhatAConfiguredServiceSentIsRememberedForItsNextProcess) {
  a_.isConfigured = true;
  (void)route(a_, notification({24}));
  a_.disconnect();
  router_.onServiceGone(a_);
  EXPECT_EQ(messagesFrom(10, b_), 1u);
}

TEST_F(RouterTest, WhoseMessageWasRefusedIsNoAcquaintance) {
  (void)route(a_, request({99}, kl::CMD_GET, 5, {7}));
  Service& late = connected(table_, 99);
  (void)takeMessages(a_);
  late.disconnect();
  router_.onServiceGone(late);
  router_.announceEnds();
  EXPECT_TRUE(a_.out.empty());
}

TEST_F(RouterTest, WhoHasEndedIsNotAnswered) {
  (void)route(a_, request({24, 0}, kl::CMD_GET, 5, {7}));
  a_.disconnect();
  router_.onServiceGone(a_);
  EXPECT_EQ(requests_.size(), 0u);
  (void)takeMessages(b_);
  (void)route(b_, replyTo({10, 7}, 5));
  EXPECT_TRUE(a_.out.empty());
  EXPECT_TRUE(takeMessages(b_).empty());
}

TEST_F(RouterTest, ControlMessagesAreForTheLoaderAlone) {
  kl::message m;
  m.insert(kl::SYS_CTRL, 6);
  for (const Ids& path : {Ids{24}, Ids{1, 0}, Ids{kl::PATH_ALL}, Ids{kl::PATH_MULTI, 1, 1}}) {
    m.insert(kl::SYS_TO, path);
    EXPECT_EQ(route(a_, m), "sent a control message for somebody else");
  }
  EXPECT_TRUE(takeMessages(b_).empty());
}

TEST_F(RouterTest, ASecondRegistrationIsAFault) {
  kl::message m;
  m.insert(kl::SYS_TO, {1});
  m.insert(kl::SYS_CTRL, kl::CTRL_HELLO);
  EXPECT_EQ(route(a_, m), "sent a second registration");
}

TEST_F(RouterTest, ControlCodesGoToTheLifecycleAlsoUnknownOnes) {
  kl::message m;
  m.insert(kl::SYS_TO, {1});
  const Ids codes{1, 2, 3, 4, 6, 7, 8, 77};
  for (const unsigned int code : codes) {
    m.insert(kl::SYS_CTRL, code);
    EXPECT_EQ(route(a_, m), "") << code;
  }
  EXPECT_EQ(codes_, codes);
}

TEST_F(RouterTest, GarbageIsNamed) {
  EXPECT_EQ(routeBytes(a_, {}), "sent bytes that are no message");
  EXPECT_EQ(route(a_, kl::message()), "sent a message without a path");
}

TEST_F(RouterTest, RequestsToTheLoaderReachItsOwnService) {
  table_.add(1);
  (void)route(a_, request({1}, kl::CMD_GETALL, 5, {7}));
  (void)route(a_, request({1, 0}, kl::CMD_GETALL, 6, {7}));
  ASSERT_EQ(asked_.size(), 2u);
  EXPECT_EQ(table_.find(1)->traffic.messagesIn, 2u);
  EXPECT_EQ(callers_, (Ids{10, 10}));
  EXPECT_EQ(asked_[0].get(kl::SYS_FROM, {}), (Ids{10, 7}));
  EXPECT_EQ(asked_[0].get(kl::SYS_TO, Ids{5}), Ids{});
}

TEST_F(RouterTest, AListOfPathsReachesTheLoaderOnce) {
  (void)route(a_, request({kl::PATH_MULTI, 1, 1, 2, 1, 0, 1, 24, 1, 1}, kl::CMD_GETALL, 5, {7}));
  EXPECT_EQ(asked_.size(), 1u);
  EXPECT_EQ(takeMessages(b_).size(), 1u);
}

TEST_F(RouterTest, WhoEndsItselfInTheMiddleOfAListSaysNothingMore) {
  endsItsCaller_ = true;
  (void)route(a_, request({kl::PATH_MULTI, 1, 30, 1, 1, 1, 24}, kl::CMD_GETALL, 5, {7}));
  EXPECT_EQ(takeMessages(other_).size(), 1u);
  EXPECT_EQ(asked_.size(), 1u);
  EXPECT_TRUE(takeMessages(b_).empty());
  EXPECT_EQ(b_.requests.servingCount, 0u);
}

TEST_F(RouterTest, TheLoadersDescriptionIsAtAHandlerOfItsOwn) {
  (void)route(a_, request({1, kl::HANDLER_DESCRIPTION}, kl::CMD_GET, 5, {7}));
  ASSERT_EQ(asked_.size(), 1u);
  EXPECT_EQ(asked_[0].get(kl::SYS_TO, {}), Ids{kl::HANDLER_DESCRIPTION});
  (void)route(a_, request({1, kl::HANDLER_DESCRIPTION, 0}, kl::CMD_GET, 5, {7}));
  EXPECT_EQ(errorOf(takeOnly(a_)), kl::ERROR_BRKPATH);
}

TEST_F(RouterTest, TheOpenRequestsAreAtAHandlerOfTheLoader) {
  (void)route(a_, request({1, kl::LOADER_REQUESTS}, kl::CMD_GETALL, 5, {7}));
  ASSERT_EQ(asked_.size(), 1u);
  EXPECT_EQ(asked_[0].get(kl::SYS_TO, {}), Ids{kl::LOADER_REQUESTS});
}

TEST_F(RouterTest, TheTrafficIsAtAHandlerOfTheLoader) {
  (void)route(a_, request({1, kl::LOADER_TRAFFIC}, kl::CMD_GETALL, 5, {7}));
  ASSERT_EQ(asked_.size(), 1u);
  EXPECT_EQ(asked_[0].get(kl::SYS_TO, {}), Ids{kl::LOADER_TRAFFIC});
}

TEST_F(RouterTest, AnOpenRequestRemembersWhatWasAskedAndWhen) {
  router_.setNow({7, 250});
  (void)route(a_, request({24, 0}, kl::CMD_GETALL, 5, {7}));
  const loader::OpenRequest* open = requests_.oldestTo(b_);
  ASSERT_NE(open, nullptr);
  EXPECT_EQ(open->command, kl::CMD_GETALL);
  EXPECT_EQ(open->since.millisecondsSince({7, 0}), 250u);
  EXPECT_EQ(a_.lastSent, 7u);
}

TEST_F(RouterTest, ARequestOfOneWhoIsAskedToOneWhoAsksMayCloseACircle) {
  (void)route(a_, request({24}, kl::CMD_GET, 5, {7}));
  (void)route(b_, request({30}, kl::CMD_GET, 5, {7}));  // a chain is none
  (void)route(a_, request({30}, kl::CMD_GET, 6, {7}));
  EXPECT_EQ(chains_, 0);
  (void)route(other_, request({10}, kl::CMD_GET, 5, {7}));
  EXPECT_EQ(chains_, 1);
}

TEST_F(RouterTest, TheLoaderHearsWhoHasAnsweredIt) {
  (void)route(b_, replyTo({1, kl::LOADER_REQUESTS}, 77));
  EXPECT_EQ(answered_, (std::map<unsigned int, unsigned int>{{24, 77}}));
  EXPECT_TRUE(takeMessages(b_).empty());
}

TEST_F(RouterTest, TheLoaderHasNoOtherHandler) {
  (void)route(a_, request({1, 5}, kl::CMD_GETALL, 5, {7}));
  EXPECT_TRUE(asked_.empty());
  const kl::message got = takeOnly(a_);
  EXPECT_EQ(errorOf(got), kl::ERROR_BRKPATH);
  EXPECT_EQ(got.get(kl::SYS_FROM, {}), (Ids{1, 5}));
}

TEST_F(RouterTest, RepliesAndNoticesToTheLoaderVanish) {
  (void)route(a_, replyTo({1}, 5));
  kl::message notice = kl::errorMsg(kl::ERROR_BRKPATH, "");
  notice.insert(kl::SYS_TO, {1});
  (void)route(a_, notice);
  EXPECT_TRUE(asked_.empty());
  EXPECT_TRUE(takeMessages(a_).empty());
}

TEST_F(RouterTest, ForgedRightsAreReplacedInRequests) {
  a_.rights = loader::equalRights("bob", Rights::of(64));
  kl::message m = request({24}, kl::CMD_SET, 5);
  m.insert(kl::SYS_USER, "root");
  m.insert(kl::SYS_POLICY, 0xffffffff);
  (void)route(a_, m);
  (void)route(a_, request({24}, kl::CMD_SET, 6));
  for (const kl::message& got : takeMessages(b_)) {
    EXPECT_EQ(got.get(kl::SYS_USER, ""), "bob");
    EXPECT_EQ(got.get(kl::SYS_POLICY, 0), 64u);
  }
  m.insert(kl::SYS_TO, {1});
  (void)route(a_, m);
  EXPECT_EQ(asked_.at(0).get(kl::SYS_POLICY, 0), 64u);
  EXPECT_EQ(asked_.at(0).get(kl::SYS_USER, ""), "bob");
}

TEST_F(RouterTest, ARequestWithoutAnyRightIsAnsweredByTheLoaderAndNotDelivered) {
  a_.rights = loader::equalRights("bob", Rights::nothing());
  (void)route(a_, request({24, 3}, kl::CMD_GET, 5, {7}));
  (void)route(a_, request({1}, kl::CMD_GETALL, 6, {7}));
  EXPECT_TRUE(takeMessages(b_).empty());
  EXPECT_TRUE(asked_.empty());
  const std::vector<kl::message> answers = takeMessages(a_);
  ASSERT_EQ(answers.size(), 2u);
  EXPECT_EQ(answers[0].get(kl::SYS_FROM, {}), (Ids{24, 3}));
  EXPECT_EQ(answers[1].get(kl::SYS_FROM, {}), Ids{1});
  for (unsigned int i = 0; i < 2; ++i) {
    EXPECT_TRUE(kl::isReply(answers[i]));
    EXPECT_EQ(errorOf(answers[i]), kl::ERROR_NOTALLOWED);
    EXPECT_EQ(answers[i].get(kl::SYS_ERRSTR, ""), "has no rights there");
    EXPECT_EQ(answers[i].get(kl::SYS_REQID, 0), 5 + i);
    EXPECT_EQ(answers[i].get(kl::SYS_TO, {}), Ids{7});
  }
  EXPECT_EQ(requests_.size(), 0u);
}

TEST_F(RouterTest, OnADenialOnlyWhoCanTakeAnAnswerGetsOne) {
  a_.rights = loader::equalRights("bob", Rights::nothing());
  (void)route(a_, notification({24}));
  (void)route(a_, request({24}, kl::CMD_SUBSCRIBE, 5));
  EXPECT_TRUE(takeMessages(b_).empty());
  for (const kl::message& m : takeMessages(a_)) EXPECT_EQ(m.get(kl::SYS_REQID, 0), 5u);
}

TEST_F(RouterTest, RepliesAndMessagesWithoutACommandNeedNoRights) {
  a_.rights = loader::equalRights("bob", Rights::nothing());
  (void)route(b_, request({10}, kl::CMD_GET, 5, {7}));
  (void)takeOnly(a_);
  (void)route(a_, replyTo({24, 7}, 5));
  EXPECT_TRUE(kl::isReply(takeOnly(b_)));
  kl::message plain;
  plain.insert(kl::SYS_TO, {24});
  (void)route(a_, plain);
  EXPECT_EQ(takeMessages(b_).size(), 1u);
}

TEST_F(RouterTest, CopiesAreDecidedForEachDestination) {
  a_.rights = loader::equalRights("bob", Rights::of(64));
  a_.rights.grants.push_back({Rights::nothing(), {}});
  other_.rules.accessList = 1;
  for (const Ids& path : {Ids{kl::PATH_ALL, 4}, Ids{kl::PATH_MULTI, 2, 24, 4, 2, 30, 4}}) {
    (void)route(a_, request(path, kl::CMD_GET, 5, {7}));
    EXPECT_EQ(takeOnly(b_).get(kl::SYS_POLICY, 0), 64u);
    EXPECT_TRUE(takeMessages(other_).empty());
    const kl::message denial = takeOnly(a_);
    EXPECT_EQ(errorOf(denial), kl::ERROR_NOTALLOWED);
    EXPECT_EQ(denial.get(kl::SYS_FROM, {}), (Ids{30, 4}));
  }
  EXPECT_EQ(a_.traffic.denials, 2u);
  EXPECT_EQ(other_.traffic.denials, 0u) << "it has sent nothing";
}

TEST_F(RouterTest, ADeniedRequestStartsNobody) {
  a_.rights = loader::equalRights("bob", Rights::nothing());
  Service& away = heldFor(table_, 40, kl::SVC_STATE_LEFT);
  (void)route(a_, request({40}, kl::CMD_GET, 5, {7}));
  EXPECT_EQ(errorOf(takeOnly(a_)), kl::ERROR_NOTALLOWED);
  EXPECT_TRUE(away.held.empty());
  EXPECT_TRUE(needed_.empty());
}

TEST_F(RouterTest, ADeniedRequestKeepsNobodyFromLeaving) {
  const auto lastActive = [&](unsigned int now, const kl::message& m) {
    router_.setNow(now);
    (void)route(a_, m);
    return b_.lastActive;
  };
  EXPECT_EQ(lastActive(100, request({24}, kl::CMD_GET, 5)), 100u);
  EXPECT_EQ(lastActive(200, request({kl::PATH_ALL}, kl::CMD_NOOP, 6)), 100u);
  a_.rights = loader::equalRights("bob", Rights::nothing());
  EXPECT_EQ(lastActive(300, request({24}, kl::CMD_GET, 7)), 100u);
}

TEST_F(RouterTest, ARequestOfTheTrustedCarriesTheirNameUnlessItNamesSomebody) {
  a_.rights = loader::trustedRights("root");
  kl::message m = request({24}, kl::CMD_SET, 5);
  m.insert(kl::SYS_POLICY, 128);
  (void)route(a_, m);
  kl::message got = takeOnly(b_);
  EXPECT_EQ(got.get(kl::SYS_USER, ""), "root");
  EXPECT_EQ(got.get(kl::SYS_POLICY, 0), 128u);
  m.insert(kl::SYS_USER, "bob");
  (void)route(a_, m);
  EXPECT_EQ(takeOnly(b_).get(kl::SYS_USER, ""), "bob");
  (void)route(a_, request({1}, kl::CMD_GETALL, 6));
  EXPECT_EQ(asked_.at(0).get(kl::SYS_USER, ""), "root");
  EXPECT_FALSE(asked_.at(0).has(kl::SYS_POLICY));
}

// Frames of records that nobody would write, some of them with a byte changed or their end cut off.
class RandomFrames {
 public:
  explicit RandomFrames(unsigned int seed) : random_(seed) {}

  std::vector<unsigned char> next() {
    std::vector<unsigned char> frame{0x4d, 0x32};
    addPath(frame);
    for (unsigned int records = below(6); records > 0; --records) addRecord(frame);
    const auto size = static_cast<unsigned int>(frame.size());
    if (below(4) == 0) frame[below(size)] = static_cast<unsigned char>(below(256));
    if (below(8) == 0) frame.resize(below(size));
    return frame;
  }

 private:
  unsigned int below(unsigned int end) { return static_cast<unsigned int>(random_() % end); }

  void add(std::vector<unsigned char>& frame, unsigned int value, int bytes = 4) {
    for (int i = 0; i < bytes; ++i) frame.push_back(static_cast<unsigned char>(value >> 8 * i));
  }

  void addPath(std::vector<unsigned char>& frame) {
    const Ids hops{24, 30, 10, 1, 99, kl::PATH_ALL, kl::PATH_MULTI, kl::PATH_SELF};
    add(frame, kl::SYS_TO);
    const unsigned int size = below(5);
    add(frame, size, 2);
    for (unsigned int i = 0; i < size; ++i) add(frame, below(2) == 0 ? hops[below(8)] : 1 + below(2));
  }

  // Any system field, sometimes with the type of another.
  void addRecord(std::vector<unsigned char>& frame) {
    const Ids types{0x08000000, 0x20000000, 0x00000000, 0x88000000};
    const Ids numbersOfType[] = {{3, 4, 6, 7, 8, 11, 13, 15, 17}, {9, 10}, {5, 12, 14, 16}, {2, 14, 18}};
    const unsigned int choice = below(4);
    const unsigned int type = types[choice];
    const Ids& numbers = numbersOfType[choice];
    const bool isTyped = below(8) != 0;
    const unsigned int number =
        isTyped ? numbers[below(static_cast<unsigned int>(numbers.size()))] : 1 + below(18);
    add(frame, type | 0x01000000 * (type < 0x80000000 ? 1U : 0U) | 0xff0000 | number);
    if (type == 0x08000000) add(frame, 1 + below(2), 1);
    if (type == 0x20000000) add(frame, 0x6101, 2);  // "a"
    if (type == 0x88000000) add(frame, 1, 2), add(frame, below(3));
  }

  std::minstd_rand random_;
};

TEST_F(RouterTest, RandomFramesAreGarbageOrArriveUnderTheRightsAndTheNameOfTheirSender) {
  a_.rights = loader::equalRights("bob", Rights::of(64));
  RandomFrames random(4711);
  int arrived = 0;
  for (int i = 0; i < 20000; ++i) {
    (void)routeBytes(a_, random.next());
    (void)takeFrames(a_);  // errors, and what it sent to itself
    for (Service* to : {&b_, &other_})
      for (const std::vector<unsigned char>& frame : takeFrames(*to)) {
        kl::RecordWalk walk(frame);
        for (kl::Record ignored; walk.next(ignored);) {
        }
        ASSERT_TRUE(walk.ok()) << "frame " << i;
        const kl::message got(frame);
        ASSERT_EQ(got.get(kl::SYS_FROM, {}).at(0), 10u) << "frame " << i;
        ASSERT_FALSE(got.has(kl::SYS_CTRL)) << "frame " << i;
        ++arrived;
        if (kl::isReply(got) || !got.has(kl::SYS_CMD)) continue;
        ASSERT_EQ(got.get(kl::SYS_USER, ""), "bob") << "frame " << i;
        ASSERT_EQ(got.get(kl::SYS_POLICY, 0), 64u) << "frame " << i;
      }
  }
  EXPECT_GT(arrived, 1000);
}

TEST_F(RouterTest, ASlowReaderGetsRepliesButRequestsToItAreBusyAndNotificationsAreCounted) {
  (void)route(b_, request({30, 1}, kl::CMD_GET, 9, {2}));
  fill(b_);
  const std::size_t full = b_.out.size();
  (void)route(a_, request({24, 3}, kl::CMD_GET, 5, {7}));
  const kl::message got = takeOnly(a_);
  EXPECT_EQ(errorOf(got), kl::ERROR_BUSY);
  EXPECT_TRUE(kl::isReply(got));
  EXPECT_EQ(got.get(kl::SYS_REQID, 0), 5u);
  EXPECT_EQ(got.get(kl::SYS_FROM, {}), (Ids{24, 3}));
  EXPECT_EQ(requests_.size(), 1u);  // only the one that b_ asked
  (void)route(a_, notification({24}));
  EXPECT_EQ(b_.traffic.drops, 1u);
  EXPECT_EQ(b_.out.size(), full);
  (void)route(other_, replyTo({24, 2}, 9));
  EXPECT_GT(b_.out.size(), full);
}

TEST_F(RouterTest, AQueueThatOneSenderHasFilledStillTakesARequestOfAnother) {
  fillPart(b_, other_);
  (void)route(other_, request({24, 3}, kl::CMD_GET, 5, {7}));
  EXPECT_EQ(errorOf(takeOnly(other_)), kl::ERROR_BUSY);
  (void)route(a_, request({24, 3}, kl::CMD_GET, 6, {7}));
  EXPECT_TRUE(a_.out.empty());
  EXPECT_EQ(takeMessages(b_).back().get(kl::SYS_REQID, 0), 6u);
  (void)route(other_, request({24, 3}, kl::CMD_GET, 7, {7}));  // the queue is empty again
  EXPECT_EQ(takeOnly(b_).get(kl::SYS_REQID, 0), 7u);
}

TEST_F(RouterTest, TheConnectionsOfAnOrdinaryUserAreOneSender) {
  for (unsigned int id = 5000; id < 5030; ++id) {
    Service& greedy = connected(table_, id);
    greedy.uid = 4711;
    if (id == 5000) fillPart(b_, greedy);
    EXPECT_TRUE(outbox_.isFull(b_, greedy));
  }
  Service& another = connected(table_, 6000);
  another.uid = 4712;
  EXPECT_FALSE(outbox_.isFull(b_, another));
  EXPECT_FALSE(outbox_.isFull(b_, a_));
}

TEST_F(RouterTest, RepliesCountForWhoAskedForThem) {
  for (unsigned int i = 0; i < 5; ++i) {
    (void)route(b_, request({30, 1}, kl::CMD_GET, i, {2}));
    kl::message reply = replyTo({24, 2}, i);
    reply.insert_raw(0x30000001, std::vector<unsigned char>(500));
    (void)route(other_, reply);
  }
  EXPECT_GT(b_.out.size(), kLimit / 2);
  EXPECT_FALSE(outbox_.isFull(b_, other_));
  EXPECT_TRUE(outbox_.isFull(b_, b_)) << "it asked";
}

TEST_F(RouterTest, WhatIsHeldForANextProcessCountsForItsSenders) {
  setLeaving(b_, true);
  fillPart(b_, other_);
  EXPECT_FALSE(outbox_.isFull(b_, a_));
  b_.disconnect();
  router_.onServiceLeft(b_);
  EXPECT_TRUE(outbox_.isFull(b_, other_));
  EXPECT_FALSE(outbox_.isFull(b_, a_));
}

TEST_F(RouterTest, AListOfPathsIsWorkedOffInPartsAndInItsOrder) {
  Ids path{kl::PATH_MULTI};
  for (unsigned int i = 0; i < 1000; ++i) path.insert(path.end(), {2, 24, i, 1, 1});
  const auto body = flat(notification(path, {8}));
  Router::Progress progress;
  unsigned int parts = 0;
  std::vector<kl::message> got;
  do {
    outbox_.work().allow(10 * loader::Work::kFrame);
    ASSERT_EQ(router_.route(a_, body, progress), nullptr);
    const std::vector<kl::message> some = takeMessages(b_);
    EXPECT_LE(some.size(), 10u);
    got.insert(got.end(), some.begin(), some.end());
    ++parts;
  } while (progress.isUnfinished && parts < 2000);
  EXPECT_GE(parts, 100u);
  ASSERT_EQ(got.size(), 1000u);
  for (unsigned int i = 0; i < 1000; ++i) EXPECT_EQ(got[i].get(kl::SYS_TO, {}), Ids{i});
  EXPECT_EQ(asked_.size(), 1u) << "the loader takes one copy";
  EXPECT_EQ(a_.traffic.messagesOut, 1u);
}

TEST_F(RouterTest, AMessageToAllIsWorkedOffInParts) {
  for (unsigned int id = 5000; id < 5100; ++id) (void)connected(table_, id);
  const auto body = flat(notification({kl::PATH_ALL, 4}, {7}));
  Router::Progress progress;
  unsigned int parts = 0;
  do {
    outbox_.work().allow(10 * loader::Work::kFrame);
    ASSERT_EQ(router_.route(a_, body, progress), nullptr);
    ++parts;
  } while (progress.isUnfinished && parts < 2000);
  EXPECT_GE(parts, 10u);
  EXPECT_TRUE(a_.out.empty());
  for (const auto& [id, service] : table_.all())
    EXPECT_EQ(takeMessages(service->out).size(), id == 10 ? 0U : 1U) << id;
}

TEST_F(RouterTest, ARequestTooManyIsBusyUntilTheOldestIsOld) {
  router_.setNow(1000);
  for (unsigned int i = 0; i < Router::kMaxOpenRequests; ++i) {
    (void)route(a_, request({24}, kl::CMD_GET, i, {7}));
    (void)takeMessages(b_);
  }
  router_.setNow(1600);
  (void)route(a_, request({24}, kl::CMD_GET, 5000, {7}));
  EXPECT_EQ(errorOf(takeOnly(a_)), kl::ERROR_BUSY);
  EXPECT_TRUE(takeMessages(b_).empty());

  router_.setNow(1601);
  (void)route(a_, request({24, 2}, kl::CMD_GET, 5000, {7}));
  const kl::message old = takeOnly(a_);
  EXPECT_EQ(errorOf(old), kl::ERROR_TIMEOUT);
  EXPECT_EQ(old.get(kl::SYS_REQID, 77), 0u);
  EXPECT_EQ(takeOnly(b_).get(kl::SYS_REQID, 0), 5000u);
  EXPECT_EQ(a_.requests.madeCount, Router::kMaxOpenRequests);
  (void)route(other_, request({24}, kl::CMD_GET, 1, {7}));  // others are not concerned
  EXPECT_EQ(takeMessages(b_).size(), 1u);
}

class AccountedRouter : public RouterTest {
 protected:
  AccountedRouter() {
    a_.chargeTo(alice_);
    c_.chargeTo(alice_);
  }
  // Fills the queue of a_ with what it asked for and does not read.
  void fillWithReplies() {
    while (outbox_.canAnswer(a_)) askAndAnswer(1000);
  }
  void askAndAnswer(unsigned int bytes) {
    ASSERT_EQ(route(a_, request({24, 3}, kl::CMD_GET, 7, {5})), "");
    ASSERT_EQ(takeFrames(b_).size(), 1u);
    kl::message reply = replyTo(request({24, 3}, kl::CMD_GET, 7, {10, 5}));
    reply.insert_raw(0x30000001, std::vector<unsigned char>(bytes));
    ASSERT_EQ(route(b_, reply), "");
  }
  kl::message lastOf(Service& service) {
    const auto all = takeMessages(service);
    return all.empty() ? kl::message() : all.back();
  }

  loader::Account& alice_ = accounts_.ofUser(1000, 0);
  Service& c_ = connected(table_, 11);
};

TEST_F(AccountedRouter, WhoHasNoRoomForAReplyIsBusyBeforeItIsWorkedOn) {
  fillWithReplies();
  ASSERT_EQ(route(a_, request({24, 3}, kl::CMD_GET, 8, {5})), "");
  EXPECT_TRUE(takeFrames(b_).empty());
  const kl::message refused = lastOf(a_);
  EXPECT_EQ(errorOf(refused), kl::ERROR_BUSY);
  EXPECT_EQ(refused.get(kl::SYS_REQID, 0), 8u);
  EXPECT_EQ(refused.get(kl::SYS_TO, {}), (Ids{5}));
  EXPECT_EQ(refused.get(kl::SYS_FROM, {}), (Ids{24, 3}));
}

TEST_F(AccountedRouter, TheLoaderMakesNoReplyThatItsCallerHasNoRoomFor) {
  fillWithReplies();
  ASSERT_EQ(route(a_, request({1}, kl::CMD_GETALL, 9, {5})), "");
  EXPECT_TRUE(asked_.empty());
  const kl::message refused = lastOf(a_);
  EXPECT_EQ(errorOf(refused), kl::ERROR_BUSY);
  EXPECT_EQ(refused.get(kl::SYS_REQID, 0), 9u);
  ASSERT_EQ(route(a_, request({1}, kl::CMD_GETALL, 10, {5})), "");
  EXPECT_EQ(asked_.size(), 1u) << "it has read";
}

TEST_F(AccountedRouter, AReplyWithoutRoomBecomesAShortOneThatSaysSo) {
  for (unsigned int id = 1; id <= 8; ++id) ASSERT_EQ(route(a_, request({24, 3}, kl::CMD_GET, id, {5})), "");
  ASSERT_EQ(takeFrames(b_).size(), 8u);
  for (unsigned int id = 1; id <= 8; ++id) {
    kl::message reply = replyTo(request({24, 3}, kl::CMD_GET, id, {10, 5}));
    reply.insert_raw(0x30000001, std::vector<unsigned char>(60000));
    ASSERT_EQ(route(b_, reply), "");
  }
  const auto replies = takeMessages(a_);
  ASSERT_EQ(replies.size(), 8u);
  EXPECT_EQ(errorOf(replies[0]), kl::ERROR_OK);
  EXPECT_EQ(errorOf(replies[7]), kl::ERROR_BUSY);
  EXPECT_EQ(replies[7].get(kl::SYS_REQID, 0), 8u);
  EXPECT_EQ(replies[7].get(kl::SYS_TO, {}), (Ids{5}));
  EXPECT_TRUE(kl::isReply(replies[7]));
  EXPECT_EQ(requests_.size(), 0u);
}

TEST_F(AccountedRouter, OpenRequestsOfAllConnectionsOfAUserCount) {
  for (unsigned int id = 1; id <= 5; ++id) {
    ASSERT_EQ(route(a_, request({24}, kl::CMD_GET, id, {5})), "");
    ASSERT_EQ(route(c_, request({24}, kl::CMD_GET, id, {5})), "");
  }
  EXPECT_EQ(requests_.size(), 10u);
  ASSERT_EQ(route(c_, request({24}, kl::CMD_GET, 6, {5})), "");
  EXPECT_EQ(errorOf(takeOnly(c_)), kl::ERROR_BUSY);
  ASSERT_EQ(route(b_, replyTo(request({24}, kl::CMD_GET, 1, {10, 5}))), "");
  ASSERT_EQ(route(c_, request({24}, kl::CMD_GET, 7, {5})), "");
  EXPECT_EQ(requests_.size(), 10u);
  router_.breakPathsTo(b_);
  EXPECT_EQ(alice_.used(loader::Resource::kRequests), 0u);
}

TEST_F(AccountedRouter, WhatAGatewayAsksForOthersIsTakenFromItsOwnAccount) {
  const auto users = std::make_shared<loader::UsersSpokenFor>();
  users->add("bob", loader::equalRights("bob", Rights::of(64)));
  a_.rights = loader::equalRights("web", Rights::of(64));
  a_.rights.speaksFor = users;
  loader::Account& bob = accounts_.ofUser(1001, 0);
  Service& c = connected(table_, 12);
  c.chargeTo(bob);
  for (unsigned int id = 1; id <= 11; ++id) {
    kl::message m = request({24}, kl::CMD_GET, id, {5});
    m.insert(kl::SYS_USER, "bob");
    ASSERT_EQ(route(a_, m), "");
  }
  EXPECT_EQ(errorOf(takeOnly(a_)), kl::ERROR_BUSY) << "it has ten at once";
  EXPECT_EQ(alice_.used(loader::Resource::kRequests), 10u);
  EXPECT_EQ(bob.used(loader::Resource::kRequests), 0u);
  ASSERT_EQ(route(c, request({24}, kl::CMD_GET, 1, {5})), "");
  EXPECT_EQ(bob.used(loader::Resource::kRequests), 1u);
}

TEST_F(RouterTest, SubscribingOpensNoRequest) {
  (void)route(a_, request({24}, kl::CMD_SUBSCRIBE, 5, {7}));
  (void)route(a_, request({24}, kl::CMD_UNSUBSCRIBE, 6, {7}));
  EXPECT_EQ(takeMessages(b_).size(), 2u);
  EXPECT_EQ(requests_.size(), 0u);
}

// Service 24 has few rights; handler 7 of service 10 has subscribed at its handler 3, under a command of its own.
class NotificationTest : public RouterTest {
 protected:
  static constexpr unsigned int kChanged = 0x60001;

  void SetUp() override {
    b_.rights = loader::equalRights("bob", Rights::of(64));
    other_.rights = b_.rights;
    (void)route(a_, wish(kl::CMD_SUBSCRIBE));
    (void)takeMessages(b_);
  }

  static kl::message wish(unsigned int command, const Ids& to = {24, 3}, const Ids& from = {7}) {
    kl::message m = notification(to, from);
    m.insert(kl::SYS_CMD, command);
    m.insert(kl::SYS_NOTIFYCMD, kChanged);
    return m;
  }
  static kl::message told(const Ids& to = {10, 7}, const Ids& from = {3}, unsigned int command = kChanged) {
    kl::message m = notification(to, from);
    m.insert(kl::SYS_CMD, command);
    return m;
  }

  // Whether the only message that arrives has no rights, its handler thus does whatever it says.
  bool passesWithoutRights(Service& from, const kl::message& m, Service& to) {
    (void)route(from, m);
    const std::vector<kl::message> got = takeMessages(to);
    EXPECT_EQ(got.size(), 1u);
    if (got.empty()) return false;
    const bool hasNone = !got[0].has(kl::SYS_POLICY);
    EXPECT_EQ(got[0].get(kl::SYS_USER, "nobody"), hasNone ? "nobody" : "bob");
    EXPECT_EQ(got[0].get(kl::SYS_POLICY, 64), 64u);
    return hasNone;
  }
  bool passesWithoutRights(const kl::message& m) { return passesWithoutRights(b_, m, a_); }
};

TEST_F(NotificationTest, ANotificationThatItsReceiverAskedForNeedsNoRights) {
  EXPECT_TRUE(passesWithoutRights(told()));
  b_.rights = loader::equalRights("bob", Rights::nothing());
  EXPECT_TRUE(passesWithoutRights(told()));
  EXPECT_TRUE(passesWithoutRights(told()));  // any number of times
}

TEST_F(NotificationTest, WithoutACommandOfItsOwnASubscriptionIsForCmdNotify) {
  kl::message m = wish(kl::CMD_SUBSCRIBE, {24}, {8});
  m.remove(kl::SYS_NOTIFYCMD);
  (void)route(a_, m);
  EXPECT_TRUE(passesWithoutRights(told({10, 8}, {}, kl::CMD_NOTIFY)));
  EXPECT_FALSE(passesWithoutRights(told({10, 8}, {}, kChanged)));
}

TEST_F(NotificationTest, ItsOwnRightsAreRemoved) {
  kl::message m = told();
  m.insert(kl::SYS_USER, "root");
  m.insert(kl::SYS_POLICY, 0);
  EXPECT_TRUE(passesWithoutRights(m));
}

TEST_F(NotificationTest, AnotherCommandNeedsRights) {
  EXPECT_FALSE(passesWithoutRights(told({10, 7}, {3}, kl::CMD_NOTIFY)));
  EXPECT_FALSE(passesWithoutRights(told({10, 7}, {3}, kl::CMD_SET)));
}

TEST_F(NotificationTest, AnotherReturnPathNeedsRights) {
  EXPECT_FALSE(passesWithoutRights(told({10})));
  EXPECT_FALSE(passesWithoutRights(told({10, 8})));
  EXPECT_FALSE(passesWithoutRights(told({10, 7, 7})));
  EXPECT_FALSE(passesWithoutRights(b_, told({30, 7}), other_));
}

TEST_F(NotificationTest, AnotherHandlerNeedsRights) {
  EXPECT_FALSE(passesWithoutRights(told({10, 7}, {})));
  EXPECT_FALSE(passesWithoutRights(told({10, 7}, {4})));
  EXPECT_FALSE(passesWithoutRights(told({10, 7}, {3, 3})));
}

TEST_F(NotificationTest, AnotherServiceNeedsRights) {
  EXPECT_FALSE(passesWithoutRights(other_, told(), a_));
  EXPECT_FALSE(passesWithoutRights(other_, told({10, 7}, {24, 3}), a_));
}

TEST_F(NotificationTest, WhatCouldBeAnsweredNeedsRights) {
  kl::message numbered = told();
  numbered.insert(kl::SYS_REQID, 5);
  EXPECT_FALSE(passesWithoutRights(numbered));
  kl::message expecting = told();
  expecting.insert(kl::SYS_REPLYEXP, true);
  EXPECT_FALSE(passesWithoutRights(expecting));
  std::vector<unsigned char> bytes = flat(told());
  for (const unsigned int byte : {5U, 0U, 0xffU, 0U})
    bytes.push_back(static_cast<unsigned char>(byte));  // SYS_REPLYEXP: false
  (void)routeBytes(b_, bytes);
  EXPECT_EQ(takeOnly(a_).get(kl::SYS_POLICY, 0), 64u);
}

TEST_F(NotificationTest, AForeignTypeNeedsRights) {
  kl::message m = told();
  m.insert(kl::SYS_TYPE, 5);
  EXPECT_FALSE(passesWithoutRights(m));
  m.insert(kl::SYS_TYPE, kl::TYPE_REQUEST);
  EXPECT_TRUE(passesWithoutRights(m));
}

TEST_F(NotificationTest, APathToAllNeedsRights) {
  (void)route(b_, told({kl::PATH_ALL, 7}));
  EXPECT_EQ(takeOnly(a_).get(kl::SYS_POLICY, 0), 64u);
  EXPECT_EQ(takeOnly(other_).get(kl::SYS_POLICY, 0), 64u);
}

TEST_F(NotificationTest, EachCopyOfAListOfPathsIsJudgedByItself) {
  (void)route(other_, wish(kl::CMD_SUBSCRIBE, {24, 3}, {9}));
  (void)takeMessages(b_);
  (void)route(b_, told({kl::PATH_MULTI, 2, 10, 7, 2, 30, 9, 2, 10, 8}));
  const std::vector<kl::message> got = takeMessages(a_);
  ASSERT_EQ(got.size(), 2u);
  EXPECT_FALSE(got[0].has(kl::SYS_POLICY));
  EXPECT_EQ(got[1].get(kl::SYS_POLICY, 0), 64u);
  EXPECT_FALSE(takeOnly(other_).has(kl::SYS_POLICY));
}

TEST_F(NotificationTest, AfterUnsubscribingItNeedsRights) {
  (void)route(a_, wish(kl::CMD_UNSUBSCRIBE, {24, 3}, {8}));  // another return path
  (void)route(a_, wish(kl::CMD_UNSUBSCRIBE, {24}, {7}));     // another handler
  EXPECT_TRUE(passesWithoutRights(told()));
  (void)route(a_, wish(kl::CMD_UNSUBSCRIBE));
  EXPECT_FALSE(passesWithoutRights(told()));
}

TEST_F(NotificationTest, TheSubscriptionsOfOneThatIsGoneAreForgotten) {
  const auto endOf = [this](Service& gone) {
    gone.disconnect();
    router_.onServiceGone(gone);
    gone.connect();
    (void)takeMessages(a_), (void)takeMessages(b_), (void)takeMessages(other_);
  };
  endOf(b_);  // the provider
  EXPECT_FALSE(passesWithoutRights(told()));
  (void)route(a_, wish(kl::CMD_SUBSCRIBE));
  (void)takeMessages(b_);
  EXPECT_TRUE(passesWithoutRights(told()));
  endOf(a_);  // the subscriber
  EXPECT_FALSE(passesWithoutRights(told()));
  EXPECT_EQ(subscriptions_.size(), 0u);
}

TEST_F(NotificationTest, TheSubscriptionsOfOneThatLeavesHoldOn) {
  const auto leaveOf = [this](Service& leaver) {
    leaver.disconnect();
    router_.onServiceLeft(leaver);
    leaver.connect();
  };
  leaveOf(b_);
  EXPECT_TRUE(passesWithoutRights(told()));
  leaveOf(a_);
  EXPECT_TRUE(passesWithoutRights(told()));
}

TEST_F(NotificationTest, WhatAnEndBehindASubscriberTakesWithItIsForgotten) {
  (void)route(a_, wish(kl::CMD_SUBSCRIBE, {24, 3}, {8, 1}));
  (void)route(a_, wish(kl::CMD_SUBSCRIBE, {24, 4}, {8, 2}));
  (void)route(a_, wish(kl::CMD_SUBSCRIBE, {30, 4}, {8, 2}));
  kl::message end = notification({24}, {8});
  end.insert(kl::SYS_CMD, kl::CMD_DISCONNECTED);
  a_.rights = loader::equalRights("bob", Rights::of(64));  // its handlers refuse it
  (void)route(a_, end);
  EXPECT_EQ(subscriptions_.size(), 4u);
  a_.rights = loader::trustedRights("root");
  kl::message limited = end;
  limited.insert(kl::SYS_POLICY, 64);
  (void)route(a_, limited);
  EXPECT_EQ(subscriptions_.size(), 4u);
  (void)route(a_, end);
  EXPECT_EQ(subscriptions_.size(), 2u);  // at 24 under [7], and at 30
  (void)takeMessages(b_);
  EXPECT_TRUE(passesWithoutRights(told()));
}

TEST_F(NotificationTest, AGatewaysWordEndsTheSubscriptionsBehindIt) {
  a_.rights = loader::equalRights("web", Rights::of(64));
  a_.rights.speaksFor = std::make_shared<loader::UsersSpokenFor>();
  (void)route(a_, wish(kl::CMD_SUBSCRIBE, {24, 3}, {8, 1}));
  (void)takeMessages(b_);
  kl::message end = notification({24}, {8});
  end.insert(kl::SYS_CMD, kl::CMD_DISCONNECTED);
  end.insert(kl::SYS_USER, "root");
  (void)route(a_, end);
  const kl::message got = takeOnly(b_);
  EXPECT_EQ(got.get(kl::SYS_FROM, {}), (Ids{10, 8}));
  EXPECT_FALSE(got.has(kl::SYS_POLICY));
  EXPECT_FALSE(got.has(kl::SYS_USER));
  EXPECT_EQ(subscriptions_.countAt(b_, a_), 1u);  // under [7]
}

TEST_F(RouterTest, ARequestInTheNameOfAUserArrivesWithHisNameAndTheRightsWorkedOut) {
  const auto users = std::make_shared<loader::UsersSpokenFor>();
  loader::SenderRights alice = loader::equalRights("alice", Rights::of(64 | 128));
  alice.user = loader::trustedRights("alice").user;
  users->add("alice", alice);
  a_.rights = loader::equalRights("web", Rights::of(64));
  a_.rights.speaksFor = users;
  kl::message m = request({24}, kl::CMD_SET, 5, {7});
  m.insert(kl::SYS_USER, "alice");
  m.insert(kl::SYS_POLICY, 128 | 512);
  (void)route(a_, m);
  const kl::message got = takeOnly(b_);
  EXPECT_EQ(got.get(kl::SYS_USER, ""), "alice");
  EXPECT_EQ(got.get(kl::SYS_POLICY, 0), 128u);
  m.insert(kl::SYS_TO, {1});
  (void)route(a_, m);
  EXPECT_EQ(asked_.at(0).get(kl::SYS_USER, ""), "alice");
  EXPECT_EQ(asked_.at(0).get(kl::SYS_POLICY, 0), 128u);
  for (const Ids& path : {Ids{24}, Ids{1}}) {
    m.insert(kl::SYS_TO, path);
    m.insert(kl::SYS_USER, "root");
    (void)route(a_, m);
    EXPECT_TRUE(takeMessages(b_).empty());
    EXPECT_EQ(asked_.size(), 1u);
    EXPECT_EQ(errorOf(takeOnly(a_)), kl::ERROR_NOTALLOWED);
  }
}

TEST_F(NotificationTest, ASubscriptionThatIsNotDeliveredIsNotThere) {
  fill(b_);
  (void)route(a_, wish(kl::CMD_SUBSCRIBE, {24, 3}, {8}));
  b_.out.clear();
  EXPECT_FALSE(passesWithoutRights(told({10, 8})));
  a_.rights = loader::equalRights("bob", Rights::nothing());
  (void)route(a_, wish(kl::CMD_SUBSCRIBE, {24, 3}, {9}));
  EXPECT_FALSE(passesWithoutRights(told({10, 9})));
}

TEST_F(NotificationTest, ASubscriptionBeyondTheLimitsIsNotDelivered) {
  loader::Limits limits;
  limits.user[loader::Resource::kSubscriptions] = 3;  // one is there
  loader::Accounts accounts(limits, 0);
  subscriptions_.forgetSubscriber(a_);
  a_.account = &accounts.ofUser(1000, 0);
  (void)route(a_, wish(kl::CMD_SUBSCRIBE));
  for (const unsigned int handler : {1U, 2U, 3U})
    (void)route(a_, wish(kl::CMD_SUBSCRIBE, {24, handler}, {1}));
  EXPECT_EQ(takeMessages(b_).size(), 3u);
  EXPECT_TRUE(passesWithoutRights(told({10, 1}, {2})));
  EXPECT_FALSE(passesWithoutRights(told({10, 1}, {3})));
  subscriptions_.forgetSubscriber(a_);
}

TEST_F(NotificationTest, ASubscriptionThatIsHeldCountsUntilItIsThrownAway) {
  Service& late = heldFor(table_, 40, kl::SVC_STATE_STARTING);
  (void)route(a_, wish(kl::CMD_SUBSCRIBE, {40}, {7}));
  EXPECT_EQ(subscriptions_.countAt(late, a_), 1u);
  router_.breakPathsTo(late);
  EXPECT_EQ(subscriptions_.countAt(late, a_), 0u);
}

TEST_F(NotificationTest, ASubscriptionAtAllReachesEachAndIsRecordedAtEach) {
  (void)route(a_, wish(kl::CMD_SUBSCRIBE, {kl::PATH_ALL, 5}, {6}));
  EXPECT_EQ(subscriptions_.countAt(b_, a_), 2u);
  EXPECT_EQ(subscriptions_.countAt(other_, a_), 1u);
}

TEST_F(RouterTest, RequestsAreHeldForAServiceThatIsStartingForTheFirstTime) {
  Service& late = heldFor(table_, 40, kl::SVC_STATE_STARTING);
  (void)route(a_, request({40, 1}, kl::CMD_NOOP, 5, {7}));
  (void)route(a_, replyTo({40, 1}, 5));
  EXPECT_TRUE(a_.out.empty());
  const std::vector<kl::message> held = takeHeld(late);
  ASSERT_EQ(held.size(), 1u);
  EXPECT_EQ(held[0].get(kl::SYS_FROM, {}), (Ids{10, 7}));

  late.isHeldFor = false;  // a start after a crash does not hold
  (void)route(a_, request({40, 1}, kl::CMD_NOOP, 6, {7}));
  EXPECT_EQ(errorOf(takeOnly(a_)), kl::ERROR_BRKPATH);
}

TEST_F(RouterTest, HeldRequestsAreBounded) {
  Service& late = heldFor(table_, 40, kl::SVC_STATE_STOPPED);
  kl::message m = request({40}, kl::CMD_NOOP, 5, {7});
  m.insert_raw(0x30000001, std::vector<unsigned char>(1000));
  for (int i = 0; i < 10; ++i) (void)route(a_, m);
  EXPECT_LT(late.held.size(), kLimit + 1100);
  EXPECT_EQ(errorOf(takeMessages(a_).back()), kl::ERROR_BUSY);
}

TEST_F(RouterTest, DuringACrashDelayRequestsBreak) {
  Service& late = heldFor(table_, 40, kl::SVC_STATE_STARTING);
  (void)route(a_, request({40, 1}, kl::CMD_NOOP, 5, {7}));
  late.state = kl::SVC_STATE_DELAYED;
  late.isHeldFor = false;
  router_.breakPathsTo(late);
  EXPECT_EQ(errorOf(takeOnly(a_)), kl::ERROR_BRKPATH);
  (void)route(a_, request({40, 1}, kl::CMD_NOOP, 6, {7}));
  EXPECT_EQ(errorOf(takeOnly(a_)), kl::ERROR_BRKPATH);
}

TEST_F(RouterTest, ARequestOrANotificationForAServiceThatLeftIsHeldAndStartsIt) {
  for (const kl::message& m :
       {request({40, 1}, kl::CMD_GET, 5, {7}), notification({40, 1}), request({40}, kl::CMD_SUBSCRIBE, 6),
        notification({kl::PATH_MULTI, 1, 24, 1, 40})}) {
    needed_.clear();
    Service& left = heldFor(table_, 40, kl::SVC_STATE_LEFT);
    (void)route(a_, m);
    EXPECT_EQ(needed_, Ids{40});
    EXPECT_EQ(takeHeld(left).size(), 1u);
    EXPECT_TRUE(a_.out.empty());
    router_.breakPathsTo(left);
    (void)takeMessages(a_);
    table_.remove(40);
  }
}

TEST_F(RouterTest, NothingElseStartsAServiceThatLeft) {
  Service& left = heldFor(table_, 40, kl::SVC_STATE_LEFT);
  kl::message ended = notification({40});
  ended.insert(kl::SYS_CMD, kl::CMD_DISCONNECTED);
  kl::message notice = kl::errorMsg(kl::ERROR_BRKPATH, "");
  notice.insert(kl::SYS_TO, {40});
  for (const kl::message& m : {replyTo({40}, 5), notification({kl::PATH_ALL}), ended, notice})
    EXPECT_EQ(route(a_, m), "");
  other_.disconnect();
  router_.onServiceGone(other_);
  EXPECT_TRUE(needed_.empty());
  EXPECT_EQ(takeHeld(left).size(), 1u);  // what another service said of an end, for whoever comes
}

TEST_F(RouterTest, ALeaveBreaksWhatWasDeliveredKeepsWhatIsHeldAndTellsNobody) {
  (void)route(a_, request({24, 0}, kl::CMD_GET, 5, {7}));
  (void)route(b_, request({30}, kl::CMD_GET, 9, {3}));
  (void)takeMessages(other_);
  setLeaving(b_, true);
  (void)route(a_, request({24, 0}, kl::CMD_GET, 6, {7}));
  (void)route(other_, replyTo({24, 3}, 9));
  EXPECT_TRUE(a_.out.empty());
  b_.disconnect();
  router_.onServiceLeft(b_);
  const kl::message broken = takeOnly(a_);
  EXPECT_EQ(errorOf(broken), kl::ERROR_BRKPATH);
  EXPECT_EQ(broken.get(kl::SYS_REQID, 0), 5u);
  EXPECT_TRUE(takeMessages(other_).empty());
  EXPECT_EQ(requests_.size(), 1u);
  const std::vector<kl::message> held = takeHeld(b_);
  ASSERT_EQ(held.size(), 1u);
  EXPECT_EQ(held[0].get(kl::SYS_REQID, 0), 6u);
}

TEST_F(RouterTest, WhoIsNotThereYetHearsOfAnEndBehindWhatTheGoneOneSaid) {
  Service& left = heldFor(table_, 40, kl::SVC_STATE_LEFT);
  (void)route(a_, request({40}, kl::CMD_SUBSCRIBE, 5, {7}));
  for (Service* gone : {&a_, &other_}) {
    gone->disconnect();
    router_.onServiceGone(*gone);
  }
  router_.announceEnds();
  const std::vector<kl::message> held = takeHeld(left);
  ASSERT_EQ(held.size(), 2u);  // nothing of the other: it has said nothing
  EXPECT_EQ(held[0].get(kl::SYS_CMD, 0), kl::CMD_SUBSCRIBE);
  EXPECT_EQ(held[1].get(kl::SYS_CMD, 0), kl::CMD_DISCONNECTED);
  EXPECT_EQ(held[1].get(kl::SYS_FROM, {}), Ids{10});
}

TEST_F(RouterTest, WhatWasHeldAndReleasedIsBrokenByTheNextLeave) {
  setLeaving(b_, true);
  (void)route(a_, request({24, 0}, kl::CMD_GET, 5, {7}));
  setLeaving(b_, false);
  outbox_.release(b_);
  requests_.release(b_);
  b_.disconnect();
  router_.onServiceLeft(b_);
  EXPECT_EQ(errorOf(takeOnly(a_)), kl::ERROR_BRKPATH);
}

TEST_F(RouterTest, TrafficIsCountedOnBothSides) {
  const kl::message m = request({24, 0}, kl::CMD_GET, 5, {7});
  (void)route(a_, m);
  EXPECT_EQ(a_.traffic.messagesOut, 1u);
  EXPECT_EQ(a_.traffic.bytesOut, 4 + flat(m).size());
  EXPECT_EQ(b_.traffic.messagesIn, 1u);
  EXPECT_EQ(b_.traffic.bytesIn, b_.out.size());
  EXPECT_EQ(b_.requests.servingCount, 1u);
}

// What the ring says of each message of a service: the service at the other end, and what became of it.
class KeptHeaders : public RouterTest {
 protected:
  KeptHeaders() {
    router_.setRing(&ring_);
    outbox_.setRing(&ring_);
  }
  std::vector<std::pair<unsigned int, unsigned int>> of(unsigned int service) const {
    std::vector<std::pair<unsigned int, unsigned int>> fates;
    for (const kl::message m : ring_.messagesOf(service, 64)) {
      const unsigned int sender = m.get(tap::SENDER, 0);
      const unsigned int other = sender == service ? m.get(tap::RECEIVERS, {}).at(0) : sender;
      fates.emplace_back(other, m.get(tap::FATE, 0));
    }
    return fates;
  }

  loader::FrameRing ring_;
};

using Fates = std::vector<std::pair<unsigned int, unsigned int>>;

TEST_F(KeptHeaders, ARequestAndItsReplyAreKeptWithTheirNumbers) {
  (void)route(a_, request({24, 0}, kl::CMD_GETALL, 5, {7}));
  (void)route(b_, replyTo({10, 7}, 5));
  ASSERT_EQ(of(10), (Fates{{24, 0}, {24, 0}}));
  const kl::message asked = ring_.messagesOf(10, 64).at(0);
  EXPECT_EQ(asked.get(tap::COMMAND, 0), kl::CMD_GETALL);
  EXPECT_EQ(asked.get(tap::NUMBER, 0), 5u);
  EXPECT_EQ(asked.get(tap::LENGTH, 0), flat(request({24, 0}, kl::CMD_GETALL, 5, {7})).size());
  const kl::message answered = ring_.messagesOf(10, 64).at(1);
  EXPECT_TRUE(answered.get(tap::ANSWER, false));
  EXPECT_EQ(answered.get(tap::COMMAND, 0), kl::CMD_GETALL);
}

TEST_F(KeptHeaders, WhatIsNotPassedOnSaysWhyAndTheLoadersAnswerFollows) {
  (void)route(a_, request({99}, kl::CMD_GET, 5, {7}));
  EXPECT_EQ(of(99).front(), (Fates::value_type{10, tap::NO_RECEIVER}));
  EXPECT_EQ(of(kl::SERVICE_LOADER).size(), 0u);  // it answers in the name of who is not there
  const auto last = ring_.messagesOf(10, 1);
  EXPECT_TRUE(kl::message(last.at(0)).get(tap::BY_LOADER, false));
  EXPECT_EQ(kl::message(last.at(0)).get(tap::ERROR, 0), kl::ERROR_BRKPATH);
  (void)route(b_, replyTo({30, 7}, 5));
  EXPECT_EQ(of(30), (Fates{{24, tap::UNASKED}}));
}

TEST_F(KeptHeaders, ADeniedRequestIsNoBusyOne) {
  a_.rights = loader::equalRights("bob", Rights::nothing());
  (void)route(a_, request({24}, kl::CMD_GET, 5, {7}));
  ASSERT_FALSE(of(24).empty());
  EXPECT_EQ(of(24).front(), (Fates::value_type{10, tap::DENIED}));
}

TEST_F(KeptHeaders, AFullReceiverRefusesRequestsAndLosesTheRest) {
  fill(b_);
  (void)route(a_, request({24}, kl::CMD_GET, 5, {7}));
  (void)route(a_, notification({24}));
  const Fates fates = of(10);
  EXPECT_EQ(fates.front(), (Fates::value_type{24, tap::REFUSED}));
  EXPECT_EQ(fates.back(), (Fates::value_type{24, tap::DROPPED}));
}

TEST_F(KeptHeaders, AMessageForOneThatIsToComeIsHeld) {
  heldFor(table_, 40, kl::SVC_STATE_STARTING);
  (void)route(a_, request({40}, kl::CMD_GET, 5, {7}));
  EXPECT_EQ(of(40), (Fates{{10, tap::HELD}}));
}

TEST_F(KeptHeaders, OfAMessageToSeveralThereIsOneForEach) {
  (void)route(a_, notification({kl::PATH_MULTI, 1, 24, 1, 99, 1, 30}));
  EXPECT_EQ(of(24), (Fates{{10, 0}}));
  EXPECT_EQ(of(99).front(), (Fates::value_type{10, tap::NO_RECEIVER}));
  EXPECT_EQ(of(30), (Fates{{10, 0}}));
  (void)route(a_, notification({kl::PATH_ALL}));
  EXPECT_EQ(of(24).size(), 2u);
}

}  // namespace

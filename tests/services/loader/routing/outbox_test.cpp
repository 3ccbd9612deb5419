#include "services/loader/routing/outbox.h"

#include <gtest/gtest.h>

#include "tests/services/loader/fixture.h"

namespace {

using loader::Outbox;
using loader::Service;
using loader::ServiceTable;
using loader::Urgency;
using namespace loader::test;

constexpr std::size_t kLimit = 1000;

kl::message ofBytes(std::size_t size) {
  kl::message m;
  m.insert_raw(0x30000001, std::vector<unsigned char>(size - 8));  // magic, id and a 2-byte length
  return m;
}

kl::message endOf(unsigned int id) {
  kl::message m = notification({}, {id});
  m.insert(kl::SYS_CMD, kl::CMD_DISCONNECTED);
  return m;
}

class OutboxTest : public testing::Test {
 protected:
  const loader::Limits limits_;
  loader::Accounts accounts_{limits_, 900};
  ServiceTable table_;
  Outbox outbox_{kLimit};
  Service& a_ = connected(table_, 10);
  Service& b_ = connected(table_, 11);
};

TEST_F(OutboxTest, AMessageBecomesAFrame) {
  EXPECT_TRUE(outbox_.send(a_, ofBytes(500), Urgency::kOrdinary));
  EXPECT_EQ(a_.out.size(), 504u);
  EXPECT_EQ(a_.traffic.messagesIn, 1u);
  EXPECT_EQ(a_.traffic.bytesIn, 504u);
  EXPECT_EQ(takeFrames(a_), (std::vector<std::vector<unsigned char>>{flat(ofBytes(500))}));
}

TEST_F(OutboxTest, AServiceWithNewBytesIsHandedOutOnce) {
  (void)outbox_.send(b_, ofBytes(300), Urgency::kOrdinary);
  (void)outbox_.send(a_, ofBytes(300), Urgency::kOrdinary);
  (void)outbox_.send(b_, ofBytes(300), Urgency::kOrdinary);
  std::vector<unsigned int> ids;
  outbox_.eachDirty([&](Service& s) { ids.push_back(s.id); });
  EXPECT_EQ(ids, (std::vector<unsigned int>{11, 10}));
  outbox_.eachDirty([&](Service& s) { ids.push_back(s.id); });
  EXPECT_EQ(ids.size(), 2u);
}

TEST_F(OutboxTest, WhoIsForgottenIsNotHandedOut) {
  (void)outbox_.send(a_, ofBytes(300), Urgency::kOrdinary);
  (void)outbox_.send(b_, ofBytes(300), Urgency::kOrdinary);
  outbox_.forget(a_);
  std::vector<unsigned int> ids;
  outbox_.eachDirty([&](Service& s) { ids.push_back(s.id); });
  EXPECT_EQ(ids, (std::vector<unsigned int>{11}));
}

TEST_F(OutboxTest, AFullQueueTakesOnlyRepliesAndCountsWhatItLoses) {
  EXPECT_TRUE(outbox_.send(a_, ofBytes(900), Urgency::kOrdinary));
  EXPECT_FALSE(outbox_.isFull(a_));
  EXPECT_TRUE(outbox_.send(a_, ofBytes(5000), Urgency::kOrdinary));  // below its limit it takes any size
  EXPECT_TRUE(outbox_.isFull(a_));
  EXPECT_FALSE(outbox_.send(a_, ofBytes(10), Urgency::kOrdinary));
  EXPECT_FALSE(outbox_.send(a_, ofBytes(10), Urgency::kOrdinary));
  EXPECT_EQ(a_.traffic.drops, 2u);
  EXPECT_TRUE(outbox_.send(a_, ofBytes(10), Urgency::kReply));
  EXPECT_TRUE(outbox_.send(b_, ofBytes(10), Urgency::kOrdinary));
}

class AccountedOutbox : public OutboxTest {
 protected:
  AccountedOutbox() {
    a_.chargeTo(alice_);
    b_.chargeTo(alice_);
  }
  // Fills a queue with messages of this urgency until one is dropped; the number of those that were not.
  unsigned int fill(Service& service, Urgency urgency) {
    unsigned int taken = 0;
    while (outbox_.send(service, ofBytes(10000), urgency)) ++taken;
    return taken;
  }

  std::size_t most_ = limits_.user[loader::Resource::kQueueBytes];
  loader::Account& alice_ = accounts_.ofUser(1000, 0);
  loader::Account& bob_ = accounts_.ofUser(1001, 0);
};

TEST_F(AccountedOutbox, RepliesAreTakenFromTheAccountOfWhoAsked) {
  EXPECT_GT(fill(a_, Urgency::kReply), 100u);
  EXPECT_LE(alice_.used(loader::Resource::kQueueBytes), most_ / 8 * 7);
  EXPECT_GE(a_.out.size(), most_ / 2);
  EXPECT_EQ(a_.traffic.drops, 1u);
  EXPECT_FALSE(outbox_.canAnswer(a_));
}

TEST_F(AccountedOutbox, AllConnectionsOfAUserTakeFromOneAccount) {
  (void)fill(a_, Urgency::kReply);
  EXPECT_LT(fill(b_, Urgency::kReply), 60u);
  EXPECT_LE(alice_.used(loader::Resource::kQueueBytes), most_ / 8 * 7);
}

TEST_F(AccountedOutbox, AnotherUserHasHisOwn) {
  (void)fill(a_, Urgency::kReply);
  Service& c = connected(table_, 12);
  c.chargeTo(bob_);
  EXPECT_GT(fill(c, Urgency::kReply), 100u);
}

TEST_F(AccountedOutbox, BehindTheRepliesThereIsRoomForWordsOfTheLoader) {
  (void)fill(a_, Urgency::kReply);
  for (int i = 0; i < 1000; ++i) ASSERT_TRUE(outbox_.send(a_, endOf(600), Urgency::kNotice));
  (void)fill(a_, Urgency::kNotice);
  EXPECT_LE(alice_.used(loader::Resource::kQueueBytes), most_);
}

TEST_F(AccountedOutbox, WhatWasReadIsFreeAgain) {
  (void)fill(a_, Urgency::kReply);
  a_.out.dropFront(a_.out.size());
  EXPECT_TRUE(outbox_.canAnswer(a_));
  EXPECT_EQ(alice_.used(loader::Resource::kQueueBytes), 0u);
}

TEST_F(AccountedOutbox, WhatIsHeldCountsAndStaysCountedForTheNextProcess) {
  setLeaving(a_, true);
  for (int i = 0; i < 3; ++i) ASSERT_TRUE(outbox_.send(a_, replyTo({7}, 2), Urgency::kReply));
  for (int i = 0; i < 300; ++i) ASSERT_TRUE(outbox_.send(b_, ofBytes(100), Urgency::kReply));
  setLeaving(b_, true);
  for (int i = 0; i < 900; ++i) (void)outbox_.send(b_, notification({}), Urgency::kReply);
  const std::size_t before = alice_.used(loader::Resource::kQueueBytes);
  EXPECT_GT(before, 20000u);
  b_.held.keepForNextProcess();
  EXPECT_GE(alice_.used(loader::Resource::kQueueBytes), b_.out.size() + b_.held.size());
  b_.out.clear();
  b_.held.clear();
  a_.held.clear();
  EXPECT_EQ(alice_.used(loader::Resource::kQueueBytes), 0u);
}

// An account has what it is charged for, and never more than its limit, whatever the sizes of frames are and whatever
// is added to them on their way.
class OutboxLimit : public testing::Test {
 protected:
  static constexpr std::size_t kMost = 256 * 1024;
  static loader::Limits limits() {
    loader::Limits result;
    result.user[loader::Resource::kQueueBytes] = kMost;
    return result;
  }
  OutboxLimit() {
    a_.chargeTo(alice_);
    b_.chargeTo(accounts_.ofUser(1001, 0));
  }

  bool deliver(Service& from, std::size_t bytes, const loader::RightsMark& mark = {},
               Urgency urgency = Urgency::kReply) {
    kl::message m = replyTo(request({from.id}, kl::CMD_GET, 7, {10, 5}));
    m.insert_raw(0x30000001, std::vector<unsigned char>(bytes));
    const std::vector<unsigned char> body = flat(m);
    loader::Envelope e;
    EXPECT_EQ(loader::readEnvelope(body, e), nullptr);
    return outbox_.deliver(a_, from, e, e.path().withoutFirst(), urgency, mark);
  }
  std::size_t used() const { return alice_.used(loader::Resource::kQueueBytes); }

  const loader::Limits limits_ = limits();
  loader::Accounts accounts_{limits_, 900};
  loader::Account& alice_ = accounts_.ofUser(1000, 0);
  ServiceTable table_;
  Outbox outbox_{1024 * 1024};
  Service& a_ = connected(table_, 10);
  Service& b_ = connected(table_, 11);
  Service& c_ = connected(table_, 12);
};

TEST_F(OutboxLimit, HoldsWhateverRewritingAddsToAFrame) {
  const std::vector<unsigned char> added(100);
  for (std::size_t bytes = 1; bytes < 200; ++bytes) {
    while (deliver(b_, bytes, {added, true})) ASSERT_LE(used(), kMost / 8 * 7) << bytes;
    ASSERT_LE(used(), kMost / 8 * 7) << bytes;
    ASSERT_GE(used(), kMost / 4) << bytes;
    a_.out.clear();
    Outbox::noteWritten(a_);
    ASSERT_EQ(used(), 0u);
  }
}

TEST_F(OutboxLimit, HoldsForWhatIsNotedOfHeldFrames) {
  setLeaving(a_, true);
  for (std::size_t bytes = 1; bytes < 100; ++bytes) {
    while (deliver(b_, bytes)) ASSERT_LE(used(), kMost / 8 * 7) << bytes;
    ASSERT_GE(used(), a_.held.charged());
    a_.held.clear();
    Outbox::noteWritten(a_);
    ASSERT_EQ(used(), 0u);
  }
}

TEST_F(OutboxLimit, HoldsForTheSharesOfSendersThatTakeTurns) {
  const auto deliverFrom = [&](Service& from) { return deliver(from, 1, {}, Urgency::kOrdinary); };
  while (deliverFrom(b_) && deliverFrom(c_)) ASSERT_LE(used(), kMost / 8 * 6);
  EXPECT_GE(used(), a_.out.memory() + (a_.out.size() - 64 * 1024) / 10) << "a run for each frame";
  outbox_.eachDirty([](Service& service) { service.out.clear(); });
  EXPECT_EQ(used(), 0u);
}

TEST_F(OutboxLimit, IsNotPassedWhenHeldFramesAreReleasedOrKept) {
  for (const unsigned int before : {0U, 5000U, 30000U}) {
    setLeaving(a_, false);
    while (a_.out.size() < before) ASSERT_TRUE(deliver(b_, 1000));
    setLeaving(a_, true);
    while (deliver(b_, 100)) {
    }
    const std::size_t most = used();
    if (before == 0) a_.held.keepForNextProcess();
    EXPECT_LE(used(), most);
    outbox_.release(a_);
    EXPECT_LE(used(), most);
    EXPECT_GE(used(), a_.out.memory());
    a_.out.clear();
  }
}

TEST_F(OutboxTest, TheLoadersOwnMessagesCountAsSentByItsRow) {
  outbox_.setSender(b_);
  (void)outbox_.send(a_, ofBytes(500), Urgency::kOrdinary);
  (void)outbox_.send(a_, ofBytes(400), Urgency::kReply);
  EXPECT_EQ(b_.traffic.messagesOut, 2u);
  EXPECT_EQ(b_.traffic.bytesOut, 908u);
}

TEST_F(OutboxTest, WhatIsHeldIsNoNewsUntilItIsReleasedBehindWhatIsOnItsWay) {
  (void)outbox_.send(a_, ofBytes(50), Urgency::kOrdinary);
  outbox_.eachDirty([](Service&) {});
  setLeaving(a_, true);
  (void)outbox_.send(a_, ofBytes(100), Urgency::kOrdinary);
  (void)outbox_.send(a_, ofBytes(200), Urgency::kReply);
  EXPECT_EQ(a_.out.size(), 53u);  // raw data this short have a shorter length
  outbox_.eachDirty([](Service& s) { ADD_FAILURE() << s.id; });
  setLeaving(a_, false);
  outbox_.release(a_);
  int told = 0;
  outbox_.eachDirty([&](Service&) { ++told; });
  EXPECT_EQ(told, 1);
  const auto frames = takeFrames(a_);
  ASSERT_EQ(frames.size(), 3u);
  EXPECT_EQ(frames[0], flat(ofBytes(50)));
  EXPECT_EQ(frames[1], flat(ofBytes(100)));
  EXPECT_EQ(frames[2], flat(ofBytes(200)));
  EXPECT_EQ(a_.waiting(), 0u);
}

TEST_F(OutboxTest, WhatIsHeldCountsTowardsTheLimit) {
  setLeaving(a_, true);
  while (outbox_.send(a_, ofBytes(300), Urgency::kOrdinary)) {
  }
  EXPECT_TRUE(outbox_.isFull(a_));
  EXPECT_LT(a_.held.size(), kLimit + 304);
}

TEST_F(OutboxTest, NothingIsQueuedForAServiceThatIsNotThere) {
  a_.disconnect();
  EXPECT_FALSE(outbox_.send(a_, ofBytes(100), Urgency::kReply));
  EXPECT_EQ(a_.waiting(), 0u);
}

TEST_F(OutboxTest, ForTheNextStartOnlyRequestsAndNotificationsAreKept) {
  setLeaving(a_, true);
  const kl::message ended = endOf(600);
  kl::message notice = kl::errorMsg(kl::ERROR_BRKPATH, "");
  notice.insert(kl::SYS_TO, Ids());
  for (const kl::message& m : {request({7}, kl::CMD_GET, 1), replyTo({7}, 2), ended, notification({}), notice,
                               request({}, kl::CMD_SUBSCRIBE, 3)})
    ASSERT_TRUE(outbox_.send(a_, m, Urgency::kReply));
  a_.held.keepForNextProcess();
  const std::vector<kl::message> kept = takeHeld(a_);
  ASSERT_EQ(kept.size(), 3u);
  EXPECT_EQ(kept[0], request({7}, kl::CMD_GET, 1));
  EXPECT_EQ(kept[1], notification({}));
  EXPECT_EQ(kept[2], request({}, kl::CMD_SUBSCRIBE, 3));
}

TEST_F(OutboxTest, ForTheNextStartTheEndOfWhoSaidSomethingStaysBehindItsWords) {
  setLeaving(a_, true);
  const kl::message word = request({}, kl::CMD_SUBSCRIBE, 3, {600, 7});
  for (const kl::message& m : {endOf(600), word, endOf(600), endOf(600), endOf(601), word})
    ASSERT_TRUE(outbox_.send(a_, m, Urgency::kReply));
  EXPECT_TRUE(a_.held.hasMessageOf(600));
  EXPECT_FALSE(a_.held.hasMessageOf(601));
  a_.held.keepForNextProcess();
  EXPECT_EQ(takeHeld(a_), (std::vector<kl::message>{word, endOf(600), word}));
  EXPECT_FALSE(a_.held.hasMessageOf(600));
}

}  // namespace

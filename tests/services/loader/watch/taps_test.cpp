#include "services/loader/watch/taps.h"

#include <gtest/gtest.h>

#include "services/common/tap.h"
#include "services/loader/routing/router.h"
#include "tests/services/loader/fixture.h"

namespace {

using namespace loader::test;
using loader::Service;
using loader::Tap;
using loader::Taps;
using Messages = std::vector<kl::message>;

class TapsTest : public testing::Test {
 protected:
  TapsTest() { services_.add(kl::SERVICE_LOADER); }

  // The reader's handler 9 asks for a tap.
  kl::message tap(kl::message wishes = {}, Service* reader = nullptr, unsigned int handler = 9) {
    Service& asker = reader != nullptr ? *reader : reader_;
    wishes.insert(kl::SYS_FROM, Ids{asker.id, handler});
    return taps_.answer(asker, wishes);
  }
  kl::message tapContents(unsigned int bytes) {
    kl::message m;
    m.insert(common::tap::BYTES, bytes);
    return tap(m);
  }
  kl::message end() {
    kl::message m;
    m.insert(common::tap::END, true);
    return tap(m);
  }

  void route(Service& sender, const kl::message& m) { EXPECT_EQ(router_.route(sender, flat(m)), nullptr); }

  // The messages shown since, once the time of a batch is over.
  Messages shown(Service* reader = nullptr) {
    taps_.onTimer();
    return takeShown(reader != nullptr ? *reader : reader_);
  }
  static Messages takeShown(Service& reader) {
    Messages all;
    for (const kl::message& batch : takeMessages(reader)) {
      EXPECT_EQ(batch.get(kl::SYS_CMD, 0), common::tap::CMD_TAP);
      EXPECT_EQ(batch.get(kl::SYS_TO, {}), Ids{9});
      EXPECT_EQ(batch.get(kl::SYS_FROM, {}), Ids{kl::SERVICE_LOADER});
      for (const auto& object : batch.get(kl::STD_OBJS, {})) all.emplace_back(object);
    }
    return all;
  }

  kl::ThinRunner runner_;
  loader::ServiceTable services_;
  loader::OpenRequests requests_{1};
  loader::Subscriptions subscriptions_;
  loader::Outbox outbox_{1 << 20};
  common::Moment now_{100, 900};
  loader::Router router_{
      services_,
      requests_,
      subscriptions_,
      outbox_,
      {[](Service&, const kl::message&) {}, [](Service&, const loader::Envelope&) {}, [](Service&) {}}};
  bool isTold_ = false;
  int written_ = 0;
  Taps taps_{runner_,
             services_,
             requests_,
             outbox_,
             [this] { return now_; },
             [this](loader::Witness* witness) {
               isTold_ = witness != nullptr;
               router_.setWitness(witness);
               outbox_.setWitness(witness);
             },
             [this] { ++written_; }};
  Service& a_ = connected(services_, 10);
  Service& b_ = connected(services_, 24);
  Service& reader_ = connected(services_, 500);
};

TEST_F(TapsTest, AMessageIsShownByItsHeaders) {
  EXPECT_EQ(errorOf(tap()), kl::ERROR_OK);
  route(a_, request({24, 0}, kl::CMD_GETALL, 5, {7}));
  const Messages all = shown();
  ASSERT_EQ(all.size(), 1u);
  EXPECT_GT(all[0].get(common::tap::AT, 0), 1'600'000'000'000'000u);
  EXPECT_EQ(all[0].get(common::tap::SENDER, 0), 10u);
  EXPECT_EQ(all[0].get(common::tap::RECEIVERS, {}), Ids{24});
  EXPECT_EQ(all[0].get(common::tap::COMMAND, 0), kl::CMD_GETALL);
  EXPECT_EQ(all[0].get(common::tap::NUMBER, 0), 5u);
  EXPECT_EQ(all[0].get(common::tap::LENGTH, 0), flat(request({24, 0}, kl::CMD_GETALL, 5, {7})).size());
  EXPECT_FALSE(all[0].has(common::tap::ANSWER));
  EXPECT_FALSE(all[0].has(common::tap::AGE));
  EXPECT_FALSE(all[0].has(common::tap::ERROR));
  EXPECT_FALSE(all[0].has(common::tap::CONTENTS));
  EXPECT_FALSE(all[0].has(common::tap::BY_LOADER));
  EXPECT_FALSE(all[0].has(common::tap::RECEIVER_COUNT));
  EXPECT_EQ(takeMessages(b_).size(), 1u);
}

TEST_F(TapsTest, AReplyHasTheCommandTheNumberAndTheAgeOfItsRequest) {
  (void)tap();
  router_.setNow(now_);
  route(a_, request({24, 0}, kl::CMD_GETALL, 5, {7}));
  now_ = {101, 150};
  route(b_, replyTo(takeOnly(b_)));
  const Messages all = shown();
  ASSERT_EQ(all.size(), 2u);
  EXPECT_EQ(all[1].get(common::tap::SENDER, 0), 24u);
  EXPECT_EQ(all[1].get(common::tap::RECEIVERS, {}), Ids{10});
  EXPECT_TRUE(all[1].get(common::tap::ANSWER, false));
  EXPECT_EQ(all[1].get(common::tap::NUMBER, 0), 5u);
  EXPECT_EQ(all[1].get(common::tap::COMMAND, 0), kl::CMD_GETALL);
  EXPECT_EQ(all[1].get(common::tap::AGE, 0), 250u);
}

TEST_F(TapsTest, AReplyThatNobodyWaitsForHasNoAge) {
  (void)tap();
  route(b_, replyTo({10, 7}, 5));
  const Messages all = shown();
  ASSERT_EQ(all.size(), 1u);
  EXPECT_FALSE(all[0].has(common::tap::AGE));
  EXPECT_FALSE(all[0].has(common::tap::COMMAND));
}

TEST_F(TapsTest, WhatTheLoaderAnswersInSomebodysPlaceSaysSo) {
  (void)tap();
  route(a_, request({99, 0}, kl::CMD_GET, 5, {7}));
  const Messages all = shown();
  ASSERT_EQ(all.size(), 2u);
  EXPECT_EQ(all[1].get(common::tap::SENDER, 0), 99u);
  EXPECT_EQ(all[1].get(common::tap::RECEIVERS, {}), Ids{10});
  EXPECT_EQ(all[1].get(common::tap::ERROR, 0), kl::ERROR_BRKPATH);
  EXPECT_TRUE(all[1].get(common::tap::BY_LOADER, false));
  EXPECT_EQ(all[1].get(common::tap::NUMBER, 0), 5u);
}

TEST_F(TapsTest, ManyReceiversAreShownByTheFirstAndTheirNumber) {
  (void)tap();
  Ids path{kl::PATH_MULTI};
  for (unsigned int id = 100; id < 110; ++id) path.insert(path.end(), {1, id});
  route(a_, notification(path));
  const Messages all = shown();
  ASSERT_FALSE(all.empty());  // behind it comes what the loader says of broken paths
  EXPECT_EQ(all[0].get(common::tap::RECEIVERS, {}), (Ids{100, 101, 102, 103, 104, 105, 106, 107}));
  EXPECT_EQ(all[0].get(common::tap::RECEIVER_COUNT, 0), 10u);
}

TEST_F(TapsTest, ContentsAreTheFirstBytesAsTheSenderWroteThem) {
  const auto sent = flat(request({24, 0}, kl::CMD_GET, 5, {7}));
  (void)tapContents(10);
  route(a_, request({24, 0}, kl::CMD_GET, 5, {7}));
  EXPECT_EQ(shown().at(0).get(common::tap::CONTENTS, {}),
            std::vector<unsigned char>(sent.begin(), sent.begin() + 10));
  (void)tapContents(0xffffffff);
  route(a_, request({24, 0}, kl::CMD_GET, 5, {7}));
  EXPECT_EQ(shown().at(0).get(common::tap::CONTENTS, {}), std::vector<unsigned char>(sent));
}

TEST_F(TapsTest, WhatTheLoaderSaysIsShownAsAServiceWouldHaveWrittenIt) {
  (void)tapContents(0xffffffff);
  route(a_, request({99, 0}, kl::CMD_GET, 5, {7}));
  const kl::message sent = takeMessages(a_).at(0);
  (void)outbox_.send(b_, kl::message(), loader::Urgency::kNotice);
  const Messages all = shown();
  ASSERT_EQ(all.size(), 3u);
  kl::message expected(sent);
  expected.insert(kl::SYS_TO, {10, 7});
  expected.insert(kl::SYS_FROM, {0});
  const kl::message answer(all[1].get(common::tap::CONTENTS, {}));
  EXPECT_EQ(sent.get(kl::SYS_TO, {}), Ids{7});
  EXPECT_EQ(sent.get(kl::SYS_FROM, {}), (Ids{99, 0}));
  EXPECT_EQ(answer, expected);
  EXPECT_EQ(all[1].get(common::tap::LENGTH, 0), flat(expected).size());
  const kl::message pathless(all[2].get(common::tap::CONTENTS, {}));
  EXPECT_EQ(pathless.get(kl::SYS_TO, {}), Ids{24});
  EXPECT_FALSE(pathless.has(kl::SYS_FROM));
  kl::message control;
  control.insert(kl::SYS_TO, {kl::SERVICE_LOADER});
  control.insert(kl::SYS_CTRL, kl::CTRL_READY);
  (void)outbox_.send(b_, control, loader::Urgency::kNotice);
  EXPECT_EQ(kl::message(shown().at(0).get(common::tap::CONTENTS, {})).get(kl::SYS_TO, {}), Ids{24});
}

TEST_F(TapsTest, TheLargestMessageIsShownByAsMuchAsAFrameTakes) {
  kl::message m = notification({24, 0});
  m.insert(kl::field<std::string>(0x20000001), std::string(65'000, 'x'));
  (void)tapContents(0xffffffff);
  route(a_, m);
  const Messages all = shown();
  ASSERT_EQ(all.size(), 1u);
  EXPECT_EQ(all[0].get(common::tap::LENGTH, 0), flat(m).size());
  EXPECT_EQ(all[0].get(common::tap::CONTENTS, {}).size(), loader::TapFilter::kMostContents);
}

TEST_F(TapsTest, ContentsAreForTheTrustedAlone) {
  reader_.rights.isTrusted = false;
  EXPECT_EQ(errorOf(tapContents(1)), kl::ERROR_NOTALLOWED);
  EXPECT_FALSE(isTold_);
  EXPECT_EQ(errorOf(tap()), kl::ERROR_OK);
  reader_.rights.isTrusted = true;
  kl::message spokenFor;
  spokenFor.insert(kl::SYS_POLICY, kl::RIGHT_CONTROL);
  spokenFor.insert(common::tap::BYTES, 1);
  EXPECT_EQ(errorOf(tap(spokenFor)), kl::ERROR_NOTALLOWED);
  EXPECT_EQ(errorOf(tapContents(1)), kl::ERROR_OK);
}

TEST_F(TapsTest, OnlyWhatPassesTheFilterIsShown) {
  kl::message m;
  m.insert(common::tap::SERVICES, Ids{24});
  (void)tap(m);
  route(a_, notification({500, 1}));
  (void)takeMessages(reader_);
  route(a_, notification({24, 0}));
  EXPECT_EQ(shown().size(), 1u);
}

// T1
TEST_F(TapsTest, NoTapShowsATap) {
  Service& other = connected(services_, 501);
  (void)tap();
  (void)tap({}, &other);
  route(a_, notification({24, 0}));
  EXPECT_EQ(shown().size(), 1u);
  EXPECT_EQ(takeShown(other).size(), 1u);
  EXPECT_TRUE(shown().empty());
  EXPECT_TRUE(taps_.isAtRest() || shown().empty());
}

TEST_F(TapsTest, WhatAReaderAndTheLoaderSayToEachOtherIsNotShown) {
  (void)tap();
  route(reader_, request({kl::SERVICE_LOADER}, kl::CMD_GETALL, 5, {7}));
  (void)outbox_.send(reader_, replyTo({7}, 5, {kl::SERVICE_LOADER}), loader::Urgency::kReply);
  (void)takeMessages(reader_);
  EXPECT_TRUE(shown().empty());
  route(reader_, request({24, 0}, kl::CMD_GETALL, 6, {7}));
  EXPECT_EQ(shown().size(), 1u);
}

TEST_F(TapsTest, TheReplyOfTheLoaderHasTheCommandOfItsRequest) {
  (void)tap();
  route(a_, request({kl::SERVICE_LOADER}, kl::CMD_GETCOUNT, 5, {7}));
  (void)outbox_.send(a_, replyTo({7}, 5, {kl::SERVICE_LOADER}), loader::Urgency::kReply);
  const Messages all = shown();
  ASSERT_EQ(all.size(), 2u);
  EXPECT_EQ(all[1].get(common::tap::SENDER, 0), kl::SERVICE_LOADER);
  EXPECT_EQ(all[1].get(common::tap::COMMAND, 0), kl::CMD_GETCOUNT);
}

// T2
TEST_F(TapsTest, AReaderThatTakesNothingLosesEventsAndIsToldHowMany) {
  constexpr unsigned int kSent = 20'000;
  (void)tap();
  unsigned int delivered = 0;
  for (unsigned int i = 0; i < kSent; ++i) {
    route(a_, notification({24, 0}));
    taps_.onPassOver();
    delivered += static_cast<unsigned int>(takeMessages(b_).size());
  }
  EXPECT_EQ(delivered, kSent);
  EXPECT_LE(reader_.waiting(), Tap::kMostUnread + 32 * 1024);
  unsigned long long seen = 0;
  unsigned long long lost = 0;
  for (Messages part = shown(); !part.empty(); part = shown())
    for (const kl::message& m : part) {
      lost += m.get(common::tap::LOST, 0);
      seen += m.has(common::tap::LOST) ? 0 : 1;
    }
  EXPECT_GT(lost, 0u);
  EXPECT_EQ(seen + lost, kSent);
}

TEST_F(TapsTest, AFullBatchIsSentWhenThePassIsOverAndTheRestByTheTimer) {
  (void)tap();
  route(a_, notification({24, 0}));
  taps_.onPassOver();
  EXPECT_TRUE(takeShown(reader_).empty());
  EXPECT_FALSE(taps_.isAtRest());
  for (unsigned int i = 0; i < 500; ++i) route(a_, notification({24, 0}));
  taps_.onPassOver();
  EXPECT_EQ(takeShown(reader_).size(), 501u);
  EXPECT_EQ(written_, 0);
  taps_.onTimer();
  EXPECT_EQ(written_, 1);
}

// T3
TEST_F(TapsTest, WithoutATapNobodyIsTold) {
  EXPECT_FALSE(isTold_);
  (void)tap();
  EXPECT_TRUE(isTold_);
  route(a_, notification({24, 0}));
  EXPECT_EQ(errorOf(end()), kl::ERROR_OK);
  EXPECT_FALSE(isTold_);
  EXPECT_TRUE(taps_.isAtRest());
  EXPECT_EQ(errorOf(end()), kl::ERROR_OK);  // there is none any more
  EXPECT_TRUE(shown().empty());
}

TEST_F(TapsTest, ATapEndsWithItsReader) {
  Service& other = connected(services_, 501);
  (void)tap();
  (void)tap({}, &other);
  taps_.forget(reader_);
  EXPECT_EQ(taps_.size(), 1u);
  EXPECT_TRUE(isTold_);
  taps_.forget(other);
  EXPECT_FALSE(isTold_);
}

TEST_F(TapsTest, AnotherWishOfTheSameHandlerTakesThePlaceOfTheFormer) {
  (void)tap();
  kl::message m;
  m.insert(common::tap::SERVICES, Ids{25});
  (void)tap(m);
  EXPECT_EQ(taps_.size(), 1u);
  route(a_, notification({24, 0}));
  EXPECT_TRUE(shown().empty());
}

TEST_F(TapsTest, ThereAreNotMoreThanFour) {
  for (unsigned int handler = 1; handler <= Taps::kMost; ++handler)
    EXPECT_EQ(errorOf(tap({}, nullptr, handler)), kl::ERROR_OK);
  EXPECT_EQ(errorOf(tap({}, nullptr, 9)), kl::ERROR_BUSY);
  EXPECT_EQ(errorOf(tap({}, nullptr, 1)), kl::ERROR_OK);  // in the place of its own
  EXPECT_EQ(taps_.size(), Taps::kMost);
}

TEST_F(TapsTest, AWrongWishLeavesTheTapThatIsThere) {
  (void)tap();
  kl::message m;
  m.insert(common::tap::SERVICES, Ids(100, 1));
  EXPECT_EQ(errorOf(tap(m)), kl::ERROR_FAILED);
  route(a_, notification({24, 0}));
  EXPECT_EQ(shown().size(), 1u);
}

}  // namespace

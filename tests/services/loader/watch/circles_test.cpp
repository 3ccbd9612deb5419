#include "services/loader/watch/circles.h"

#include <gtest/gtest.h>

#include "tests/services/loader/fixture.h"

namespace {

using namespace loader::test;
using loader::Service;

class CirclesTest : public testing::Test {
 protected:
  void wait(Service& asker, Service& asked, unsigned int second = 1, bool expectsReply = true) {
    kl::message m = request({0}, kl::CMD_GET, ++lastId_, {7});
    m.insert(kl::SYS_REPLYEXP, expectsReply);
    const auto body = flat(m);
    loader::Envelope e;
    ASSERT_EQ(loader::readEnvelope(body, e), nullptr);
    requests_.add(asker, asked, e, e.path(), {second});
  }
  loader::Circle find(unsigned int latest = 10) {
    return loader::findCircle(services_, requests_, {latest},
                              [this](const Service& service) { return service.id != ignored_; });
  }
  Ids members(unsigned int latest = 10) {
    Ids ids;
    for (const Service* member : find(latest).members) ids.push_back(member->id);
    return ids;
  }

  loader::ServiceTable services_;
  loader::OpenRequests requests_{1};
  unsigned int lastId_ = 0;
  unsigned int ignored_ = 0;
  Service& a_ = connected(services_, 10);
  Service& b_ = connected(services_, 20);
  Service& c_ = connected(services_, 30);
  Service& d_ = connected(services_, 40);
};

TEST_F(CirclesTest, AChainIsNone) {
  wait(a_, b_);
  wait(b_, c_);
  wait(a_, c_);
  EXPECT_TRUE(members().empty());
  EXPECT_FALSE(find().isTooEarly);
}

TEST_F(CirclesTest, TwoThatWaitForEachOtherAreOne) {
  wait(a_, b_);
  wait(b_, a_);
  EXPECT_EQ(members(), (Ids{10, 20}));
}

TEST_F(CirclesTest, WhoWaitsForItselfIsOne) {
  wait(c_, c_);
  EXPECT_EQ(members(), Ids{30});
}

TEST_F(CirclesTest, WhoOnlyWaitsForAMemberIsNoMember) {
  wait(a_, b_);
  wait(b_, c_);
  wait(c_, d_);
  wait(d_, b_);
  EXPECT_EQ(members(), (Ids{20, 30, 40}));
}

TEST_F(CirclesTest, AnyRequestOfAServiceMayCloseOne) {
  wait(a_, c_);
  wait(a_, d_);
  wait(a_, b_);
  wait(c_, d_);
  wait(b_, a_);
  EXPECT_EQ(members(), (Ids{10, 20}));
}

TEST_F(CirclesTest, ARequestThatIsTooYoungClosesNoneYet) {
  wait(a_, b_, 5);
  wait(b_, a_, 6);
  EXPECT_TRUE(members(5).empty());
  EXPECT_TRUE(find(5).isTooEarly);
  EXPECT_EQ(members(6), (Ids{10, 20}));
}

TEST_F(CirclesTest, NobodyWaitsForWhatIsHeldOrExpectsNoReply) {
  wait(a_, b_);
  wait(b_, a_, 1, false);
  EXPECT_TRUE(members().empty());
  a_.isHeldFor = true;
  wait(b_, a_);
  EXPECT_TRUE(members().empty());
}

TEST_F(CirclesTest, WhoDoesNotCountIsNoMember) {
  wait(a_, b_);
  wait(b_, a_);
  wait(c_, d_);
  wait(d_, c_);
  ignored_ = 20;
  EXPECT_EQ(members(), (Ids{30, 40}));
}

TEST_F(CirclesTest, AnOpenedCircleIsNoneAnyMore) {
  wait(a_, b_);
  wait(b_, a_);
  requests_.forgetOldestFrom(b_);
  EXPECT_TRUE(members().empty());
}

}  // namespace

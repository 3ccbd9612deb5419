#include "services/loader/life/idleness.h"

#include <gtest/gtest.h>

#include "tests/services/loader/fixture.h"

namespace {

using loader::Idleness;
using loader::Service;

constexpr unsigned int kLimitSeconds = 60;

class IdlenessTest : public testing::Test {
 protected:
  IdlenessTest() {
    service_.leaveValue = 1;
    idleness_.onReadiness(service_, kLimitSeconds);
  }

  unsigned int now_ = 1000;
  std::vector<unsigned int> idle_;
  kl::ThinRunner runner_;
  Idleness idleness_{runner_, [this] { return now_; }, [this](Service& s) { idle_.push_back(s.id); }};
  loader::ServiceTable table_;
  Service& service_ = loader::test::connected(table_, 32);
};

TEST_F(IdlenessTest, AServiceIsIdleAfterMoreThanItsTime) {
  now_ = 1060;
  EXPECT_EQ(idleness_.look(service_), 1u);
  EXPECT_TRUE(idle_.empty());
  now_ = 1061;
  EXPECT_EQ(idleness_.look(service_), 61u);
  EXPECT_EQ(idle_, std::vector<unsigned int>{32});
}

TEST_F(IdlenessTest, AMessageBeginsItsTimeAnew) {
  service_.lastActive = 1050;
  now_ = 1061;
  EXPECT_EQ(idleness_.look(service_), 50u);
  EXPECT_TRUE(idle_.empty());
}

TEST_F(IdlenessTest, ARequestThatItHasNotAnsweredIsWork) {
  service_.requests.servingCount = 1;
  now_ = 2000;
  EXPECT_EQ(idleness_.look(service_), 61u);
  EXPECT_TRUE(idle_.empty());
  service_.requests.servingCount = 0;
}

TEST_F(IdlenessTest, OneThatIsAskedAlreadyIsNotIdle) {
  service_.state = kl::SVC_STATE_LEAVING;
  now_ = 2000;
  (void)idleness_.look(service_);
  EXPECT_TRUE(idle_.empty());
}

TEST_F(IdlenessTest, ThatItMayLeaveAgainBeginsItsTimeAnew) {
  now_ = 1050;
  idleness_.onReadiness(service_, kLimitSeconds);
  EXPECT_EQ(service_.lastActive, 1050u);
}

TEST_F(IdlenessTest, OneThatWasForgottenIsWatchedByAnotherLimit) {
  idleness_.forget(service_);
  idleness_.onReadiness(service_, 5);
  now_ = 1006;
  EXPECT_EQ(idleness_.look(service_), 6u);
  EXPECT_EQ(idle_, std::vector<unsigned int>{32});
}

}  // namespace

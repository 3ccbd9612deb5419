#include "services/loader/life/idleness.h"

#include <gtest/gtest.h>

#include "tests/services/loader/fixture.h"

namespace {

using loader::Idleness;
using loader::Service;

class Host final : public loader::IdlenessHost {
 public:
  void isIdle(Service& service) override { idle.push_back(service.id); }
  unsigned int seconds() const override { return now; }
  std::vector<unsigned int> idle;
  unsigned int now = 1000;
};

class IdlenessTest : public testing::Test {
 protected:
  IdlenessTest() {
    configuration_.leaveIdleSeconds = 60;
    service_.configuration = &configuration_;
    service_.leaveValue = 1;
    idleness_.readinessChanged(service_);
  }

  kl::ThinRunner runner_;
  Host host_;
  Idleness idleness_{runner_, host_};
  loader::ServiceConfiguration configuration_;
  loader::ServiceTable table_;
  Service& service_ = loader::test::connected(table_, 32);
};

TEST_F(IdlenessTest, AServiceIsIdleAfterMoreThanItsTime) {
  host_.now = 1060;
  EXPECT_EQ(idleness_.look(service_), 1u);
  EXPECT_TRUE(host_.idle.empty());
  host_.now = 1061;
  EXPECT_EQ(idleness_.look(service_), 61u);
  EXPECT_EQ(host_.idle, std::vector<unsigned int>{32});
}

TEST_F(IdlenessTest, AMessageBeginsItsTimeAnew) {
  service_.lastActive = 1050;
  host_.now = 1061;
  EXPECT_EQ(idleness_.look(service_), 50u);
  EXPECT_TRUE(host_.idle.empty());
}

TEST_F(IdlenessTest, ARequestThatItHasNotAnsweredIsWork) {
  service_.requests.servingCount = 1;
  host_.now = 2000;
  EXPECT_EQ(idleness_.look(service_), 61u);
  EXPECT_TRUE(host_.idle.empty());
  service_.requests.servingCount = 0;
}

TEST_F(IdlenessTest, OneThatIsAskedAlreadyIsNotIdle) {
  service_.state = kl::SVC_STATE_LEAVING;
  host_.now = 2000;
  (void)idleness_.look(service_);
  EXPECT_TRUE(host_.idle.empty());
}

TEST_F(IdlenessTest, ThatItMayLeaveAgainBeginsItsTimeAnew) {
  host_.now = 1050;
  idleness_.readinessChanged(service_);
  EXPECT_EQ(service_.lastActive, 1050u);
}

}  // namespace

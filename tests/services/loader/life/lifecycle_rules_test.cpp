// The lifecycle without processes: what happens to services that nobody runs, and to those of somebody else.

#include <gtest/gtest.h>

#include <string>
#include <utility>

#include "services/loader/life/lifecycle.h"
#include "tests/services/loader/fixture.h"

namespace {

using namespace loader::test;
using loader::LifeState;
using loader::Service;

// Closes connections as the loader does, and notes what it hears of services.
class Host final : public loader::LifecycleHost {
 public:
  void adopt(Service&, loader::Descriptor) override { ADD_FAILURE() << "nothing is started here"; }
  void drainConnectionsOf(Service&) override {}
  void disconnect(Service& service) override { disconnected += std::to_string(service.id) + " "; }
  void onServiceGone(Service& service) override { gone += std::to_string(service.id) + " "; }
  void onServiceLeft(Service&) override {}
  void onAllEnded() override { hasEnded = true; }
  void writeQueues() override {}

  std::string gone;
  std::string disconnected;
  bool hasEnded = false;
};

class LifecycleRules : public testing::Test {
 protected:
  // A service whose program is never started here.
  Service& configured(unsigned int id, bool startsOnDemand = false) {
    loader::ServiceConfiguration& c = configuration_.services.emplace_back();
    c.id = id;
    c.command = {"/bin/false"};
    c.startsAtBoot = false;
    c.startsOnDemand = startsOnDemand;
    Service& service = table_.add(id);
    lifecycle_.configure(service, c);
    return service;
  }

  // A process has registered as this service.
  void registers(Service& service) {
    service.pid = 4711;
    service.connect();
    lifecycle_.onRegistered(service);
    (void)takeMessages(service.out);
  }
  void closes(Service& service) {
    service.disconnect();
    lifecycle_.onConnectionClosed(service);
  }

  void sendControl(Service& service, unsigned int code, unsigned int argument = 0) {
    kl::message m;
    m.insert(kl::SYS_TO, {kl::SERVICE_LOADER});
    m.insert(kl::SYS_CTRL, code);
    m.insert(kl::SYS_CTRL_ARG, argument);
    m.insert_message(kl::READY_DATA, notification({1}));
    ASSERT_EQ(router_.route(service, flat(m)), nullptr);
  }

  unsigned int ask(Service& service) {
    EXPECT_EQ(router_.route(caller_, flat(request({service.id}, kl::CMD_GET, 5, {7}))), nullptr);
    return takeError();
  }
  // The error that the caller has been answered; ERROR_OK when it waits.
  unsigned int takeError() {
    const auto all = takeMessages(caller_.out);
    return all.empty() ? kl::ERROR_OK : errorOf(all[0]);
  }

  Host host_;
  kl::ThinRunner runner_;
  loader::Log log_{-1};
  loader::Configuration configuration_ = [] {
    loader::Configuration c;
    c.services.reserve(8);  // references into it stay
    return c;
  }();
  loader::ServiceTable table_;
  loader::OpenRequests requests_;
  loader::Subscriptions subscriptions_;
  loader::Outbox outbox_{1 << 20};
  loader::KeptData kept_{"/nowhere", log_};
  loader::IdCounter ids_{"/nowhere/next-id", log_};
  loader::Registration registration_{table_, ids_, configuration_};
  loader::Router router_{
      table_,
      requests_,
      subscriptions_,
      outbox_,
      {[](Service&, const kl::message&) {},
       [this](Service& s, const loader::Envelope& e) { lifecycle_.onControl(s, e); }, [](Service&) {}}};
  loader::Leaving leaving_{table_, kept_};
  loader::Idleness idleness_{runner_, [] { return 0U; }, [](Service&) {}};
  loader::Lifecycle lifecycle_{runner_,       table_,   requests_, outbox_, router_,
                               registration_, leaving_, idleness_, log_,    host_};
  Service& caller_ = connected(table_, 10);
};

TEST_F(LifecycleRules, AStopOfAServiceThatNobodyHasRegisteredAsBreaksThePathsAtOnce) {
  for (const bool startsOnDemand : {false, true}) {
    Service& service = configured(startsOnDemand ? 33 : 32, startsOnDemand);
    lifecycle_.begin();
    EXPECT_EQ(ask(service), kl::ERROR_OK);
    EXPECT_FALSE(service.held.empty());
    EXPECT_EQ(lifecycle_.order(service, kl::SVC_STOP), nullptr);
    EXPECT_EQ(takeError(), kl::ERROR_BRKPATH);
    EXPECT_TRUE(service.held.empty());
    EXPECT_EQ(service.state, kl::SVC_STATE_STOPPED);
    EXPECT_EQ(ask(service), kl::ERROR_BRKPATH);
  }
  EXPECT_EQ(host_.gone, "");  // they never came
}

TEST_F(LifecycleRules, WhatAProcessSaysOfLeavingUnaskedIsNotKept) {
  Service& plain = table_.add(600);
  Service& guest = configured(32);
  for (Service* service : {&plain, &guest}) {
    registers(*service);
    sendControl(*service, kl::CTRL_RUNNING);
    sendControl(*service, kl::CTRL_LEFT);
    sendControl(*service, kl::CTRL_REFUSED);
    EXPECT_EQ(service->state, kl::SVC_STATE_RUNNING);
    EXPECT_FALSE(leaving_.isAsked(*service));
    EXPECT_EQ(kept_.find(service->id), nullptr);
  }
}

TEST_F(LifecycleRules, AProcessThatTheLoaderDidNotStartIsNotAskedToLeave) {
  Service& guest = configured(32);
  registers(guest);
  sendControl(guest, kl::CTRL_RUNNING);
  sendControl(guest, kl::CTRL_LEAVE_VALUE, 1);
  sendControl(guest, kl::CTRL_WANT_LEAVE);
  EXPECT_NE(lifecycle_.order(guest, kl::SVC_LEAVE), nullptr);
  EXPECT_EQ(guest.life, LifeState::kGuestRunning);
  EXPECT_TRUE(guest.out.empty());
}

TEST_F(LifecycleRules, AGuestIsDisconnectedByAStopAndItsDeathIsAnnounced) {
  Service& guest = configured(32);
  registers(guest);
  EXPECT_EQ(lifecycle_.order(guest, kl::SVC_STOP), nullptr);
  EXPECT_EQ(host_.disconnected, "32 ");
  closes(guest);
  EXPECT_EQ(host_.gone, "32 ");
  EXPECT_EQ(guest.state, kl::SVC_STATE_STOPPED);
  EXPECT_EQ(guest.pid, 0);
  router_.announceEnds();
  EXPECT_EQ(takeMessages(caller_.out).at(0).get(kl::SYS_CMD, 0), kl::CMD_DISCONNECTED);
}

TEST_F(LifecycleRules, AGuestThatTheLoaderWasToldToFollowIsFollowedAfterADelay) {
  Service& guest = configured(32);
  registers(guest);
  EXPECT_EQ(lifecycle_.order(guest, kl::SVC_START), nullptr);
  EXPECT_EQ(guest.life, LifeState::kSubstitute);
  closes(guest);
  EXPECT_EQ(guest.state, kl::SVC_STATE_DELAYED);
  EXPECT_EQ(lifecycle_.order(guest, kl::SVC_STOP), nullptr);
  EXPECT_EQ(guest.state, kl::SVC_STATE_STOPPED);
}

TEST_F(LifecycleRules, ARowThatNobodyConfiguredGoesWithItsConnection) {
  Service& plain = table_.add(600);
  registers(plain);
  EXPECT_EQ(plain.state, kl::SVC_STATE_REGISTERED);
  closes(plain);
  EXPECT_EQ(table_.find(600), nullptr);
  EXPECT_EQ(host_.gone, "600 ");
}

// Else it would hear of the end neither now nor when it comes again.
TEST_F(LifecycleRules, WhatEndedBeforeAServiceIsAskedToLeaveIsSentToItBefore) {
  Service& own = configured(32);
  registers(own);
  Service& guest = configured(33);
  registers(guest);
  own.life = LifeState::kRunning;  // as a process of the loader's
  own.state = kl::SVC_STATE_RUNNING;
  own.leaveValue = 1;
  closes(guest);
  ASSERT_EQ(lifecycle_.askToLeave(own), nullptr);
  const auto got = takeMessages(own.out);
  ASSERT_EQ(got.size(), 2u);
  EXPECT_EQ(got[0].get(kl::SYS_CMD, 0), kl::CMD_DISCONNECTED);
  EXPECT_EQ(got[1].get(kl::SYS_CTRL, 0), kl::CTRL_LEAVE);
}

TEST_F(LifecycleRules, OrdersForWhatTheLoaderDoesNotStartAreRefused) {
  for (const unsigned int action : {kl::SVC_START, kl::SVC_STOP, kl::SVC_RESTART, kl::SVC_LEAVE})
    EXPECT_STREQ(lifecycle_.order(caller_, action), "the loader does not start this service");
}

TEST_F(LifecycleRules, WhenTheLoaderEndsNothingIsStartedAnyMore) {
  Service& onDemand = configured(33, true);
  lifecycle_.begin();
  lifecycle_.end();
  EXPECT_TRUE(host_.hasEnded);
  EXPECT_STREQ(lifecycle_.order(onDemand, kl::SVC_START), "the loader is ending");
  lifecycle_.onNeeded(onDemand);
  EXPECT_EQ(onDemand.life, LifeState::kOnDemand);
}

}  // namespace

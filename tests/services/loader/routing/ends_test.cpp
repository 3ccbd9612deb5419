#include "services/loader/routing/ends.h"

#include <gtest/gtest.h>

#include "tests/services/loader/fixture.h"

namespace {

using namespace loader::test;
using loader::Ends;
using loader::Outbox;
using loader::Service;
using loader::ServiceTable;

class EndsTest : public testing::Test {
 protected:
  // As the lifecycle does it with a service that nobody configured.
  void ends(Service& service) {
    service.disconnect();
    ends_.add(service);
    if (!service.isConfigured) table_.remove(service.id);
  }

  // The services whose ends are in the queue, in order.
  static Ids toldOf(Service& service) {
    Ids ids;
    for (const kl::message& m : takeMessages(service)) {
      EXPECT_EQ(m.get(kl::SYS_CMD, 0), kl::CMD_DISCONNECTED);
      EXPECT_EQ(m.get(kl::SYS_TO, Ids{1}), Ids());
      ids.push_back(m.get(kl::SYS_FROM, {0}).at(0));
    }
    return ids;
  }

  ServiceTable table_;
  Outbox outbox_{1 << 20};
  Ends ends_{table_, outbox_};
  Service& witness_ = connected(table_, 10);
  Service& stranger_ = connected(table_, 11);
};

TEST_F(EndsTest, AcquaintancesHearOfAnEndWhenItIsAnnouncedAndOnce) {
  Service& goes = connected(table_, 20);
  goes.acquaintances.add(10);
  ends(goes);
  EXPECT_EQ(toldOf(witness_), Ids());
  ends_.announce();
  EXPECT_EQ(toldOf(witness_), Ids{20});
  EXPECT_EQ(toldOf(stranger_), Ids());
  ends_.announce();
  EXPECT_EQ(toldOf(witness_), Ids());
}

TEST_F(EndsTest, EverybodyHearsOfTheEndOfAConfiguredServiceAndOfOneWithTooManyAcquaintances) {
  Service& configured = connected(table_, 20);
  configured.isConfigured = true;
  Service& known = connected(table_, 21);
  for (unsigned int id = 1000; !known.acquaintances.isEverybody(); ++id) known.acquaintances.add(id);
  ends(configured);
  ends(known);
  ends_.announce();
  EXPECT_EQ(toldOf(witness_), (Ids{20, 21}));
  EXPECT_EQ(toldOf(stranger_), (Ids{20, 21}));
}

// E1
TEST_F(EndsTest, EndsAreAnnouncedInTheirOrderWhoeverIsTold) {
  Service& first = connected(table_, 22);
  Service& second = connected(table_, 21);
  second.isConfigured = true;
  Service& third = connected(table_, 20);
  for (Service* s : {&first, &third}) s->acquaintances.add(10);
  for (Service* s : {&first, &second, &third}) ends(*s);
  ends_.announce();
  EXPECT_EQ(toldOf(witness_), (Ids{22, 21, 20}));
  EXPECT_EQ(toldOf(stranger_), Ids{21});
}

TEST_F(EndsTest, AnAcquaintanceThatEndedIsForgotten) {
  Service& goes = connected(table_, 20);
  goes.acquaintances.add(10);
  witness_.acquaintances.add(20);
  witness_.acquaintances.add(11);
  ends(goes);
  ends_.announce();
  EXPECT_EQ(witness_.acquaintances.ids(), Ids{11});
}

TEST_F(EndsTest, WhoIsNotThereHearsOfItBehindAHeldMessageOnly) {
  Service& held = heldFor(table_, 40, kl::SVC_STATE_LEFT);
  Service& silent = heldFor(table_, 41, kl::SVC_STATE_LEFT);
  Service& goes = connected(table_, 20);
  (void)outbox_.send(held, notification({1}, {20}), loader::Urgency::kReply);
  for (const unsigned int id : {40u, 41u}) goes.acquaintances.add(id);
  ends(goes);
  ends_.announce();
  EXPECT_EQ(takeHeld(held).size(), 2u);
  EXPECT_TRUE(silent.held.empty());
}

// Each of them knows each other, as after a message to all from each.
TEST_F(EndsTest, TwoThousandThatEndTogetherCostEachWitnessOneNoticeEachAndNoneAmongThem) {
  constexpr unsigned int kMany = 2000;
  Service& own = connected(table_, 1);
  own.disconnect();
  outbox_.setSender(own);
  for (unsigned int id = 1000; id < 1000 + kMany; ++id) {
    Service& s = connected(table_, id);
    for (unsigned int other = 2; !s.acquaintances.isEverybody(); ++other) s.acquaintances.add(other);
  }
  for (unsigned int id = 1000; id < 1000 + kMany; ++id) ends(*table_.find(id));
  ends_.announce();
  EXPECT_EQ(toldOf(witness_).size(), kMany);
  EXPECT_EQ(toldOf(stranger_).size(), kMany);
  EXPECT_EQ(own.traffic.messagesOut, 2 * kMany);
}

}  // namespace

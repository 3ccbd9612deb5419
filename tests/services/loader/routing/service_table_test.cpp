#include "services/loader/routing/service_table.h"

#include <gtest/gtest.h>

#include <vector>

#include "tests/services/loader/fixture.h"

namespace {

using loader::Service;
using loader::ServiceTable;

class Listener final : public loader::TableListener {
 public:
  void rowChanged(unsigned int id) override { ids.push_back(id); }
  std::vector<unsigned int> ids;
};

TEST(ServiceTable, ServicesAreFoundByIdAndWalkedInOrder) {
  ServiceTable table;
  Service& b = table.add(20);
  Service& a = table.add(10);
  EXPECT_EQ(table.find(10), &a);
  EXPECT_EQ(table.find(20), &b);
  EXPECT_EQ(table.find(30), nullptr);
  EXPECT_EQ(table.all().begin()->first, 10u);
  table.remove(10);
  EXPECT_EQ(table.find(10), nullptr);
  EXPECT_EQ(table.all().size(), 1u);
}

TEST(ServiceTable, TheListenerHearsOfEveryChange) {
  ServiceTable table;
  Listener listener;
  table.setListener(&listener);
  Service& s = table.add(10);
  table.setState(s, kl::SVC_STATE_STARTING);
  table.setState(s, kl::SVC_STATE_STARTING);  // a new pid, say
  table.remove(10);
  EXPECT_EQ(listener.ids, (std::vector<unsigned int>{10, 10, 10}));
}

TEST(ServiceTable, TheLogNamesAServiceWithItsProcess) {
  Service s(32);
  s.name = "netif";
  EXPECT_EQ(describe(s), "netif (32)");
  s.pid = 4711;
  EXPECT_EQ(describe(s), "netif (32, pid 4711)");
}

TEST(ServiceTable, AConfiguredServiceIsHeldForWhileItIsAwaited) {
  const loader::ServiceConfiguration configured;
  Service s(32);
  EXPECT_FALSE(s.holds());  // nobody configured it
  s.configuration = &configured;
  for (const unsigned int state : {kl::SVC_STATE_STOPPED, kl::SVC_STATE_STARTING, kl::SVC_STATE_LEFT}) {
    s.state = state;
    EXPECT_TRUE(s.holds()) << state;
  }
  for (const unsigned int state : {kl::SVC_STATE_DELAYED, kl::SVC_STATE_STOPPING}) {
    s.state = state;
    EXPECT_FALSE(s.holds()) << state;
  }
  s.state = kl::SVC_STATE_STARTING;
  s.isAwaited = false;
  EXPECT_FALSE(s.holds());
}

TEST(ServiceTable, AServiceThatWasAskedToLeaveIsHeldFor) {
  ServiceTable table;
  Service& s = loader::test::connected(table, 32);
  EXPECT_FALSE(s.holds());
  s.state = kl::SVC_STATE_LEAVING;
  EXPECT_TRUE(s.holds());
  s.connection = nullptr;  // its process has not ended yet
  EXPECT_TRUE(s.holds());
}

}  // namespace

#include "services/loader/routing/service_table.h"

#include <gtest/gtest.h>

#include <vector>

#include "kl/services.h"

namespace {

using loader::Service;
using loader::ServiceTable;

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
  std::vector<unsigned int> ids;
  table.setListener([&](unsigned int id) { ids.push_back(id); });
  Service& s = table.add(10);
  table.setState(s, kl::SVC_STATE_STARTING);
  table.setState(s, kl::SVC_STATE_STARTING);  // a new pid, say
  table.remove(10);
  EXPECT_EQ(ids, (std::vector<unsigned int>{10, 10, 10}));
}

TEST(ServiceTable, TheSumOfTheTrafficKeepsWhatRemovedOnesHad) {
  ServiceTable table;
  table.add(10).traffic = {1, 2, 3, 4, 5, 6};
  table.add(20).traffic = {10, 20, 30, 40, 50, 60};
  table.remove(10);
  table.remove(30);  // there is none
  table.add(10).traffic.denials = 100;
  const loader::Traffic all = table.allTraffic();
  EXPECT_EQ(all.messagesIn, 11u);
  EXPECT_EQ(all.messagesOut, 22u);
  EXPECT_EQ(all.bytesIn, 33u);
  EXPECT_EQ(all.bytesOut, 44u);
  EXPECT_EQ(all.drops, 55u);
  EXPECT_EQ(all.denials, 166u);
}

TEST(ServiceTable, TheLogNamesAServiceWithItsProcess) {
  Service s(32);
  s.name = "netif";
  EXPECT_EQ(loader::describe(s), "netif (32)");
  s.pid = 4711;
  EXPECT_EQ(loader::describe(s), "netif (32, pid 4711)");
}

}  // namespace

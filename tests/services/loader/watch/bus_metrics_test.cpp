#include "services/loader/watch/bus_metrics.h"

#include <gtest/gtest.h>

#include <vector>

#include "kl/services.h"
#include "tests/services/loader/fixture.h"

namespace {

using namespace loader::test;
using loader::Service;

using Counts = std::vector<unsigned long long>;

// In the order of the members.
Counts countsOf(const common::TrafficMetrics& t) {
  return {t.messagesIn, t.messagesOut, t.bytesIn, t.bytesOut, t.drops, t.denials};
}

class BusMetricsTest : public testing::Test {
 protected:
  common::BusMetrics metrics(common::Moment now = {100, 0}) const {
    return loader::metricsOf(services_, requests_, 7, now);
  }

  loader::ServiceTable services_;
  loader::OpenRequests requests_{1};
};

TEST_F(BusMetricsTest, AConfiguredServiceHasAllThatItsRowHas) {
  Service& s = connected(services_, 32);
  s.isConfigured = true;
  s.name = "netif";
  s.starts = 3;
  s.traffic = {1, 2, 3, 4, 5, 6};
  Service& asker = connected(services_, 33);
  const auto body = flat(request({0}, kl::CMD_GETALL, 5, {7}));
  loader::Envelope e;
  ASSERT_EQ(loader::readEnvelope(body, e), nullptr);
  requests_.add(asker, s, e, e.path(), {98, 100});
  const common::BusMetrics bus = metrics();
  ASSERT_EQ(bus.services.size(), 1u);
  const common::ServiceMetrics& netif = bus.services[0];
  EXPECT_EQ(netif.id, 32u);
  EXPECT_EQ(netif.name, "netif");
  EXPECT_EQ(netif.state, kl::SVC_STATE_RUNNING);
  EXPECT_EQ(netif.starts, 3u);
  EXPECT_EQ(countsOf(netif.traffic), (Counts{1, 2, 3, 4, 5, 6}));
  EXPECT_EQ(netif.queueBytes, 0u);
  EXPECT_EQ(netif.requests, 1u);
  EXPECT_EQ(netif.oldestMs, 1900u);
}

TEST_F(BusMetricsTest, SumsKeepWhoHasGoneAndStrangersAreCounted) {
  connected(services_, kl::SERVICE_LOADER).traffic.messagesOut = 10;
  connected(services_, 0x10000).traffic = {1, 2, 3, 4, 5, 6};
  connected(services_, 0x10001).traffic = {1, 2, 3, 4, 5, 6};
  services_.remove(0x10001);
  const common::BusMetrics bus = metrics();
  EXPECT_EQ(countsOf(bus.all), (Counts{2, 14, 6, 8, 10, 12}));
  EXPECT_EQ(bus.connections, 7u);
  EXPECT_EQ(bus.others, 1u);
  ASSERT_EQ(bus.services.size(), 1u);
  EXPECT_EQ(bus.services[0].id, kl::SERVICE_LOADER);
}

}  // namespace

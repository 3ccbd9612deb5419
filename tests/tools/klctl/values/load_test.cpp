#include "tools/klctl/values/load.h"

#include <gtest/gtest.h>

namespace klctl {
namespace {

ServiceState service(unsigned int id, Count in, Count out, Count cpuMs = 0, Count startedAt = 7) {
  ServiceState state;
  state.id = id;
  state.name = "s" + std::to_string(id);
  state.pid = 100 + static_cast<pid_t>(id);
  state.messagesIn = in;
  state.messagesOut = out;
  state.process = ProcessUsage{cpuMs, 320, startedAt};
  return state;
}

SystemState at(Count timeMs, const std::vector<ServiceState>& services, Count messages = 0) {
  SystemState state;
  state.timeMs = timeMs;
  state.services = services;
  state.messages = messages;
  return state;
}

TEST(Load, TheFirstLookKnowsNoRates) {
  LoadMeter meter;
  const SystemLoad load = meter.take(at(1000, {service(32, 5, 6)}, 11));
  ASSERT_EQ(load.services.size(), 1u);
  EXPECT_FALSE(load.services[0].inPerSecond);
  EXPECT_FALSE(load.services[0].outPerSecond);
  EXPECT_FALSE(load.services[0].cpuPermille);
  EXPECT_FALSE(load.messagesPerSecond);
  EXPECT_TRUE(load.services[0].history.empty());
}

TEST(Load, RatesAreThoseOfTheTimeThatPassed) {
  LoadMeter meter;
  (void)meter.take(at(1000, {service(32, 5, 6, 100)}, 11));
  const SystemLoad load = meter.take(at(3000, {service(32, 25, 86, 600)}, 2011));
  EXPECT_EQ(load.services[0].inPerSecond, 10u);
  EXPECT_EQ(load.services[0].outPerSecond, 40u);
  EXPECT_EQ(load.services[0].cpuPermille, 250u);
  EXPECT_EQ(load.messagesPerSecond, 1000u);
  EXPECT_EQ(load.services[0].history, std::vector<Count>{50});
}

TEST(Load, ANextProcessBeginsItsTimeAnewAndGoesOnWithTheCounters) {
  LoadMeter meter;
  (void)meter.take(at(1000, {service(32, 5, 6, 100)}));
  const SystemLoad load = meter.take(at(2000, {service(32, 6, 7, 900, 8)}));
  EXPECT_FALSE(load.services[0].cpuPermille);
  EXPECT_EQ(load.services[0].inPerSecond, 1u);
}

TEST(Load, CountersThatBecameLessBeginAnew) {
  LoadMeter meter;
  (void)meter.take(at(1000, {service(32, 50, 60, 500)}, 110));
  SystemLoad load = meter.take(at(2000, {service(32, 5, 6, 100)}, 11));
  EXPECT_FALSE(load.services[0].inPerSecond);
  EXPECT_FALSE(load.services[0].cpuPermille);
  EXPECT_FALSE(load.messagesPerSecond);
  load = meter.take(at(3000, {service(32, 6, 7, 200)}, 13));
  EXPECT_EQ(load.services[0].inPerSecond, 1u);
  EXPECT_EQ(load.messagesPerSecond, 2u);
}

TEST(Load, AnotherServiceOfTheSameIdHasAHistoryOfItsOwn) {
  LoadMeter meter;
  (void)meter.take(at(1000, {service(32, 5, 6)}));
  (void)meter.take(at(2000, {service(32, 6, 7)}));
  ServiceState other = service(32, 100, 100);
  other.name = "other";
  const SystemLoad load = meter.take(at(3000, {other}));
  EXPECT_FALSE(load.services[0].inPerSecond);
  EXPECT_TRUE(load.services[0].history.empty());
}

TEST(Load, OneThatWasGoneIsNew) {
  LoadMeter meter;
  (void)meter.take(at(1000, {service(32, 5, 6), service(33, 1, 1)}));
  (void)meter.take(at(2000, {service(33, 1, 1)}));
  const SystemLoad load = meter.take(at(3000, {service(32, 9, 9), service(33, 1, 1)}));
  EXPECT_FALSE(load.services[0].inPerSecond);
  EXPECT_EQ(load.services[1].inPerSecond, 0u);
}

TEST(Load, TheHistoryKeepsTheLatest) {
  LoadMeter meter;
  SystemLoad load;
  for (Count i = 0; i < 12; ++i) load = meter.take(at(1000 * i, {service(32, i * i, 0)}));
  EXPECT_EQ(load.services[0].history, (std::vector<Count>{7, 9, 11, 13, 15, 17, 19, 21}));
}

TEST(Load, ATimeThatStandsStillHasNoRates) {
  LoadMeter meter;
  (void)meter.take(at(1000, {service(32, 5, 6)}));
  EXPECT_FALSE(meter.take(at(1000, {service(32, 9, 9)})).services[0].inPerSecond);
}

}  // namespace
}  // namespace klctl

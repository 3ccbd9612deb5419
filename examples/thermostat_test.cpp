// Tests of thermostat.h with the test kit (kl/test.h): no root, no loader, no waiting.

#include "thermostat.h"

#include <gtest/gtest.h>

#include "kl/test.h"

using namespace std::chrono_literals;

TEST(Thermostat, HeatsWhileItIsCold) {
  kl::test::TestBus bus(35);  // this process is service 35
  Thermostat thermostat;
  bus.add(0, thermostat);  // its path is [35, 0]
  kl::test::Peer sensor(bus, 24);
  kl::message cold;
  cold.insert(TEMPERATURE, 185);
  sensor.on(kl::CMD_GET, cold);
  kl::test::Peer user(bus);
  EXPECT_FALSE(user.ask({35, 0}, kl::CMD_GET).get(HEATING, true));
  bus.advance(1s);
  EXPECT_TRUE(user.ask({35, 0}, kl::CMD_GET).get(HEATING, false));
}

TEST(Thermostat, DoesNotHeatWithoutItsSensor) {
  kl::test::TestBus bus(35);
  Thermostat thermostat;
  bus.add(0, thermostat);
  kl::test::Peer sensor(bus, 24);
  kl::message cold;
  cold.insert(TEMPERATURE, 185);
  sensor.on(kl::CMD_GET, cold);
  kl::test::Peer user(bus);
  user.subscribe({35, 0});
  bus.advance(2s);  // on, and the subscriber hears of it
  EXPECT_EQ(user.takeNotified().size(), 1u);

  sensor.ignore(kl::CMD_GET);  // now each request runs into its time-out
  bus.advance(10min);
  EXPECT_EQ(sensor.takeAsked().size(), 602u);
  EXPECT_EQ(user.takeNotified().size(), 1u);
  EXPECT_FALSE(user.ask({35, 0}, kl::CMD_GET).get(HEATING, true));

  sensor.end();  // its process is gone
  bus.advance(1s);
  EXPECT_FALSE(user.ask({35, 0}, kl::CMD_GET).get(HEATING, true));
}

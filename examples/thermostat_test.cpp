// Tests of thermostat.h with the test kit (kl/test.h): no root, no loader, no waiting.

#include "thermostat.h"

#include <gtest/gtest.h>

#include "kl/test.h"

using namespace std::chrono_literals;

namespace {
const kl::message kCold = sensor::RoomMeasureReply{.temperature = 185}.toMessage();
const auto kHeaterPath = thermostat::Heater::kRules.path();
}  // namespace

TEST(Thermostat, HeatsWhileItIsCold) {
  kl::test::TestBus bus(thermostat::SERVICE);  // this process is service 35
  Thermostat thermostat;
  bus.add(thermostat::HANDLER_HEATER, thermostat);  // its path is [35, 0]
  kl::test::Peer room(bus, sensor::SERVICE);
  room.on(sensor::CMD_MEASURE, kCold);
  kl::test::Peer user(bus);
  EXPECT_FALSE(user.ask(kHeaterPath, kl::CMD_GET).get(thermostat::HEATING, true));
  bus.advance(1s);
  EXPECT_TRUE(user.ask(kHeaterPath, kl::CMD_GET).get(thermostat::HEATING, false));
}

TEST(Thermostat, DoesNotHeatWithoutItsSensor) {
  kl::test::TestBus bus(thermostat::SERVICE);
  Thermostat thermostat;
  bus.add(thermostat::HANDLER_HEATER, thermostat);
  kl::test::Peer room(bus, sensor::SERVICE);
  room.on(sensor::CMD_MEASURE, kCold);
  kl::test::Peer user(bus);
  user.subscribe(kHeaterPath);
  bus.advance(2s);  // on, and the subscriber hears of it
  EXPECT_EQ(user.takeNotified().size(), 1u);

  room.ignore(sensor::CMD_MEASURE);  // now each request runs into its time-out
  bus.advance(10min);
  EXPECT_EQ(room.takeAsked().size(), 602u);
  EXPECT_EQ(user.takeNotified().size(), 1u);
  EXPECT_FALSE(user.ask(kHeaterPath, kl::CMD_GET).get(thermostat::HEATING, true));

  room.end();  // its process is gone
  bus.advance(1s);
  EXPECT_FALSE(user.ask(kHeaterPath, kl::CMD_GET).get(thermostat::HEATING, true));
}

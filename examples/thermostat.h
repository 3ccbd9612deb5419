#pragma once
// thermostat.h: switches a heater by what a sensor measures.  The guide tests it.

#include <chrono>

#include "kl/client.h"
#include "kl/looper.h"
#include "kl/timer.h"
#include "sensor.kl.h"
#include "thermostat.kl.h"

// Asks the sensor once a second.  Without an answer it does not heat.
class Thermostat : public kl::Handler {
 public:
  Thermostat() {
    using namespace std::chrono_literals;
    sensor_.setTimeout(500ms);
    poll_.repeat(1s, [this] { look(); });
  }

 private:
  static constexpr unsigned int kColdBelow = 200;
  static constexpr unsigned int kHeater = 1;

  void look() {
    sensor_.measure([this](const kl::Result<sensor::RoomMeasureReply>& measured) {
      heat(measured && measured->temperature < kColdBelow);
    });
  }

  void heat(bool on) {
    if (on == isHeating_) return;
    isHeating_ = on;
    notifyChange(kHeater);
  }

  kl::message cmdGet(const kl::message&) override { return getObject(kHeater); }

  kl::message getObject(unsigned int id) override {
    return thermostat::Heater{.id = id, .heating = isHeating_}.toMessage();
  }

  bool isHeating_ = false;
  kl::Client<sensor::Room> sensor_{*this};
  kl::Timer poll_{*kl::getLooper()};
};

#pragma once
// thermostat.h: switches a heater by what a sensor measures.  The guide tests it.

#include <chrono>

#include "kl/looper.h"
#include "kl/timer.h"

inline constexpr kl::field<unsigned int> TEMPERATURE{0x08000001};  // of the sensor, in tenths of a degree
inline constexpr kl::field<bool> HEATING{0x00000001};              // of the thermostat

// Asks the sensor, handler 0 of service 24, once a second.  Without an answer it does not heat.
class Thermostat : public kl::Handler {
 public:
  Thermostat() {
    using namespace std::chrono_literals;
    poll_.repeat(1s, [this] { look(); });
  }

 private:
  static constexpr unsigned int kColdBelow = 200;
  static constexpr unsigned int kHeater = 1;

  void look() {
    kl::message m;
    m.insert(kl::SYS_TO, {24, 0});
    m.insert(kl::SYS_CMD, kl::CMD_GET);
    postMessage(m, this, kl::bind<Thermostat, &Thermostat::onTemperature>(), kl::message(), 50);
  }

  void onTemperature(const kl::message& reply, const kl::message&) {
    const bool isCold = !kl::isError(reply) && reply.get(TEMPERATURE, kColdBelow) < kColdBelow;
    if (isCold == isHeating_) return;
    isHeating_ = isCold;
    notifyChange(kHeater);
  }

  kl::message cmdGet(const kl::message&) override { return getObject(kHeater); }

  kl::message getObject(unsigned int id) override {
    kl::message m;
    m.insert(kl::STD_ID, id);
    m.insert(HEATING, isHeating_);
    return m;
  }

  bool isHeating_ = false;
  kl::Timer poll_{*kl::getLooper()};
};

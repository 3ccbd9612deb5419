// A message only stamps its services with the time; the timer of a watch computes from the stamp when the service could
// be idle at the earliest, and sleeps until then.

#include "life/idleness.h"

namespace loader {
namespace {

constexpr unsigned int kTicksPerSecond = 100;

bool mayLeave(const Service& service) { return service.isConnected() && service.leaveValue != 0; }

}  // namespace

void Idleness::onReadiness(Service& service, unsigned int limitSeconds) {
  if (limitSeconds == 0 || !mayLeave(service)) return;
  std::unique_ptr<Watch>& watch = watches_[service.id];
  if (watch == nullptr) watch = std::make_unique<Watch>(*this, service, limitSeconds);
  service.lastActive = seconds_();
  if (!watch->timer.isRunning()) lookAgainLater(*watch);
}

unsigned int Idleness::look(Service& service) { return look(*watches_.at(service.id)); }

// Whole seconds are compared, so a service was idle for longer than its time when the difference exceeds it.
unsigned int Idleness::look(Watch& watch) {
  const Service& service = watch.service;
  const unsigned int idle = seconds_() - service.lastActive;
  if (service.requests.servingCount > 0 || service.state != kl::SVC_STATE_RUNNING)
    return watch.limitSeconds + 1;
  if (idle <= watch.limitSeconds) return watch.limitSeconds + 1 - idle;
  onIdle_(watch.service);
  return watch.limitSeconds + 1;
}

void Idleness::Watch::onTimer() {
  if (mayLeave(service)) idleness.lookAgainLater(*this);
}

void Idleness::lookAgainLater(Watch& watch) { watch.timer.start(look(watch) * kTicksPerSecond); }

}  // namespace loader

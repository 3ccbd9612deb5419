#include "life/idleness.h"

namespace loader {
namespace {

constexpr unsigned int kTicksPerSecond = 100;

bool isWatched(const Service& service) {
  return service.isConnected() && service.isConfigured() && service.configuration->leaveIdleSeconds > 0 &&
         service.leaveValue != 0;
}

}  // namespace

void Idleness::readinessChanged(Service& service) {
  if (!isWatched(service)) return;
  std::unique_ptr<Watch>& watch = watches_[service.id];
  if (watch == nullptr) watch = std::make_unique<Watch>(*this, service);
  service.lastActive = host_.seconds();
  if (!watch->timer) lookAgainLater(*watch);
}

// Whole seconds are compared, so a service was idle for longer than its time when the difference exceeds it.
unsigned int Idleness::look(Service& service) {
  const unsigned int limit = service.configuration->leaveIdleSeconds;
  const unsigned int idle = host_.seconds() - service.lastActive;
  if (service.requests.servingCount > 0 || service.state != kl::SVC_STATE_RUNNING) return limit + 1;
  if (idle <= limit) return limit + 1 - idle;
  host_.isIdle(service);
  return limit + 1;
}

void Idleness::Watch::onTimer() {
  timer = {};
  if (isWatched(service)) idleness.lookAgainLater(*this);
}

void Idleness::lookAgainLater(Watch& watch) {
  watch.timer =
      runner_.addTimer(&watch, kl::bind<Watch, &Watch::onTimer>(), look(watch.service) * kTicksPerSecond);
}

}  // namespace loader

// A service is the same as long as its id and its name are; the process time counts for one process.

#include "values/load.h"

#include <algorithm>

namespace klctl {
namespace {

constexpr Count kMsInSecond = 1000;
constexpr Count kWhole = 1000;  // permille

std::optional<Count> perSecond(Count now, Count before, Count passedMs) {
  if (now < before || passedMs == 0) return std::nullopt;
  return (now - before) * kMsInSecond / passedMs;
}

std::optional<Count> cpuPermille(const std::optional<ProcessUsage>& now,
                                 const std::optional<ProcessUsage>& before, Count passedMs) {
  if (!now || !before || now->startedAt != before->startedAt || now->cpuMs < before->cpuMs || passedMs == 0)
    return std::nullopt;
  return (now->cpuMs - before->cpuMs) * kWhole / passedMs;
}

}  // namespace

SystemLoad LoadMeter::take(const SystemState& state) {
  SystemLoad load;
  const Count passedMs = lastMs_ && state.timeMs > *lastMs_ ? state.timeMs - *lastMs_ : 0;
  forgetAbsent(state);
  for (const ServiceState& service : state.services) load.services.push_back(loadOf(service, passedMs));
  load.messagesPerSecond = perSecond(state.messages, lastMessages_, passedMs);
  load.drops = state.drops;
  load.denials = state.denials;
  lastMs_ = state.timeMs;
  lastMessages_ = state.messages;
  return load;
}

ServiceLoad LoadMeter::loadOf(const ServiceState& now, Count passedMs) {
  ServiceLoad load;
  load.now = now;
  const auto [at, isNew] = known_.try_emplace(now.id);
  auto& [last, history] = at->second;
  if (!isNew && last.name == now.name) {
    load.inPerSecond = perSecond(now.messagesIn, last.messagesIn, passedMs);
    load.outPerSecond = perSecond(now.messagesOut, last.messagesOut, passedMs);
    if (last.pid == now.pid) load.cpuPermille = cpuPermille(now.process, last.process, passedMs);
  } else {
    history.clear();
  }
  if (load.inPerSecond && load.outPerSecond) history.push_back(*load.inPerSecond + *load.outPerSecond);
  if (history.size() > kHistory) history.pop_front();
  load.history.assign(history.begin(), history.end());
  last = now;
  return load;
}

void LoadMeter::forgetAbsent(const SystemState& state) {
  std::erase_if(known_, [&](const auto& known) {
    return std::none_of(state.services.begin(), state.services.end(),
                        [&](const ServiceState& service) { return service.id == known.first; });
  });
}

}  // namespace klctl

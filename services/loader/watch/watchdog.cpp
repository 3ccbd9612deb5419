// Time is added up look by look, so that each stretch counts as far as it was the process's own, and so that a loader
// that stood still reads what has come meanwhile before it judges: one look never counts for more than half of the time.

#include "watch/watchdog.h"

#include <signal.h>

#include <algorithm>
#include <cstdio>
#include <utility>
#include <vector>

#include "life/states.h"

namespace loader {
namespace {

constexpr unsigned int kMsPerTick = 10;
constexpr unsigned int kClockMs = 50;  // by which clocks and timers may differ

std::string secondsOf(unsigned long long milliseconds) {
  char text[32];
  std::snprintf(text, sizeof text, "%llu.%llu s", milliseconds / 1000, milliseconds / 100 % 10);
  return text;
}

unsigned int ticksBetweenLooks(unsigned int seconds) {
  return seconds * Watchdog::kTicksASecond / Watchdog::kLooks;
}

// Only what the loader has started, and what has come as far as its loop.
bool isToAnswer(const Service& service) {
  return service.life == LifeState::kRunning && service.isConnected() && service.pid > 0;
}

}  // namespace

Watchdog::Watchdog(kl::ThinRunner& runner, const ServiceTable& services, const OpenRequests& requests,
                   Probes& probes, Clock clock, Tell tell, End end, Flush flush, Look look)
    : services_(services),
      requests_(requests),
      probes_(probes),
      clock_(std::move(clock)),
      tell_(std::move(tell)),
      end_(std::move(end)),
      flush_(std::move(flush)),
      look_(std::move(look)),
      timer_(runner, *this) {}

void Watchdog::watch(unsigned int service, unsigned int seconds) {
  if (seconds == 0) watched_.erase(service);
  else watched_[service].seconds = seconds;
  if (watched_.empty()) timer_.cancel();
  else timer_.start(pauseTicks());
}

void Watchdog::onTimer() {
  flush_();  // what still waits then, waits for its reader
  for (auto& [id, watched] : watched_) look(id, watched);
  if (!watched_.empty()) timer_.start(pauseTicks());
}

// Until the next look, of which the shortest time needs the first.
unsigned int Watchdog::pauseTicks() const {
  unsigned int ticks = 0xffffffff;
  for (const auto& [id, watched] : watched_) {
    ticks = std::min(ticks, ticksBetweenLooks(watched.seconds));
    if (watched.state == State::kShown) ticks = std::min(ticks, kShowTicks);
  }
  return ticks;
}

void Watchdog::forgetProcess(Watched& watched) {
  const unsigned int seconds = watched.seconds;
  watched = {};
  watched.seconds = seconds;
}

void Watchdog::look(unsigned int id, Watched& watched) {
  Service* service = services_.find(id);
  const bool isWatched = service != nullptr && isToAnswer(*service);
  if (!isWatched || service->pid != watched.pid) forgetProcess(watched);
  if (!isWatched) return;
  watched.pid = service->pid;
  switch (watched.state) {
    case State::kAnswered: return ask(*service, watched);
    case State::kAsked: return await(*service, watched);
    case State::kShown: return finish(*service, watched);
  }
}

void Watchdog::ask(Service& service, Watched& watched) {
  const auto time = look_(service.pid);
  if (!time) return;  // it has just ended
  watched.isReached = probes_.ask(service);
  flush_();
  watched.state = State::kAsked;
  watched.askedAt = clock_();
  watched.isExcuseTold = false;
  beginAnew(service, watched, *time);
}

void Watchdog::beginAnew(const Service& service, Watched& watched, const ProcessTime& time) const {
  watched.lookedAt = clock_();
  watched.time = time;
  watched.couldRunMs = watched.ranMs = 0;
  watched.messagesOut = service.traffic.messagesOut;
  watched.waiting = service.out.size();
}

// W3
bool Watchdog::hasAnswered(const Service& service, const Watched& watched) const {
  return watched.isReached && !probes_.isOpen(service);
}

void Watchdog::await(Service& service, Watched& watched) {
  if (hasAnswered(service, watched)) {
    watched.state = State::kAnswered;
    return;
  }
  if (!watched.isReached) watched.isReached = probes_.ask(service);
  const auto time = look_(service.pid);
  if (!time) return;
  if (hasMoved(service, watched) || isExcused(service, watched, *time))
    return beginAnew(service, watched, *time);
  const Stretch stretch = stretchUntil(*time, watched);
  watched.couldRunMs += stretch.couldRunMs;
  watched.ranMs += stretch.ranMs;
  watched.time = *time;
  watched.lookedAt = clock_();
  watched.waiting = service.out.size();
  if (watched.couldRunMs + kClockMs >= watched.seconds * 1000ULL) judge(service, watched);
}

bool Watchdog::hasMoved(const Service& service, const Watched& watched) {
  return service.traffic.messagesOut != watched.messagesOut || service.out.size() < watched.waiting;
}

// W1
Watchdog::Stretch Watchdog::stretchUntil(const ProcessTime& time, const Watched& watched) const {
  const unsigned long long most = 2ULL * ticksBetweenLooks(watched.seconds) * kMsPerTick;
  const unsigned long long passed = std::min(most, passedSince(watched.lookedAt));
  return {time.waitsForDisk() ? 0 : couldHaveRunMs(watched.time, time, passed),
          time.ranMs - std::min(time.ranMs, watched.time.ranMs)};
}

bool Watchdog::isExcused(const Service& service, Watched& watched, const ProcessTime& time) const {
  const Stretch stretch = stretchUntil(time, watched);
  const bool sleeps = stretch.ranMs * 2 < stretch.couldRunMs;
  if (time.isStopped()) excuse(service, watched, "is stopped, or traced");
  else if (sleeps && waitsFor(service) != nullptr)
    excuse(service, watched, "waits for " + chainFrom(service));  // W2
  else return false;
  return true;
}

void Watchdog::excuse(const Service& service, Watched& watched, const std::string& why) const {
  const unsigned long long passed = passedSince(watched.askedAt);
  if (watched.isExcuseTold || passed < watched.seconds * 1000ULL) return;
  watched.isExcuseTold = true;
  tell_(describe(service) + ": has not answered for " + secondsOf(passed) + ", as it " + why +
        "; is left alone");
}

void Watchdog::judge(Service& service, Watched& watched) {
  const bool canShow = catchesSignal(service.pid, SIGUSR2);
  tell_(describe(service) + ": has not answered for " + secondsOf(passedSince(watched.askedAt)) +
        ", ran for " + secondsOf(watched.ranMs) + " and could have for " + secondsOf(watched.couldRunMs) +
        (canShow ? "; shows its stack and is ended" : "; is ended"));
  watched.state = State::kShown;
  watched.shownAt = clock_();
  if (canShow) (void)::kill(service.pid, SIGUSR2);
}

// The signal may have woken it.
void Watchdog::finish(Service& service, Watched& watched) {
  if (hasAnswered(service, watched)) {
    tell_(describe(service) + ": answers after " + secondsOf(passedSince(watched.askedAt)) +
          "; is left alone");
    watched.state = State::kAnswered;
  } else if (passedSince(watched.shownAt) + kClockMs >= kShowTicks * kMsPerTick) {
    end_(service, "did not answer for " + secondsOf(passedSince(watched.askedAt)) + " and was ended");
  }
}

// A request held for an absent service is waited for like one that was delivered.
const OpenRequest* Watchdog::waitsFor(const Service& service) const {
  const OpenRequest* request = requests_.oldestFrom(service);
  while (request != nullptr && !request->expectsReply) request = requests_.newerFrom(*request);
  return request;
}

std::string Watchdog::chainFrom(const Service& service) const {
  std::string text;
  std::vector<const Service*> chain{&service};
  for (const OpenRequest* request = waitsFor(service); request != nullptr && chain.size() <= kMostNames;
       request = waitsFor(*chain.back())) {
    const Service* next = request->callee;
    text += (text.empty() ? "" : ", which waits for ") + describe(*next);
    if (std::find(chain.begin(), chain.end(), next) != chain.end()) break;
    chain.push_back(next);
  }
  return text;
}

}  // namespace loader

#include "life/lifecycle.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "life/process.h"

namespace loader {
namespace {

constexpr char kNotMine[] = "the loader does not start this service";
constexpr char kEnding[] = "the loader is ending";
constexpr char kNotThere[] = "no process that the loader started runs for this service";

std::string secondsText(unsigned int ticks) {
  char text[16];
  std::snprintf(text, sizeof text, "%u.%u s", ticks / 100, ticks / 10 % 10);
  return text;
}

std::string cannotStart(const Service& service) {
  return describe(service) + ": cannot be started: " + std::strerror(errno);
}

// A crash is every end but one that the program chose and called a success.
bool isCrash(int status) { return !WIFEXITED(status) || WEXITSTATUS(status) != 0; }

}  // namespace

void Supervisor::supervise(Service& service) {
  processes_[service.id] = std::make_unique<Process>(*this, service);
}

void Supervisor::startAll() {
  for (const auto& [id, p] : processes_) {
    const ServiceConfiguration& configuration = *p->service.configuration;
    if (configuration.startsAtBoot) (void)start(p->service);
    else if (configuration.startsOnDemand) table_.setState(p->service, kl::SVC_STATE_LEFT);
  }
}

const char* Supervisor::start(Service& service) {
  Process* p = find(service);
  if (p == nullptr) return kNotMine;
  if (isEnding_) return kEnding;
  p->isWanted = true;
  if (p->isAlive()) p->startsAgain = p->isTold;
  if (p->isAlive() || service.isConnected()) return nullptr;
  p->delay.reset();
  cancelDelay(*p);
  if (!service.hasRegistered) service.isAwaited = true;
  launch(*p);
  return nullptr;
}

const char* Supervisor::stop(Service& service) {
  Process* p = find(service);
  if (p == nullptr) return kNotMine;
  p->isWanted = false;
  p->startsAgain = false;
  cancelDelay(*p);
  if (p->isAlive()) tellToEnd(*p);
  else if (service.isConnected()) host_.disconnect(service);
  else rest(*p);
  return nullptr;
}

const char* Supervisor::leave(Service& service) {
  const Process* p = find(service);
  if (p == nullptr) return kNotMine;
  if (service.state == kl::SVC_STATE_LEAVING || service.state == kl::SVC_STATE_LEFT) return nullptr;
  return p->isAlive() && service.isConnected() ? host_.askToLeave(service) : kNotThere;
}

void Supervisor::startAsNeeded(Service& service) {
  Process* p = find(service);
  if (p != nullptr && !p->isAlive() && !isEnding_) launch(*p);
}

void Supervisor::refusedToLeave(Service& service) {
  if (isEnding_) (void)stop(service);
}

void Supervisor::expectEnd(Service& service) {
  Process* p = find(service);
  if (p != nullptr && p->isAlive() && !p->killTimer)
    p->killTimer = runner_.addTimer(p, kl::bind<Process, &Process::onKill>(), kKillTicks);
}

const char* Supervisor::restart(Service& service) {
  if (const char* failure = stop(service)) return failure;
  return start(service);
}

void Supervisor::strangerCame(Service& service) {
  if (Process* p = find(service)) cancelDelay(*p);
}

void Supervisor::connectionEnded(Service& service) {
  Process* p = find(service);
  if (p != nullptr && p->isAlive()) {
    // Without its connection it is of no use; most have noticed and are ending.
    if (service.state != kl::SVC_STATE_LEAVING) table_.setState(service, kl::SVC_STATE_STOPPING);
    return expectEnd(service);
  }
  service.pid = 0;
  if (p != nullptr && p->isWanted && !isEnding_)
    startLater(*p, describe(service) + ": the one that took its place is gone");
  else table_.setState(service, kl::SVC_STATE_STOPPED);
}

void Supervisor::reap() {
  int status = 0;
  for (pid_t pid = 0; (pid = ::waitpid(-1, &status, WNOHANG)) > 0;)
    for (const auto& [id, p] : processes_)
      if (p->isAlive() && p->service.pid == pid) {
        ended(*p, status);
        break;
      }
  if (isEnding_ && !anyAlive()) host_.allEnded();
}

void Supervisor::endAll() {
  const bool isSecondCall = isEnding_;
  isEnding_ = true;
  for (const auto& [id, p] : processes_) {
    if (isSecondCall && p->isAlive()) kill(*p);
    else if (!isAskedAtEnd(*p) && p->service.state != kl::SVC_STATE_LEFT) (void)stop(p->service);
  }
  if (!anyAlive()) host_.allEnded();
}

// True when the process was asked to leave; what it does not do in time it is told to.
bool Supervisor::isAskedAtEnd(Process& p) {
  if (!p.isAlive() || leave(p.service) != nullptr) return false;
  p.isWanted = false;
  if (!p.killTimer) p.killTimer = runner_.addTimer(&p, kl::bind<Process, &Process::onKill>(), kLeaveTicks);
  return true;
}

Supervisor::Process* Supervisor::find(const Service& service) {
  const auto found = processes_.find(service.id);
  return found == processes_.end() ? nullptr : found->second.get();
}

void Supervisor::launch(Process& p) {
  p.startTick = kl::getJiffies();  // an attempt that fails counts as a short life
  int ends[2];
  if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0)
    return startLater(p, cannotStart(p.service));
  Descriptor mine(ends[0]);
  const Descriptor its(ends[1]);
  ++p.service.starts;
  p.isTold = p.startsAgain = false;
  p.isWanted = true;
  const pid_t pid = startProcess(*p.service.configuration, its.get());
  if (pid < 0) return startLater(p, cannotStart(p.service));
  p.isOwn = true;
  p.service.pid = pid;
  table_.setState(p.service, kl::SVC_STATE_STARTING);
  log_.line(describe(p.service) + ": started");
  host_.adopt(p.service, std::move(mine));
}

void Supervisor::tellToEnd(Process& p) {
  p.isTold = true;
  table_.setState(p.service, kl::SVC_STATE_STOPPING);
  (void)::kill(p.service.pid, SIGTERM);
  if (!p.killTimer) p.killTimer = runner_.addTimer(&p, kl::bind<Process, &Process::onKill>(), kKillTicks);
}

// The whole group, so that what a stuck service has started goes with it; and the process, which may have joined
// another group.
void Supervisor::kill(Process& p) {
  log_.line(describe(p.service) + ": does not end, is killed");
  (void)::kill(-p.service.pid, SIGKILL);
  (void)::kill(p.service.pid, SIGKILL);
}

// It may have ended long ago, if the signal that says so was lost.
void Supervisor::Process::onKill() {
  killTimer = {};
  const pid_t pid = service.pid;
  supervisor.reap();
  if (isAlive() && service.pid == pid) {
    if (supervisor.isEnding_ && !isTold) supervisor.tellToEnd(*this);
    else supervisor.kill(*this);
  }
  supervisor.host_.settle();
}

void Supervisor::Process::onDelayOver() {
  delayTimer = {};
  supervisor.launch(*this);
  supervisor.host_.settle();
}

void Supervisor::ended(Process& p, int status) {
  const bool wasTold = p.isTold;
  const bool crashed = isCrash(status);
  const std::string how =
      describe(p.service) + (wasTold ? ": ended as told" : ": ended with " + describeEnd(status));
  host_.processEnded(p.service);
  if (p.service.state == kl::SVC_STATE_LEAVING && host_.hasLeft(p.service, crashed))
    return left(p, describe(p.service) + ": left");
  forgetProcess(p);
  if (isEnding_ || (wasTold && !p.startsAgain)) return settleDown(p, how);
  if (p.startsAgain) {
    log_.line(how);
    return launch(p);
  }
  if (startsAfter(p, crashed)) return startLater(p, how);
  settleDown(p, how);
  if (!crashed && p.service.configuration->startsOnDemand) awaitDemand(p);
}

void Supervisor::left(Process& p, const std::string& how) {
  log_.line(how);
  forgetProcess(p);
  table_.setState(p.service, kl::SVC_STATE_LEFT);
  if (p.service.isDemanded) startAsNeeded(p.service);
}

// A service that was started by a message and had no more to do.
void Supervisor::awaitDemand(Process& p) {
  p.service.isAwaited = true;
  table_.setState(p.service, kl::SVC_STATE_LEFT);
}

void Supervisor::forgetProcess(Process& p) {
  runner_.removeTimer(p.killTimer);
  p.killTimer = {};
  p.isOwn = false;
  p.service.pid = 0;
}

bool Supervisor::startsAfter(const Process& p, bool crashed) const {
  switch (p.service.configuration->restart) {
    case RestartRule::kAlways: return true;
    case RestartRule::kAfterCrash: return crashed;
    case RestartRule::kNever: break;
  }
  return false;
}

void Supervisor::settleDown(Process& p, const std::string& how) {
  log_.line(how);
  p.isWanted = false;
  p.service.isAwaited = false;
  rest(p);
}

// A service that had left and is not to come again has ended, which the others have not heard yet.
void Supervisor::rest(Process& p) {
  if (p.service.bornAt != 0 && !isEnding_) {
    p.service.isAwaited = false;
    host_.staysAway(p.service);
  }
  table_.setState(p.service, kl::SVC_STATE_STOPPED);
}

void Supervisor::startLater(Process& p, const std::string& how) {
  const unsigned int delay = p.delay.next(kl::getJiffies() - p.startTick);
  log_.line(how + "; starts again in " + secondsText(delay));
  p.delayTimer = runner_.addTimer(&p, kl::bind<Process, &Process::onDelayOver>(), delay);
  table_.setState(p.service, kl::SVC_STATE_DELAYED);
}

void Supervisor::cancelDelay(Process& p) {
  runner_.removeTimer(p.delayTimer);
  p.delayTimer = {};
}

bool Supervisor::anyAlive() const {
  return std::any_of(processes_.begin(), processes_.end(),
                     [](const auto& entry) { return entry.second->isAlive(); });
}

}  // namespace loader

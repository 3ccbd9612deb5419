// An event finds its transition in the table; apply() takes the steps of it: those that belong to the old state, the
// change, those of the new state, the news for the table's listener, and last what raises the next event.  Nothing
// else changes a state.

#include "life/lifecycle.h"

#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <utility>

#include "config/decision.h"
#include "crashes/death.h"
#include "life/process.h"

namespace loader {
namespace {

constexpr unsigned int kTicksASecond = 100;
constexpr unsigned int kLastLookTicks = 20;

constexpr char kNotMine[] = "the loader does not start this service";
constexpr char kDismissed[] = "the service is not configured any more";
constexpr char kEnding[] = "the loader is ending";
constexpr char kNotThere[] = "no process that the loader started runs for this service";
constexpr char kDoesNotRun[] = "the service does not run";
constexpr char kMayNot[] = "the service does not let itself be asked to leave now";
constexpr char kReadsNothing[] = "the service reads nothing";
constexpr char kUnknown[] = "there is no such action";

std::string secondsText(unsigned int ticks) {
  char text[16];
  std::snprintf(text, sizeof text, "%u.%u s", ticks / 100, ticks / 10 % 10);
  return text;
}

std::string cannotStart(const Service& service) {
  return describe(service) + ": cannot be started: " + std::strerror(errno);
}

bool startsAfter(RestartRule rule, bool crashed) {
  switch (rule) {
    case RestartRule::kAlways: return true;
    case RestartRule::kAfterCrash: return crashed;
    case RestartRule::kNever: break;
  }
  return false;
}

// The whole group, so that what a stuck service has started goes with it; and the process, which may not have made its
// group yet.
void killGroupOf(const Service& service) {
  (void)::kill(-service.pid, SIGKILL);
  (void)::kill(service.pid, SIGKILL);
}

kl::message leaveRequest() {
  kl::message m;
  m.insert(kl::SYS_TO, {kl::SERVICE_LOADER});
  m.insert(kl::SYS_CTRL, kl::CTRL_LEAVE);
  return m;
}

}  // namespace

Lifecycle::Lifecycle(kl::ThinRunner& runner, ServiceTable& table, OpenRequests& requests, Outbox& outbox,
                     Router& router, Registration& registration, Leaving& leaving, Idleness& idleness,
                     Log& log, LifecycleHost& host)
    : runner_(runner),
      table_(table),
      requests_(requests),
      outbox_(outbox),
      router_(router),
      registration_(registration),
      leaving_(leaving),
      idleness_(idleness),
      log_(log),
      host_(host),
      alarm_(runner) {}

void Lifecycle::configure(Service& service, const ServiceConfiguration& configuration) {
  service.isConfigured = true;
  enter(service, LifeState::kExpected);
  if (configuration.command.empty()) return;
  children_.push_back(std::make_unique<Child>(*this, service, configuration));
  byId_[service.id] = children_.back().get();
}

// The saved data of a service that nobody configures any more stay for the day when somebody does.
void Lifecycle::begin() {
  for (const auto& child : children_) restore(child->service);
  for (const auto& child : children_) followStartRule(*child);
  setAlarm();
}

void Lifecycle::begin(Service& service) {
  const Child* child = find(service);
  table_.setState(service, service.state);
  if (child == nullptr) return;
  restore(service);
  followStartRule(*child);
  setAlarm();
}

void Lifecycle::restore(Service& service) {
  service.bornAt = leaving_.awaySince(service.id);
  service.wakeAt = leaving_.wakeAt(service.id);
  if (service.bornAt != 0) enter(service, LifeState::kLeft);
}

void Lifecycle::followStartRule(const Child& child) {
  Service& service = child.service;
  if (child.configuration->startsAtBoot) {
    (void)start(service);
  } else if (child.configuration->startsOnDemand && service.life == LifeState::kExpected) {
    enter(service, LifeState::kOnDemand);
    table_.setState(service, service.state);
  }
}

void Lifecycle::reconfigure(Service& service, const ServiceConfiguration& configuration, bool restarts) {
  const ProcessOf process = rowOf(service.life).process;
  if (process == ProcessOf::kSomebodyElse && service.uid != configuration.userId() && !isTrusted(service.uid))
    host_.disconnect(service);
  Child* child = find(service);
  if (child == nullptr) return;
  const ServiceConfiguration& former = *std::exchange(child->configuration, &configuration);
  const bool wasStopped = service.life == LifeState::kStopping;
  if (restarts && process == ProcessOf::kLoader && !wasStopped) (void)restart(service);
  if (former.leaveIdleSeconds != configuration.leaveIdleSeconds) {
    idleness_.forget(service);
    idleness_.onReadiness(service, configuration.leaveIdleSeconds);
  }
  const bool isExpected = service.life == LifeState::kExpected || service.life == LifeState::kOnDemand;
  const bool hasSameRule = configuration.startsAtBoot == former.startsAtBoot &&
                           configuration.startsOnDemand == former.startsOnDemand;
  if (!isExpected || hasSameRule) return;
  enter(service, LifeState::kExpected);
  table_.setState(service, service.state);
  followStartRule(*child);
}

void Lifecycle::dismiss(Service& service) {
  service.isDismissed = true;
  dismissed_.push_back(&service);
  apply(service, LifeEvent::kStop);
}

void Lifecycle::forgetDismissed() {
  std::vector<unsigned int> ended;
  std::erase_if(dismissed_, [&](const Service* service) {
    const bool hasEnded = service->life == LifeState::kStopped && !service->isConnected();
    if (hasEnded) ended.push_back(service->id);
    return hasEnded;
  });
  for (const unsigned int id : ended) forget(id);
}

void Lifecycle::forget(unsigned int id) {
  Service& service = *table_.find(id);
  router_.breakPathsTo(service);
  idleness_.forget(service);
  byId_.erase(id);
  std::erase_if(children_, [&](const auto& child) { return &child->service == &service; });
  table_.remove(id);
}

const char* Lifecycle::order(Service& service, unsigned int action) {
  switch (action) {
    case kl::SVC_START: return start(service);
    case kl::SVC_STOP: return stop(service);
    case kl::SVC_RESTART: return restart(service);
    case kl::SVC_LEAVE: return askToLeave(service);
    default: return kUnknown;
  }
}

const char* Lifecycle::start(Service& service) {
  Child* child = find(service);
  if (child == nullptr) return kNotMine;
  if (isEnding_) return kEnding;
  if (service.isDismissed) return kDismissed;
  if (rowOf(service.life).process == ProcessOf::kNobody) child->delay.reset();
  apply(service, LifeEvent::kStart);
  return nullptr;
}

const char* Lifecycle::stop(Service& service) {
  if (find(service) == nullptr) return kNotMine;
  apply(service, LifeEvent::kStop);
  return nullptr;
}

const char* Lifecycle::restart(Service& service) {
  if (const char* failure = stop(service)) return failure;
  return start(service);
}

const char* Lifecycle::askToLeave(Service& service) {
  const Child* child = find(service);
  if (child == nullptr) return kNotMine;
  if (service.state == kl::SVC_STATE_LEAVING || service.state == kl::SVC_STATE_LEFT) return nullptr;
  if (!child->isAlive() || !service.isConnected()) return kNotThere;
  if (service.life != LifeState::kRunning) return kDoesNotRun;
  if (service.leaveValue == 0) return kMayNot;
  router_.announceEnds();  // what ended before the service is asked is not among what it misses
  if (!outbox_.send(service, leaveRequest(), Urgency::kNotice)) return kReadsNothing;
  leaving_.onAsked(service);
  service.wantsToLeave = false;
  apply(service, LifeEvent::kAsked);
  return nullptr;
}

void Lifecycle::onRegistered(Service& service) {
  const bool isOwn = rowOf(service.life).process == ProcessOf::kLoader;
  if (Child* child = find(service); child != nullptr && isOwn)
    child->program = ProgramFile::ofProcess(service.pid);
  apply(service, isOwn ? LifeEvent::kRegistered : LifeEvent::kTaken);
}

void Lifecycle::onControl(Service& service, const Envelope& e) {
  switch (e.control) {
    case kl::CTRL_RUNNING: return apply(service, LifeEvent::kRunning);
    case kl::CTRL_LEAVE_VALUE: return onReadiness(service, e.controlArgument);
    case kl::CTRL_WANT_LEAVE: return onWish(service);
    case kl::CTRL_REFUSED: return onRefused(service);
    case kl::CTRL_LEFT: return onSaved(service, e);
    case kl::CTRL_WAKE_AT: return onWakeTime(service, e.controlArgument);
    default: break;
  }
}

// Subscribers of the table hear of it.
void Lifecycle::onWakeTime(Service& service, unsigned int second) {
  if (service.wakeAt == second) return;
  service.wakeAt = second;
  table_.setState(service, service.state);
}

void Lifecycle::onReadiness(Service& service, unsigned int value) {
  service.leaveValue = value;
  if (const Child* child = find(service))
    idleness_.onReadiness(service, child->configuration->leaveIdleSeconds);
  if (service.wantsToLeave) onWish(service);
}

// A request to leave is remembered while leaving is blocked.
void Lifecycle::onWish(Service& service) {
  service.wantsToLeave = service.leaveValue == 0;
  if (!service.wantsToLeave) (void)askToLeave(service);
}

void Lifecycle::onRefused(Service& service) {
  if (findTransition(service.life, LifeEvent::kRefused) == nullptr) return;
  log_.line(describe(service) + ": refuses to leave");
  leaving_.onRefused(service);
  apply(service, LifeEvent::kRefused);
  if (isEnding_) (void)stop(service);
}

void Lifecycle::onSaved(Service& service, const Envelope& e) {
  if (findTransition(service.life, LifeEvent::kSaved) == nullptr) return;
  leaving_.onSaved(service, e);
  apply(service, LifeEvent::kSaved);
}

// One that finds nobody to wake, as who has left may be started or stopped meanwhile, is set anew.
void Lifecycle::setAlarm() {
  unsigned int first = 0;
  for (const auto& child : children_)
    if (const Service& service = child->service; service.life == LifeState::kLeft && service.wakeAt != 0)
      first = first == 0 ? service.wakeAt : std::min(first, service.wakeAt);
  if (first == 0) return alarm_.stop();
  const std::chrono::system_clock::time_point when{std::chrono::seconds(first)};
  if (!alarm_.start(when, [this] { wakeServices(); }))
    log_.line("no descriptor is left for a timer: services are not started at their times");
}

void Lifecycle::wakeServices() {
  if (isEnding_) return;
  using namespace std::chrono;
  const auto now = floor<seconds>(system_clock::now().time_since_epoch()).count();
  for (const auto& child : children_) {
    Service& service = child->service;
    if (service.life != LifeState::kLeft || service.wakeAt == 0 || service.wakeAt > now) continue;
    log_.line(describe(service) + ": its time has come");
    onNeeded(service);
  }
  setAlarm();
  host_.writeQueues();
}

void Lifecycle::onNeeded(Service& service) {
  if (!isEnding_) apply(service, LifeEvent::kNeeded);
}

void Lifecycle::onConnectionClosed(Service& service) {
  if (!service.isConfigured) {
    declareGone(service);
    return table_.remove(service.id);
  }
  if (rowOf(service.life).process == ProcessOf::kSomebodyElse) service.pid = 0;
  apply(service, LifeEvent::kClosed, describe(service) + ": the one that took its place is gone");
}

void Lifecycle::endHung(Service& service, const std::string& why) {
  Child* child = find(service);
  if (child == nullptr || !child->isAlive()) return;
  child->verdict = why;
  killGroupOf(service);
}

void Lifecycle::reap() {
  int status = 0;
  for (pid_t pid = 0; (pid = ::waitpid(-1, &status, WNOHANG)) > 0;)
    for (const auto& child : children_)
      if (child->isAlive() && child->service.pid == pid) {
        onProcessExit(*child, status);
        break;
      }
  if (isEnding_) endLogService();
}

void Lifecycle::onProcessExit(Child& child, int status) {
  Service& service = child.service;
  const bool wasTold = service.life == LifeState::kStopping || service.life == LifeState::kRestarting;
  host_.drainConnectionsOf(service);
  Caught caught = child.output.end();
  if (!isCrash(status)) child.output.pass(std::exchange(caught.report, {}));
  const bool endsAsTold = wasTold && caught.report.empty();
  service.lastEnd = endsAsTold ? "ended as told" : describeEnd(status, caught);
  if (isCrash(status) && !wasTold && !child.verdict.empty()) service.lastEnd = child.verdict;
  const LifeEvent event = exitEvent(child, isCrash(status) || child.isLate());
  const Transition* transition = findTransition(service.life, event);
  if (transition != nullptr && transition->to == LifeState::kLeft) service.lastEnd = "left";
  const std::string how = describe(service) + ": " + service.lastEnd;
  if (!caught.report.empty()) report(child, std::move(caught.report));
  apply(service, event, how);
}

// One that crashed before it registered runs what its configuration says.
void Lifecycle::report(Child& child, std::string report) const {
  const Service& service = child.service;
  const ServiceConfiguration& configuration = *child.configuration;
  ProgramFile program = std::exchange(child.program, {});
  if (program.path.empty()) program = ProgramFile::atPath(configuration.command.front());
  if (onCrash_)
    onCrash_({service.name, service.id, service.pid, configuration.userId(), configuration.groups,
              std::move(program), std::move(report)});
}

LifeEvent Lifecycle::exitEvent(const Child& child, bool crashed) const {
  const bool comesAgain = !isEnding_ && startsAfter(child.configuration->restart, crashed);
  if (crashed) return comesAgain ? LifeEvent::kCrashedComesAgain : LifeEvent::kCrashedStaysDown;
  if (comesAgain) return LifeEvent::kExitedComesAgain;
  return child.configuration->startsOnDemand && !isEnding_ ? LifeEvent::kExitedOnDemand
                                                           : LifeEvent::kExitedStaysDown;
}

void Lifecycle::end() {
  const bool isSecondCall = isEnding_;
  isEnding_ = true;
  for (const auto& child : children_) {
    if (isSecondCall && child->isAlive()) kill(child->service);
    else if (child->service.id != kl::SERVICE_LOG) endInOrder(*child);
  }
  endLogService();
}

void Lifecycle::endInOrder(Child& child) {
  if (!askToLeaveAtEnd(child) && child.service.state != kl::SVC_STATE_LEFT) (void)stop(child.service);
}

// Does nothing as long as another process runs.
void Lifecycle::endLogService() {
  const auto found = byId_.find(kl::SERVICE_LOG);
  Child* log = found == byId_.end() ? nullptr : found->second;
  if (anyAlive(log)) return;
  if (log != nullptr && !std::exchange(isLogTold_, true)) endInOrder(*log);
  if (!anyAlive(nullptr)) host_.onAllEnded();
}

// True when the process was asked to leave; one that does not answer in time is told to end.
bool Lifecycle::askToLeaveAtEnd(Child& child) {
  if (!child.isAlive() || askToLeave(child.service) != nullptr) return false;
  arm(child);
  return true;
}

void Lifecycle::apply(Service& service, LifeEvent event, const std::string& how) {
  const Transition* transition = findTransition(service.life, event);
  if (transition == nullptr) return;
  const Steps steps = transition->steps;
  const unsigned int shownBefore = service.state;
  before(service, steps, how);
  enter(service, transition->to);
  const std::string failure = after(service, steps);
  if (service.life == LifeState::kLeft) setAlarm();
  if (service.state != shownBefore) table_.setState(service, service.state);
  follow(service, steps, failure);
}

void Lifecycle::before(Service& service, Steps steps, const std::string& how) {
  if (steps.has(Step::kCancelDelay)) find(service)->delayTimer.cancel();
  if (steps.has(Step::kDeclareGone)) declareGone(service);
  if (steps.has(Step::kGiveUp)) giveUp(service);
  if (steps.has(Step::kDrop)) router_.breakPathsTo(service);
  if (steps.has(Step::kKeep)) keep(service);
  if (steps.has(Step::kForgetProcess)) forgetProcess(service);
  if (steps.has(Step::kLog)) log_.line(how);
  if (steps.has(Step::kWait)) wait(*find(service), how);
}

void Lifecycle::enter(Service& service, LifeState state) {
  if (state == LifeState::kSame) return;
  service.life = state;
  service.state = rowOf(state).shown;
  service.isHeldFor = rowOf(state).holds;
}

// Why no process could be started, if one was to be.
std::string Lifecycle::after(Service& service, Steps steps) {
  if (steps.has(Step::kDisarm)) disarm(*find(service));
  if (steps.has(Step::kGreet)) greet(service);
  std::string failure;
  if (steps.has(Step::kLaunch)) failure = launch(*find(service));
  if (steps.has(Step::kTell)) (void)::kill(service.pid, SIGTERM);
  if (steps.has(Step::kTell) || steps.has(Step::kArm)) arm(*find(service));
  if (steps.has(Step::kKill)) kill(service);
  if (steps.has(Step::kRelease)) release(service);
  return failure;
}

void Lifecycle::follow(Service& service, Steps steps, const std::string& failure) {
  if (!failure.empty()) apply(service, LifeEvent::kStartFailed, failure);
  if (steps.has(Step::kNeed)) onNeeded(service);
  if (steps.has(Step::kDisconnect)) host_.disconnect(service);
}

void Lifecycle::declareGone(Service& service) {
  host_.onServiceGone(service);
  leaving_.onGone(service);
  router_.onServiceGone(service);
}

// A service that had left and does not come again is gone, which the others have not heard yet.
void Lifecycle::giveUp(Service& service) {
  if (service.bornAt != 0 && !isEnding_) declareGone(service);
  else router_.breakPathsTo(service);
}

void Lifecycle::keep(Service& service) {
  leaving_.onLeft(service);
  host_.onServiceLeft(service);
  router_.onServiceLeft(service);
}

void Lifecycle::forgetProcess(Service& service) {
  if (Child* child = find(service)) disarm(*child);
  service.pid = 0;
}

// However long a process lived, without a registration it has not proved itself.
void Lifecycle::wait(Child& child, const std::string& how) {
  const unsigned int lived = child.isLate() ? 0 : kl::getJiffies() - child.startTick;
  const unsigned int delay = child.delay.next(lived);
  log_.line(how + "; starts again in " + secondsText(delay));
  child.delayTimer.start(delay);
}

// The confirmation, then what the service has missed: who died since it saved its data, then what was held.
void Lifecycle::greet(Service& service) {
  const Kept* kept = leaving_.onRegistered(service);
  service.wakeAt = 0;
  const std::vector<unsigned char> nothing;
  (void)outbox_.send(service, registration_.readyMessage(service, kept != nullptr ? kept->data : nothing),
                     Urgency::kNotice);
  if (kept != nullptr)
    for (const unsigned int id : leaving_.goneSince(*kept)) router_.reportGone(service, id);
  release(service);
}

std::string Lifecycle::launch(Child& child) {
  Service& service = child.service;
  child.startTick = kl::getJiffies();  // an attempt that fails counts as a short life
  int ends[2];
  if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) return cannotStart(service);
  Descriptor mine(ends[0]);
  const Descriptor its(ends[1]);
  ++service.starts;
  child.program = {};
  child.verdict.clear();
  const pid_t pid = startProcess(*child.configuration, its.get(), child.output.open());
  if (pid < 0) return cannotStart(service);
  service.pid = pid;
  if (service.id != kl::SERVICE_LOG) child.output.setSpeaker(describe(service));
  log_.line(describe(service) + ": started");
  host_.adopt(service, std::move(mine));
  watchStart(child);
  return {};
}

void Lifecycle::watchStart(Child& child) {
  child.startTimer.cancel();
  child.isLastLook = false;
  if (child.configuration->startSeconds > 0)
    child.startTimer.start(child.configuration->startSeconds * kTicksASecond);
}

void Lifecycle::disarm(Child& child) {
  child.endTimer.cancel();
  child.startTimer.cancel();
}

void Lifecycle::arm(Child& child) {
  if (!child.endTimer.isRunning()) child.endTimer.start(kEndTicks);
}

void Lifecycle::kill(const Service& service) {
  log_.line(describe(service) + ": does not end, is killed");
  killGroupOf(service);
}

void Lifecycle::release(Service& service) {
  outbox_.release(service);
  requests_.release(service);
}

void Lifecycle::Child::onDelayOver() {
  if (!lifecycle.isEnding_) lifecycle.apply(service, LifeEvent::kDelayOver);
  lifecycle.host_.writeQueues();
}

// The process may have ended long ago, if the signal of its end was lost.  When the loader ends, one that was asked
// and has not answered is told before it is killed.
void Lifecycle::Child::onTimeOut() {
  const pid_t pid = service.pid;
  lifecycle.reap();
  const bool isToldFirst = lifecycle.isEnding_ && service.state == kl::SVC_STATE_LEAVING;
  if (isAlive() && service.pid == pid)
    lifecycle.apply(service, isToldFirst ? LifeEvent::kStop : LifeEvent::kTimeOut);
  lifecycle.host_.writeQueues();
}

// The registration may have come while the loader itself stood still, so what is there is read before the process is
// judged.
void Lifecycle::Child::onStartTimeOut() {
  if (!std::exchange(isLastLook, true)) return startTimer.start(kLastLookTicks);
  if (findTransition(service.life, LifeEvent::kOverdue) == nullptr) return;
  lifecycle.log_.line(describe(service) + ": does not register, is told to end");
  lifecycle.apply(service, LifeEvent::kOverdue);
  lifecycle.host_.writeQueues();
}

Lifecycle::Child* Lifecycle::find(const Service& service) const {
  const auto found = byId_.find(service.id);
  return found == byId_.end() ? nullptr : found->second;
}

bool Lifecycle::anyAlive(const Child* except) const {
  return std::any_of(children_.begin(), children_.end(),
                     [&](const auto& child) { return child.get() != except && child->isAlive(); });
}
}  // namespace loader

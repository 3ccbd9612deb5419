#pragma once
// lifecycle.h: starts the services, keeps them running, lets them leave and ends them.

#include <functional>
#include <memory>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "admission/registration.h"
#include "crashes/crashes.h"
#include "crashes/service_output.h"
#include "kl/runner.h"
#include "kl/wall_timer.h"
#include "life/idleness.h"
#include "life/leaving.h"
#include "life/restart_delay.h"
#include "life/states.h"
#include "logging/log.h"
#include "routing/router.h"
#include "services/common/timer.h"
#include "transport/descriptors.h"

namespace loader {

// The owner of the connections and of the loader's own service.
class LifecycleHost {
 public:
  // Takes the loader's end of the connection of a process that is being started.
  virtual void adopt(Service& service, Descriptor connection) = 0;
  // The process has ended: reads its last frames and closes its connections.
  virtual void drainConnectionsOf(Service& service) = 0;
  // Closes the connection of somebody else's process that has the id of a service.
  virtual void disconnect(Service& service) = 0;
  // The service is gone; it has left, and only its process is gone.
  virtual void onServiceGone(Service& service) = 0;
  virtual void onServiceLeft(Service& service) = 0;
  // After end(): no process is left.
  virtual void onAllEnded() = 0;
  // Writes what was put into queues.  Called at the end of each callback.
  virtual void writeQueues() = 0;

 protected:
  ~LifecycleHost() = default;
};

// Moves every service through the states of states.h: each of its functions raises an event, and the table decides
// what follows.  README.md draws it.
//
// Errors:    a process that cannot be started counts as one that crashed; each end is one line on the log.  Orders that
//            cannot be followed say why.
// Ownership: owns what is known of the processes; borrows the services until they have been dismissed and have
//            ended.
// Threads:   belongs to one thread.
// Cost:      nothing while nothing happens; timers run only for delays and for processes that have to end.
class Lifecycle {
 public:
  static constexpr unsigned int kEndTicks =
      200;  // for a process that has to end, or is asked at the orderly end

  Lifecycle(kl::ThinRunner& runner, ServiceTable& table, OpenRequests& requests, Outbox& outbox,
            Router& router, Registration& registration, Leaving& leaving, Idleness& idleness, Log& log,
            LifecycleHost& host);
  Lifecycle(const Lifecycle&) = delete;
  Lifecycle& operator=(const Lifecycle&) = delete;

  // The function hears of a process that has crashed and left a report; without one those are lost.
  using OnCrash = std::function<void(const Crashed& crashed)>;
  void setOnCrash(OnCrash onCrash) { onCrash_ = std::move(onCrash); }

  // Expects a configured service from now on.  One with a command is the loader's to start, but not yet.
  void configure(Service& service, const ServiceConfiguration& configuration);
  // Puts the services that were away when the last loader ended where they were, and starts those that start with the
  // loader.  Needs: the leaves are restored.
  void begin();

  // The same for a service that was configured later.
  void begin(Service& service);

  // This is what the configuration, read anew, says of a service.  The former one stays until the call is over.  With
  // `restarts` its process is replaced if it runs; a process of a user who is not its own any more is disconnected.
  void reconfigure(Service& service, const ServiceConfiguration& configuration, bool restarts);
  // Nobody configures the service any more: it ends, and when it has, forgetDismissed() takes it out of the table.
  // The configuration that it was started by has to stay until then.
  void dismiss(Service& service);
  void forgetDismissed();
  bool hasDismissed() const { return !dismissed_.empty(); }

  // The orders that an operator may give for a service: SVC_START, SVC_STOP, SVC_RESTART or SVC_LEAVE.  Null, or why
  // it cannot be done; a leave has then an outcome, or its state says when it has.
  const char* order(Service& service, unsigned int action);
  const char* askToLeave(Service& service);

  // A process has registered as this service, and its row shows it.
  void onRegistered(Service& service);
  // A control message of a process that has registered.
  void onControl(Service& service, const Envelope& e);
  // Something is held for the service that it is to be started for.
  void onNeeded(Service& service);
  // The connection of the process that had registered is closed.
  void onConnectionClosed(Service& service);
  // The process that the loader started has closed its connection and had not registered.
  void onHungUp(Service& service) { apply(service, LifeEvent::kHungUp); }

  // The service runs and does not answer: its process is killed, which counts as a crash.  `why` is told of its end.
  void endHung(Service& service, const std::string& why);

  // Collects the processes that have ended.
  void reap();

  // Asks those processes to leave that may, tells all others to end, and starts none any more.  The log service comes
  // when no other process is left, so that it hears of their ends.  A second call kills them at once.
  void end();

 private:
  // A service that the loader starts.
  struct Child {
    Child(Lifecycle& l, Service& s, const ServiceConfiguration& c)
        : lifecycle(l),
          service(s),
          configuration(&c),
          output(l.runner_, l.log_, s.name),
          delayTimer(l.runner_, *this),
          endTimer(l.runner_, *this),
          startTimer(l.runner_, *this) {}
    void onDelayOver();
    void onTimeOut();
    void onStartTimeOut();
    bool isLate() const { return service.life == LifeState::kLate || service.life == LifeState::kLateAgain; }
    bool isAlive() const { return service.pid > 0 && rowOf(service.life).process == ProcessOf::kLoader; }

    Lifecycle& lifecycle;
    Service& service;
    const ServiceConfiguration* configuration;
    ServiceOutput output;
    std::string verdict;  // why the loader has killed its process as it ran; empty: it has not
    ProgramFile program;  // of its process, once that has registered
    unsigned int startTick = 0;
    RestartDelay delay;
    common::Timer<&Child::onDelayOver> delayTimer;
    common::Timer<&Child::onTimeOut> endTimer;
    common::Timer<&Child::onStartTimeOut> startTimer;
    bool isLastLook = false;  // of startTimer: its time is over, and what came meanwhile is read
  };

  const char* start(Service& service);
  const char* stop(Service& service);
  const char* restart(Service& service);
  void restore(Service& service);
  void followStartRule(const Child& child);
  void forget(unsigned int id);
  void endInOrder(Child& child);
  void endLogService();
  bool askToLeaveAtEnd(Child& child);

  void apply(Service& service, LifeEvent event, const std::string& how = {});
  void before(Service& service, Steps steps, const std::string& how);
  std::string after(Service& service, Steps steps);
  void follow(Service& service, Steps steps, const std::string& failure);
  void enter(Service& service, LifeState state);

  void declareGone(Service& service);
  void giveUp(Service& service);
  void keep(Service& service);
  void forgetProcess(Service& service);
  void wait(Child& child, const std::string& how);
  void greet(Service& service);
  std::string launch(Child& child);
  void arm(Child& child);
  void watchStart(Child& child);
  void disarm(Child& child);
  void kill(const Service& service);
  void release(Service& service);

  void onWakeTime(Service& service, unsigned int second);
  void onReadiness(Service& service, unsigned int value);
  void onWish(Service& service);
  void setAlarm();
  void wakeServices();
  void onRefused(Service& service);
  void onSaved(Service& service, const Envelope& e);
  void onProcessExit(Child& child, int status);
  void report(Child& child, std::string report) const;
  LifeEvent exitEvent(const Child& child, bool crashed) const;

  Child* find(const Service& service) const;
  bool anyAlive(const Child* except) const;

  kl::ThinRunner& runner_;
  ServiceTable& table_;
  OpenRequests& requests_;
  Outbox& outbox_;
  Router& router_;
  Registration& registration_;
  Leaving& leaving_;
  Idleness& idleness_;
  Log& log_;
  LifecycleHost& host_;
  OnCrash onCrash_;
  std::vector<std::unique_ptr<Child>> children_;  // in the order of the configuration
  std::unordered_map<unsigned int, Child*> byId_;
  std::vector<Service*> dismissed_;
  kl::WallTimer alarm_;  // for the first of those that have left and named a time
  bool isEnding_ = false;
  bool isLogTold_ = false;  // at the end the log service is told behind all others
};

}  // namespace loader

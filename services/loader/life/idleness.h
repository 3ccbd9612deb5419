#pragma once
// idleness.h: which services have nothing to do.

#include <map>
#include <memory>

#include "kl/runner.h"
#include "routing/service.h"

namespace loader {

// What is done about an idle service.
class IdlenessHost {
 public:
  virtual void isIdle(Service& service) = 0;
  // The time that Service::lastActive is in, in seconds.
  virtual unsigned int seconds() const = 0;

 protected:
  ~IdlenessHost() = default;
};

// Watches the services that are to leave after some time without work: no message for them or from them, and no
// request that they have not answered.  Each is looked at when it could be idle at the earliest, never oftener.
//
// Errors:    none.
// Ownership: borrows the services for good (configured ones stay in the table).
// Threads:   belongs to one thread.
// Cost:      one timer for each service that is watched.
class Idleness {
 public:
  Idleness(kl::ThinRunner& runner, IdlenessHost& host) : runner_(runner), host_(host) {}
  Idleness(const Idleness&) = delete;
  Idleness& operator=(const Idleness&) = delete;

  // Whether the service may leave has changed.  From then on it counts as idle at the earliest after its time.
  void readinessChanged(Service& service);

  // Tells the host if the service is idle now; seconds until it could be, or could be again.
  unsigned int look(Service& service);

 private:
  struct Watch {
    Watch(Idleness& i, Service& s) : idleness(i), service(s) {}
    void onTimer();

    Idleness& idleness;
    Service& service;
    kl::TimerPtr timer;
  };

  void lookAgainLater(Watch& watch);

  kl::ThinRunner& runner_;
  IdlenessHost& host_;
  std::map<unsigned int, std::unique_ptr<Watch>> watches_;  // by service id
};

}  // namespace loader
